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
        .clearedByDelete = { pending, failed, unsupported, noSpace, rejectedMulticast } },
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
        .clearedByDelete = { failed, rejectedMulticast } },
      { .name = "dynamic NAPT",
        .rule = dynamicRule( "10.0.0.1:4000 > 203.0.113.1:443", "192.0.2.1:5000" ),
        .from = "ingDynamicSnaptTable",
        .back = "ingDynamicDnaptTable",
        .success = "",
        .hasTwins = true,
        .clearedByDelete = { failed } },
      { .name = "address-only",
        .rule = dynamicRule( "10.0.0.1:4000 > 203.0.113.1:443", "192.0.2.1",
                             { .intfQualifier = 5, .connection = { .addrOnly = true } } ),
        .from = "ingDynamicSnatAddrOnlyTable",
        .back = "ingDynamicDnatAddrOnlyTable",
        .success = "",
        .hasTwins = false,
        .clearedByDelete = { failed } },
   };
}

// A programmer with fragmentation, and one rule of a kind.
struct Switch : Support::Programmer {
   explicit Switch( Kind const & ofKind ) : kind( ofKind ) {
      config->fragmentationEnabledIs( true );
      chip->log.emplace();
   }

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
   std::vector< Asic::WriteResponseFn > responses() const {
      std::vector< Asic::WriteResponseFn > found;
      auto const take = []( void * responses, Asic::Row & row ) {
         if ( auto const & response = row.entryOf( *row.newest ).writeResponse ) {
            static_cast< decltype( found ) * >( responses )->push_back( response );
         }
      };
      for ( auto * const table : tables.hardware->tables() ) {
         table->forEachRow( take, &found );
      }
      return found;
   }

   Kind const kind;
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
      for ( auto const & line : std::exchange( *nat.chip->log, {} ) ) {
         auto const table = line.substr( 6, line.find( ' ', 6 ) - 6 );
         written.push_back( table + ( line.find( "fragment=1" ) == line.npos ? "" : " twin" ) );
      }
      EXPECT_EQ( written, expected );
      auto const rows = nat.tables.text();
      EXPECT_EQ( rows.size(), expected.size() );
      EXPECT_EQ( Support::outcomes( *nat.status ),
                 ( std::map< Support::AnyKey, Support::Outcome >{
                    { keyOf( nat.kind.rule ), { NatHwResult::programmed, nat.kind.rule } } } ) );

      // An update writes the same rows again and removes nothing.
      Support::update( *nat.sm, nat.kind.rule );
      nat.settle();
      EXPECT_EQ( std::exchange( *nat.chip->log, {} ).size(), expected.size() );
      EXPECT_EQ( nat.tables.text(), rows );
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
         EXPECT_EQ( nat.tables.rowCount(), 2 * perDirection );
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
      nat.chip->refuseEvery = 1;
      nat.del();
      nat.settle();
      EXPECT_EQ( nat.result(), NatHwResult::failed ) << "the hardware refused";
      EXPECT_EQ( nat.idsInUse(), nat.ids() );
      nat.chip->refuseEvery = 0;
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

TEST( KindsOfRulesDeathTest, StopAtStatesAndResultsThatDoNotExist ) {
   forEachKind( []( Switch const & nat ) {
      nat.add();
      nat.settle();
      for ( auto const & response : nat.responses() ) {
         for ( U8 const state : { 0, 2, 6 } ) {
            EXPECT_DEATH( response( static_cast< EntryState >( state ) ), "^false && \"unknown entryState\"\n" );
         }
      }
      resultIs( *nat.status, nat.kind.rule, static_cast< NatHwResult >( 6 ) );
      EXPECT_DEATH( nat.del(), "^false && \"unknown programmerStatus result\"\n" );
   } );
}

}  // namespace
