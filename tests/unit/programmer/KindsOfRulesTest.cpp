// The four kinds of rules side by side: what each becomes, how its settled writes become a result, and how it goes.
#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <tests/support/Programmer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace {

using Asic::EntryState;
using PfeHelper::NatHwResult;
using Support::AnyRule;
using Support::dynamicRule;
using Support::keyOf;
using Support::Lines;
using Support::twiceRule;
using testing::ElementsAre;
using testing::IsEmpty;

struct Kind {
   char const * name;
   AnyRule rule;
   Lines program;      // text traces of the keys that it programs
   std::string ring;   // of the first of them; empty: none
   char const * from;  // its table of what is sent, and of the replies
   char const * back;
   char const * success;  // what the traces of its completions call it
   bool hasTwins;
   std::set< NatHwResult > clearedByDelete;  // at once; the others are left to the completion
   Lines rows;                               // with fragmentation
};

std::vector< Kind > kinds() {
   using enum NatHwResult;
   return {
      { .name = "static",
        .rule = Support::StaticRule{ Support::staticKey( "10.0.0.1:80" ), Support::staticEntry( "192.0.2.1:8080" ) },
        .program = { "6 programStaticRule, target: 0, fragment: 1", "6 programStaticRule, target: 0, fragment: 0",
                     "6 programStaticRule, target: 1, fragment: 1", "6 programStaticRule, target: 1, fragment: 0" },
        .ring = "staticNatMatchKey, target: 0, ipAndPortOld: Value('Netix::IpAndPort', ip=10.0.0.1, port=0)",
        .from = "ingStaticNatTable",
        .back = "ingStaticNatTable",
        .success = " success",
        .hasTwins = true,
        .clearedByDelete = { pending, failed, unsupported, noSpace, rejectedMulticast },
        .rows = { "destination eth1 192.0.2.1 > 10.0.0.1 proto 6 fragment | destination 3/5 | twin none | nextHop 0 "
                  "acl 0",
                  "destination eth1 192.0.2.1:8080 > 10.0.0.1:80 proto 6 | destination 4/5 | "
                  "twin 192.0.2.1 > 10.0.0.1 | nextHop 0 acl 0",
                  "source eth1 10.0.0.1 > 192.0.2.1 proto 6 fragment | source 1/5 | twin none | nextHop 0 acl 0",
                  "source eth1 10.0.0.1:80 > 192.0.2.1:8080 proto 6 | source 2/5 | twin 10.0.0.1 > 192.0.2.1 | "
                  "nextHop 0 acl 0",
                  "destination 3/5 | 0.0.0.0 > 10.0.0.1", "destination 4/5 | 0.0.0.0 > 10.0.0.1:80",
                  "source 1/5 | 192.0.2.1 > 0.0.0.0", "source 2/5 | 192.0.2.1:8080 > 0.0.0.0" } },
      { .name = "twice",
        .rule = twiceRule( "10.0.0.1:80 > 192.0.2.9:81", "192.0.2.1:82 > 10.9.0.9:83" ),
        .program = { "6 programTwiceRule, direction: forward, fragment: 1",
                     "6 programTwiceRule, direction: forward, fragment: 0",
                     "6 programTwiceRule, direction: reverse, fragment: 1",
                     "6 programTwiceRule, direction: reverse, fragment: 0" },
        .ring = "twiceNatMatchKey, forward: 1, srcIpAndPortOld: Value('Netix::IpAndPort', ip=10.0.0.1, port=0), "
                "dstIpAndPortOld: Value('Netix::IpAndPort', ip=192.0.2.9, port=0)",
        .from = "ingTwiceNatTable",
        .back = "ingTwiceNatTable",
        .success = " success",
        .hasTwins = true,
        .clearedByDelete = { failed, rejectedMulticast },
        .rows = { "forward eth1 10.0.0.1, 192.0.2.9 > 192.0.2.1, 10.9.0.9 fragment | source 1/5 | twin none | "
                  "nextHop 0",
                  "forward eth1 10.0.0.1:80, 192.0.2.9:81 > 192.0.2.1:82, 10.9.0.9:83 | source 2/5 | "
                  "twin 10.0.0.1, 192.0.2.9 > 192.0.2.1, 10.9.0.9 | nextHop 0",
                  "reverse eth1 10.9.0.9, 192.0.2.1 > 192.0.2.9, 10.0.0.1 fragment | destination 3/5 | twin none | "
                  "nextHop 0",
                  "reverse eth1 10.9.0.9:83, 192.0.2.1:82 > 192.0.2.9:81, 10.0.0.1:80 | destination 4/5 | "
                  "twin 10.9.0.9, 192.0.2.1 > 192.0.2.9, 10.0.0.1 | nextHop 0",
                  "destination 3/5 | 192.0.2.9 > 10.0.0.1", "destination 4/5 | 192.0.2.9:81 > 10.0.0.1:80",
                  "source 1/5 | 192.0.2.1 > 10.9.0.9", "source 2/5 | 192.0.2.1:82 > 10.9.0.9:83" } },
      { .name = "dynamic NAPT",
        .rule = dynamicRule( "10.0.0.1:4000 > 203.0.113.1:443", "192.0.2.1:5000" ),
        .from = "ingDynamicSnaptTable",
        .back = "ingDynamicDnaptTable",
        .success = "",
        .hasTwins = true,
        .clearedByDelete = { failed },
        .rows = { "dnapt q5 203.0.113.1, 192.0.2.1 proto 6 fragment | destination 3/5 | twin none | natId 3 nextHop 0",
                  "dnapt q5 203.0.113.1:443, 192.0.2.1:5000 proto 6 | destination 4/5 | twin 203.0.113.1, 192.0.2.1 | "
                  "natId 4 nextHop 0",
                  "snapt q5 10.0.0.1, 203.0.113.1 proto 6 fragment | source 1/5 | twin none | natId 1 nextHop 0",
                  "snapt q5 10.0.0.1:4000, 203.0.113.1:443 proto 6 | source 2/5 | twin 10.0.0.1, 203.0.113.1 | "
                  "natId 2 nextHop 0",
                  "destination 3/5 | 0.0.0.0 > 10.0.0.1:4000", "destination 4/5 | 0.0.0.0 > 10.0.0.1:4000",
                  "source 1/5 | 192.0.2.1:5000 > 0.0.0.0", "source 2/5 | 192.0.2.1:5000 > 0.0.0.0" } },
      { .name = "address-only",
        .rule = dynamicRule( "10.0.0.1:4000 > 203.0.113.1:443", "192.0.2.1",
                             { .intfQualifier = 5, .connection = { .addrOnly = true } } ),
        .from = "ingDynamicSnatAddrOnlyTable",
        .back = "ingDynamicDnatAddrOnlyTable",
        .success = "",
        .hasTwins = false,
        .clearedByDelete = { failed },
        .rows = { "dnat q5 192.0.2.1 | destination 2/5 | twin none | natId 2 nextHop 0",
                  "snat q5 10.0.0.1 | source 1/5 | twin none | natId 1 nextHop 0",
                  "destination 2/5 | 0.0.0.0 > 10.0.0.1:4000", "source 1/5 | 192.0.2.1 > 0.0.0.0" } },
   };
}

