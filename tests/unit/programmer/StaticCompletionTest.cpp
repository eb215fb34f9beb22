// How settled writes become results, and how deleted rules disappear.
#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <tests/support/Programmer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Asic::EntryState;
using Ip::Nat::NatTarget;
using PfeHelper::NatHwResult;
using Support::staticEntry;
using Support::staticKey;
using testing::ElementsAre;
using testing::IsEmpty;

struct StaticCompletion : testing::Test {
   // The rule in the hands of the tables, nothing settled; with twins.
   void add() {
      nat.config->fragmentationEnabledIs( true );
      nat->addStaticConnection( key, entry );
   }
   void settleNext( EntryState outcome, int count = 1 ) {
      for ( ; count > 0; --count ) {
         nat.tables.hardware->settleNext( outcome );
      }
   }
   // The response of a row, as a table may call it at any time.
   Asic::WriteResponseFn responseOf( bool fragment = false, NatTarget target = NatTarget::source ) const {
      bool const isSource = target == NatTarget::source;
      auto const row = Support::ingressKey( target, isSource ? inside( fragment ) : outside( fragment ),
                                            isSource ? outside( fragment ) : inside( fragment ), fragment );
      auto const * const found = nat.tables.ingress->entry( row );
      return found ? found->writeResponse : Asic::WriteResponseFn();
   }
   static char const * inside( bool fragment ) { return fragment ? "10.0.0.1" : "10.0.0.1:80"; }
   static char const * outside( bool fragment ) { return fragment ? "192.0.2.1" : "192.0.2.1:8080"; }
   void resultIs( NatHwResult result ) { nat.status->staticStatusIs( key, { result, entry } ); }

   Support::Programmer nat;
   Support::StaticKey const key = staticKey( "10.0.0.1:80" );
   Support::StaticEntry const entry = staticEntry( "192.0.2.1:8080" );
};

// --- In the order of the writes --------------------------------------------------------------------------------------

TEST_F( StaticCompletion, TheLastEntryToSettleReportsForTheConnection ) {
   Support::TraceLines trace( 6 );
   add();
   trace.take();
   settleNext( EntryState::settled, 2 );  // rewrite and twin
   EXPECT_THAT( trace.take(), ElementsAre( "6 Add fragment entry success response" ) );
   settleNext( EntryState::settled, 2 );
   EXPECT_THAT( trace.take(), ElementsAre( "6 Add normal entry success response" ) );
   settleNext( EntryState::settled, 3 );
   EXPECT_EQ( nat.result( key ), std::nullopt );
   trace.take();
   settleNext( EntryState::settled );
   EXPECT_THAT( trace.take(), ElementsAre( "6 Add normal entry success response" ) );
   EXPECT_EQ( nat.result( key ), NatHwResult::programmed );
   EXPECT_EQ( nat.status->staticStatus().find( key )->entry, entry );
}

TEST_F( StaticCompletion, AnyNormalEntryThatFailsFailsTheRuleAndKeepsItsId ) {
   struct {
      char const * name;
      std::vector< EntryState > outcomes;  // of the first direction's rewrite, twin, rewrite, entry; then the second's
      std::optional< NatHwResult > result;
   } const ok = { "", std::vector( 8, EntryState::settled ), NatHwResult::programmed };
   auto const with = [ & ]( char const * name, std::size_t write, EntryState outcome, NatHwResult result ) {
      auto row = ok;
      row.name = name;
      row.outcomes[ write ] = outcome;
      row.result = result;
      return row;
   };
   for ( auto const & row : { with( "nothing", 0, EntryState::settled, NatHwResult::programmed ),
                              with( "first twin's rewrite", 0, EntryState::failed, NatHwResult::programmed ),
                              with( "first twin", 1, EntryState::failed, NatHwResult::programmed ),
                              with( "first rewrite", 2, EntryState::failed, NatHwResult::failed ),
                              with( "first entry", 3, EntryState::failed, NatHwResult::failed ),
                              with( "second twin", 5, EntryState::full, NatHwResult::programmed ),
                              with( "second rewrite", 6, EntryState::full, NatHwResult::failed ),
                              with( "second entry", 7, EntryState::full, NatHwResult::failed ) } ) {
      SCOPED_TRACE( row.name );
      add();
      for ( auto const outcome : row.outcomes ) {
         settleNext( outcome );
      }
      EXPECT_EQ( nat.result( key ), row.result );
      EXPECT_EQ( nat.idsInUse(), 4U );
      // Everything heals by sending it again.
      nat.tables.hardware->retryFailed();
      nat.settle();
      EXPECT_EQ( nat.result( key ), NatHwResult::programmed );
      EXPECT_EQ( nat.tables.failedRowCount(), 0U );
      nat->deleteStaticConnection( key, entry );
      ASSERT_TRUE( nat.settleToRest() );
      EXPECT_EQ( nat.result( key ), std::nullopt );
   }
}