// The same rule in another entry.
AnyRule ruleAgain( Kind const & kind ) {
   for ( auto const & fresh : kinds() ) {
      if ( fresh.name == std::string_view( kind.name ) ) {
         return fresh.rule;
      }
   }
   return kind.rule;
}

// A programmer with fragmentation, and one rule of a kind.
struct Switch : Support::Programmer {
   explicit Switch( Kind const & ofKind ) : kind( ofKind ) { config->fragmentationEnabledIs( true ); }

   void add() const { Support::add( *sm, kind.rule ); }
   void del() const { Support::del( *sm, kind.rule ); }
   void settleNext( EntryState outcome, std::size_t count = 1 ) const {
      for ( ; count > 0; --count ) {
         tables.hardware->settleNext( outcome );
      }
   }
   std::optional< NatHwResult > result() const { return Programmer::result( keyOf( kind.rule ) ); }
   // Writes of one direction: a rewrite and an entry, and the same for the twin before them.
   std::size_t writesPerDirection() const { return kind.hasTwins ? 4 : 2; }
   std::size_t ids() const { return writesPerDirection(); }

   // The responses of the rows, as the tables may call them at any time.
   std::vector< Asic::WriteResponseFn > responses( bool ofTwins ) const {
      std::vector< Asic::WriteResponseFn > found;
      forEachRow( [ & ]( Asic::Row const & row, std::string const & text ) {
         if ( row.newest && row.entryOf( *row.newest ).writeResponse &&
              ofTwins == ( text.find( "fragment=1" ) != text.npos ) ) {
            found.push_back( row.entryOf( *row.newest ).writeResponse );
         }
      } );
      return found;
   }

   Kind const kind;

 private:
   void forEachRow( std::function< void( Asic::Row const &, std::string const & ) > const & function ) const {
      auto const call = []( void * context, Asic::Row & row ) {
         std::ostringstream text;
         row.describe( text );
         ( *static_cast< decltype( &function ) >( context ) )( row, text.str() );
      };
      for ( auto * const table : tables.hardware->tables() ) {
         table->forEachRow( call, const_cast< void * >( static_cast< void const * >( &function ) ) );
      }
   }
};

template< class Check > void forEachKind( Check && check ) {
   for ( auto const & kind : kinds() ) {
      SCOPED_TRACE( kind.name );
      check( Switch( kind ) );
   }
}

// --- What each becomes -----------------------------------------------------------------------------------------------

TEST( KindsOfRules, AreProgrammedDirectionByDirectionTheTwinBeforeItsEntry ) {
   forEachKind( []( Switch const & nat ) {
      Support::TraceLines trace( 6 );
      auto ring = Support::ringLinesOf( [ & ] { nat.add(); } );
      auto lines = trace.take();
      if ( nat.kind.ring.empty() ) {
         EXPECT_EQ( ring.size(), 1U );
      } else {
         EXPECT_EQ( ring[ 1 ], "NatSwTableProgrammerSm::" + nat.kind.ring );
         EXPECT_TRUE( lines[ 2 ].starts_with(
            "6 " + nat.kind.ring.substr( 0, nat.kind.ring.find( ',' ) ) + ", natMatchKey: " +
            Vexa::stringOf( ( *nat.natIdInfo->matchKeyToNatId().begin() ).first ).substr( 0, 40 ) ) );
      }
      std::erase_if( lines, []( std::string const & line ) { return !line.starts_with( "6 program" ); } );
      EXPECT_EQ( lines, nat.kind.program );

      nat.settle();
      Lines expected, written;
      for ( auto const & [ rewrite, ingress ] : { std::pair( "egrSourceNatUcRewriteTable", nat.kind.from ),
                                                  { "egrDestinationNatUcRewriteTable", nat.kind.back } } ) {
         if ( nat.kind.hasTwins ) {
            expected.insert( expected.end(), { rewrite, std::string( ingress ) + " twin" } );
         }
         expected.insert( expected.end(), { rewrite, ingress } );
      }
      for ( auto const & line : nat.chip->takeLog() ) {
         auto const table = line.substr( 6, line.find( ' ', 6 ) - 6 );
         written.push_back( table + ( line.find( "fragment=1" ) == line.npos ? "" : " twin" ) );
      }
      EXPECT_EQ( written, expected );
      EXPECT_EQ( nat.tables.text(), nat.kind.rows );
      EXPECT_EQ( Support::outcomes( *nat.status ),
                 ( std::map< Support::AnyKey, Support::Outcome >{
                    { keyOf( nat.kind.rule ), { NatHwResult::programmed, nat.kind.rule } } } ) );

      // An update writes the same rows again and removes nothing.
      Support::update( *nat.sm, nat.kind.rule );
      nat.settle();
      EXPECT_EQ( nat.chip->takeLog().size(), expected.size() );
      EXPECT_EQ( nat.tables.text(), nat.kind.rows );
      EXPECT_EQ( nat.result(), NatHwResult::programmed );
   } );
}

// --- Completions -----------------------------------------------------------------------------------------------------

TEST( KindsOfRules, TheLastDirectionToSettleReportsForBoth ) {
   forEachKind( []( Switch const & nat ) {
      Support::TraceLines trace( 6 );
      nat.add();
      trace.take();
      Lines const added{ "6 Add fragment entry" + std::string( nat.kind.success ) + " response",
                         "6 Add normal entry" + std::string( nat.kind.success ) + " response" };
      for ( auto const expected : { std::optional< NatHwResult >(), std::optional( NatHwResult::programmed ) } ) {
         nat.settleNext( EntryState::settled, nat.writesPerDirection() - 1 );
         EXPECT_EQ( nat.result(), std::nullopt );
         nat.settleNext( EntryState::settled );
         EXPECT_EQ( trace.take(), Lines( nat.kind.hasTwins ? added.begin() : added.begin() + 1, added.end() ) );
         EXPECT_EQ( nat.result(), expected );
      }
   } );
}