TEST_F( StaticCompletion, FailuresAreTraced ) {
   Support::TraceLines trace( 6 );
   add();
   trace.take();
   settleNext( EntryState::settled );
   settleNext( EntryState::failed );
   settleNext( EntryState::settled );
   settleNext( EntryState::full );
   EXPECT_THAT( trace.take(), ElementsAre( "6 Fragment entry failure response", "6 Normal entry failure response" ) );
}

TEST_F( StaticCompletion, ASettledRemovalReleasesItsOwnKeyAndTheStatus ) {
   add();
   nat.settle();
   Support::TraceLines trace( 8 );
   nat->deleteStaticConnection( key, entry );
   EXPECT_EQ( nat.result( key ), NatHwResult::programmed );
   EXPECT_EQ( nat.idsInUse(), 4U );
   trace.take();
   settleNext( EntryState::settled );
   auto const lines = trace.take();
   ASSERT_EQ( lines.size(), 3U );
   EXPECT_EQ( lines[ 0 ], "6 Delete normal entry success response" );
   EXPECT_THAT( lines[ 1 ], testing::HasSubstr( "ip=10.0.0.1, port=80), target=0, protocol=6)) new refCount: 0" ) );
   EXPECT_THAT( lines[ 2 ], testing::EndsWith( " freeing natId: 2" ) );
   EXPECT_EQ( nat.result( key ), std::nullopt );
   EXPECT_EQ( nat.idsInUse(), 3U );
   trace.take();
   ASSERT_TRUE( nat.settleToRest() );
   EXPECT_THAT( trace.take(), testing::Contains( "6 Delete fragment entry success response" ).Times( 2 ) );
   EXPECT_EQ( nat.idsInUse(), 0U );
   EXPECT_THAT( nat.tables.text(), IsEmpty() );
   EXPECT_THAT( nat.mcast->cleaned, IsEmpty() ) << "not a multicast rule";
}

TEST_F( StaticCompletion, ARefusedRemovalKeepsRowAndIdAndSaysFailed ) {
   add();
   nat.settle();
   nat.chip->refuseAll = true;
   nat->deleteStaticConnection( key, entry );
   nat.settle();
   EXPECT_EQ( nat.result( key ), NatHwResult::failed );
   EXPECT_EQ( nat.idsInUse(), 4U );
   EXPECT_EQ( nat.tables.ingress->rowCount(), 4U );
   nat.chip->refuseAll = false;
   ASSERT_TRUE( nat.settleToRest() );
   EXPECT_EQ( nat.result( key ), std::nullopt );
   EXPECT_EQ( nat.idsInUse(), 0U );
}

// --- Deletes ---------------------------------------------------------------------------------------------------------

TEST_F( StaticCompletion, ADeleteLeavesOnlyASuccessToTheCompletion ) {
   struct {
      std::optional< NatHwResult > before, after;
   } const rows[] = {
      { NatHwResult::programmed, NatHwResult::programmed },
      { NatHwResult::pending, std::nullopt },
      { NatHwResult::failed, std::nullopt },
      { NatHwResult::unsupported, std::nullopt },
      { NatHwResult::noSpace, std::nullopt },
      { NatHwResult::rejectedMulticast, std::nullopt },
      { std::nullopt, std::nullopt },
   };
   for ( auto const & row : rows ) {
      SCOPED_TRACE( row.before ? static_cast< int >( *row.before ) : -1 );
      add();
      if ( row.before ) {
         resultIs( *row.before );
      }
      nat->deleteStaticConnection( key, entry );
      EXPECT_EQ( nat.result( key ), row.after );
      ASSERT_TRUE( nat.settleToRest() );
      EXPECT_EQ( nat.result( key ), std::nullopt );
      EXPECT_EQ( nat.idsInUse(), 0U );
   }
}

TEST_F( StaticCompletion, DeletingWhatWasNeverAddedTouchesNothing ) {
   nat->addStaticConnection( staticKey( "10.0.0.2:80" ), staticEntry( "192.0.2.2:80" ) );
   nat.settle();
   auto const rows = nat.tables.text();
   nat->deleteStaticConnection( key, entry );
   EXPECT_EQ( nat.tables.hardware->outstanding(), 0U );
   EXPECT_EQ( nat.tables.text(), rows );
   EXPECT_EQ( nat.idsInUse(), 2U );
}