TEST( KindsOfRules, FailByTheirEntriesAndRewritesNeverByATwinAndHealWhenSentAgain ) {
   forEachKind( []( Switch const & nat ) {
      auto const perDirection = nat.writesPerDirection();
      for ( std::size_t failing = 0; failing < 2 * perDirection; ++failing ) {
         SCOPED_TRACE( failing );
         bool const ofTwin = nat.kind.hasTwins && failing % 4 < 2;
         Support::TraceLines trace( 6 );
         nat.add();
         nat.settleNext( EntryState::settled, failing );
         trace.take();
         nat.settleNext( failing < perDirection ? EntryState::failed : EntryState::full );
         nat.settleNext( EntryState::settled, failing % 2 == 0 ? 1 : 0 );  // the entry of a failed rewrite is not sent
         EXPECT_THAT( trace.take(),
                      ElementsAre( ofTwin ? "6 Fragment entry failure response" : "6 Normal entry failure response" ) );
         nat.settle();
         EXPECT_EQ( nat.result(), ofTwin ? NatHwResult::programmed : NatHwResult::failed );
         EXPECT_EQ( nat.idsInUse(), nat.ids() );
         nat.tables.hardware->retryFailed();
         nat.settle();
         EXPECT_EQ( nat.result(), NatHwResult::programmed );
         EXPECT_EQ( nat.tables.text(), nat.kind.rows );
         nat.del();
         ASSERT_TRUE( nat.settleToRest() );
         EXPECT_EQ( nat.result(), std::nullopt );
      }
   } );
}

TEST( KindsOfRules, ReleaseWhatTheyHeldWhenTheirRemovalSettles ) {
   forEachKind( []( Switch const & nat ) {
      nat.add();
      nat.settle();
      nat.chip->refuseAll = true;
      nat.del();
      nat.settle();
      EXPECT_EQ( nat.result(), NatHwResult::failed ) << "the hardware refused";
      EXPECT_EQ( nat.idsInUse(), nat.ids() );
      nat.chip->refuseAll = false;
      Support::TraceLines trace( 8 );
      ASSERT_TRUE( nat.settleToRest() );
      auto const lines = trace.take();
      std::string const success = nat.kind.success;
      EXPECT_THAT( lines, testing::Contains( "6 Delete normal entry" + success + " response" ).Times( 2 ) );
      EXPECT_THAT(
         lines,
         testing::Contains( "6 Delete fragment entry" + success + " response" ).Times( nat.kind.hasTwins ? 2 : 0 ) );
      EXPECT_THAT(
         lines,
         testing::Contains( testing::HasSubstr( " freeing natId: " ) ).Times( static_cast< int >( nat.ids() ) ) );
      EXPECT_THAT( nat.tables.text(), IsEmpty() );
      EXPECT_EQ( nat.idsInUse(), 0U );
      EXPECT_EQ( nat.result(), std::nullopt );
      EXPECT_THAT( nat.mcast->cleaned, IsEmpty() ) << "not a multicast rule";
   } );
}

TEST( KindsOfRules, HearOfARefusedRemovalUntilItIsDone ) {
   forEachKind( []( Switch const & nat ) {
      configure( *nat.config, nat.kind.rule );
      nat->replay();
      ASSERT_TRUE( nat.settleToRest() );
      // An update that fails: the older rows stay.
      nat.chip->failEvery = 1;
      configure( *nat.config, ruleAgain( nat.kind ) );
      nat.settle();
      EXPECT_EQ( nat.result(), NatHwResult::failed );
      nat.chip->refuseAll = true;
      nat->deleteAllConnections();
      nat.settle();
      EXPECT_EQ( nat.result(), NatHwResult::failed );
      nat.chip->refuseAll = false;
      nat.settle();
      EXPECT_EQ( nat.result(), std::nullopt );
      nat.settle();
      EXPECT_EQ( nat.idsInUse(), 0U );
      EXPECT_EQ( nat.tables.rowCount(), 0U );
   } );
}

TEST( KindsOfRules, LeaveTheTablesAloneWhenDeletedUnprogrammedAndKeepTheirIdsWhenAddedAgain ) {
   forEachKind( []( Switch const & nat ) {
      nat.del();
      EXPECT_EQ( nat.tables.hardware->outstanding(), 0U );
      nat.add();
      nat.settle();
      nat.del();
      nat.add();
      ASSERT_TRUE( nat.settleToRest() );
      EXPECT_EQ( nat.tables.text(), nat.kind.rows );
      EXPECT_EQ( nat.result(), NatHwResult::programmed );
   } );
}

// --- Deletes ---------------------------------------------------------------------------------------------------------

TEST( KindsOfRules, DeletesClearTheirOwnResultsAtOnceAndLeaveTheOthersToTheCompletion ) {
   forEachKind( []( Switch const & nat ) {
      for ( int before = -1; before <= 5; ++before ) {  // -1: none
         SCOPED_TRACE( before );
         nat.add();
         std::optional< NatHwResult > expected;
         if ( before >= 0 ) {
            auto const result = static_cast< NatHwResult >( before );
            resultIs( *nat.status, nat.kind.rule, result );
            expected = nat.kind.clearedByDelete.contains( result ) ? std::nullopt : std::optional( result );
         }
         nat.del();
         EXPECT_EQ( nat.result(), expected );
         ASSERT_TRUE( nat.settleToRest() );
         EXPECT_EQ( nat.result(), std::nullopt );
         EXPECT_EQ( nat.idsInUse(), 0U );
      }
   } );
}

// --- Reports that nobody asked for -----------------------------------------------------------------------------------

TEST( KindsOfRules, BearSuperfluousAndStaleReports ) {
   forEachKind( []( Switch const & nat ) {
      nat.add();
      for ( auto const & early : nat.responses( false ) ) {
         early( EntryState::pending );
         early( EntryState::settled );  // the other direction has not settled
         EXPECT_EQ( nat.result(), std::nullopt );
      }
      nat.settle();
      auto const ofEntries = nat.responses( false ), ofTwins = nat.responses( true );
      ASSERT_EQ( ofEntries.size(), 2U );
      ASSERT_EQ( ofTwins.size(), nat.kind.hasTwins ? 2U : 0U );
      for ( auto const & [ responses, result ] :
            { std::pair( &ofEntries, NatHwResult::failed ), { &ofTwins, NatHwResult::programmed } } ) {
         for ( auto const & response : *responses ) {
            response( EntryState::pending );
            EXPECT_EQ( nat.result(), NatHwResult::programmed );
            for ( auto const failure : { EntryState::failed, EntryState::full } ) {
               response( failure );
               EXPECT_EQ( nat.result(), result );
               ofEntries[ 0 ]( EntryState::settled );
               EXPECT_EQ( nat.result(), NatHwResult::programmed );
            }
         }
      }
      EXPECT_EQ( nat.tables.text(), nat.kind.rows );

      nat.del();
      ASSERT_TRUE( nat.settleToRest() );
      auto const reportAll = [ & ] {
         for ( auto const * responses : { &ofEntries, &ofTwins } ) {
            for ( auto const & response : *responses ) {
               response( EntryState::settled );
               response( EntryState::pending );
            }
         }
      };
      reportAll();
      EXPECT_EQ( nat.idsInUse(), 0U );
      EXPECT_EQ( nat.result(), std::nullopt );
      nat.add();
      nat.settle();
      reportAll();
      EXPECT_EQ( nat.idsInUse(), nat.ids() );
      EXPECT_EQ( nat.tables.text(), nat.kind.rows );
   } );
}

TEST( KindsOfRulesDeathTest, StopAtStatesAndResultsThatDoNotExist ) {
   forEachKind( []( Switch const & nat ) {
      nat.add();
      nat.settle();
      for ( bool const ofTwins : { false, true } ) {
         for ( auto const & response : nat.responses( ofTwins ) ) {
            for ( U8 const state : { 0, 2, 6 } ) {
               EXPECT_DEATH( response( static_cast< EntryState >( state ) ), "^false && \"unknown entryState\"\n" );
            }
         }
      }
      resultIs( *nat.status, nat.kind.rule, static_cast< NatHwResult >( 6 ) );
      EXPECT_DEATH( nat.del(), "^false && \"unknown programmerStatus result\"\n" );
   } );
}

}  // namespace