TEST_F( StaticCompletion, ARuleAddedAgainBeforeItsRemovalSettledKeepsItsIds ) {
   add();
   nat.settle();
   auto const rows = nat.tables.text();
   nat->deleteStaticConnection( key, entry );
   nat->addStaticConnection( key, entry );
   ASSERT_TRUE( nat.settleToRest() );
   EXPECT_EQ( nat.tables.text(), rows );
   EXPECT_EQ( nat.result( key ), NatHwResult::programmed );
   EXPECT_EQ( nat.idsInUse(), 4U );
}

TEST_F( StaticCompletion, ARefusedRemovalIsReportedByTheRuleThatWasRemovedUntilItIsDone ) {
   nat.config->staticEntryIs( key, entry );
   nat->replay();
   ASSERT_TRUE( nat.settleToRest() );
   nat.chip->failEvery = 1;
   nat.config->staticEntryIs( key, staticEntry( "192.0.2.1:8080" ) );  // an update that fails: the older rows stay
   nat.settle();
   EXPECT_EQ( nat.result( key ), NatHwResult::failed );
   nat.chip->refuseAll = true;
   nat->deleteAllConnections();
   nat.settle();
   EXPECT_EQ( nat.result( key ), NatHwResult::failed );
   nat.chip->refuseAll = false;
   nat.settle();
   EXPECT_EQ( nat.result( key ), std::nullopt );
   EXPECT_EQ( nat.idsInUse(), 0U );
   EXPECT_EQ( nat.tables.rowCount(), 0U );
}

// --- Reports that nobody asked for -----------------------------------------------------------------------------------

TEST_F( StaticCompletion, SuperfluousReportsOfARowThatIsThereAreHarmless ) {
   add();
   auto const early = responseOf();
   early( EntryState::pending );
   early( EntryState::settled );  // the other direction is not there yet
   EXPECT_EQ( nat.result( key ), std::nullopt );
   nat.settle();
   auto const rows = nat.tables.text();
   for ( bool const fragment : { false, true } ) {
      for ( auto const target : { NatTarget::source, NatTarget::destination } ) {
         auto const response = responseOf( fragment, target );
         ASSERT_TRUE( response );
         response( EntryState::pending );
         EXPECT_EQ( nat.result( key ), NatHwResult::programmed );
         for ( auto const failure : { EntryState::failed, EntryState::full } ) {
            response( failure );
            EXPECT_EQ( nat.result( key ), fragment ? NatHwResult::programmed : NatHwResult::failed );
            responseOf()( EntryState::settled );
            EXPECT_EQ( nat.result( key ), NatHwResult::programmed );
         }
      }
   }
   EXPECT_EQ( nat.tables.text(), rows );
   EXPECT_EQ( nat.idsInUse(), 4U );
   EXPECT_EQ( nat.tables.hardware->outstanding(), 0U );
}

TEST_F( StaticCompletion, StaleReportsOfARemovedRowReleaseNothingTwice ) {
   add();
   nat.settle();
   std::vector< Asic::WriteResponseFn > const stale{ responseOf(), responseOf( true ),
                                                     responseOf( false, NatTarget::destination ) };
   nat->deleteStaticConnection( key, entry );
   ASSERT_TRUE( nat.settleToRest() );
   for ( auto const & response : stale ) {
      response( EntryState::settled );
      response( EntryState::pending );
   }
   EXPECT_EQ( nat.idsInUse(), 0U );
   EXPECT_EQ( nat.result( key ), std::nullopt );

   // Another holder of the id is not robbed by a report of a row that is gone.
   nat->addStaticConnection( staticKey( "10.0.0.1:80" ), staticEntry( "192.0.2.9:8080" ) );
   nat.settle();
   auto const rows = nat.tables.text();
   stale[ 0 ]( EntryState::settled );
   EXPECT_EQ( nat.idsInUse(), 4U );
   EXPECT_EQ( nat.tables.text(), rows );
}

using StaticCompletionDeathTest = StaticCompletion;

TEST_F( StaticCompletionDeathTest, StopsAtStatesThatTablesDoNotReport ) {
   add();
   nat.settle();
   for ( bool const fragment : { false, true } ) {
      for ( U8 const state : { 0, 2, 6, 255 } ) {
         EXPECT_DEATH( responseOf( fragment )( static_cast< EntryState >( state ) ),
                       "^false && \"unknown entryState\"\n" );
      }
   }
}

TEST_F( StaticCompletionDeathTest, StopsAtAResultThatDoesNotExist ) {
   add();
   resultIs( static_cast< NatHwResult >( 6 ) );
   EXPECT_DEATH( nat->deleteStaticConnection( key, entry ), "^false && \"unknown programmerStatus result\"\n" );
}

}  // namespace
