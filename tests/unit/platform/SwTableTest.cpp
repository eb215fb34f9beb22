// Software tables: what look-ups see, what the hardware holds, who is told, and who holds whose handle.
#include "SwTableFixture.h"

#include <Asic/SwTableWorkaround.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace SwTables {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// --- Versions --------------------------------------------------------------------------------------------------------

TEST_F( SwTable, NothingCompletesBeforeTheNextTurn ) {
   auto rewrite = ref( 1, 10 );
   commit( 5, 50, { rewrite } );
   EXPECT_EQ( rewrite->state(), EntryState::pending );
   EXPECT_EQ( picture(), "seen r1=10? m5=50? | chip | open 2 | told" );
   settle();
   EXPECT_EQ( picture(), "seen r1=10 m5=50 | chip r1=10 m5=50 | open 0 | told 10:3 50:3" );
   rewrite = nullptr;
   remove( 5 );
   EXPECT_EQ( picture(), "seen r1=10 | chip r1=10 m5=50 | open 1 | told" );
   settle();  // the rewrite goes in the same turn, once the match gave up its handle
   EXPECT_EQ( picture(), "seen | chip | open 0 | told 50:3 10:3" );
   EXPECT_THAT( Support::keysOf( *rewrites ), IsEmpty() );
}

TEST_F( SwTable, AFailedVersionKeepsItsHandlesWhileItIsTheNewest ) {
   commit( 5, 50, { ref( 1, 10 ) } );
   settle();
   chip->failing = { "match 5" };
   commit( 5, 51, { ref( 2, 20 ) } );
   settle();
   told.clear();
   EXPECT_EQ( picture(), "seen r1=10 r2=20 m5=51! | chip r1=10 r2=20 m5=50 | open 0 | told" );
   commit( 5, 52, { ref( 3, 30 ) } );  // nothing holds the failed version any more
   EXPECT_EQ( picture(), "seen r1=10 r3=30? m5=52? | chip r1=10 r2=20 m5=50 | open 3 | told" );
   chip->failing.clear();
   settle();
   EXPECT_EQ( picture(), "seen r3=30 m5=52 | chip r3=30 m5=52 | open 0 | told 30:3 52:3 20:3 10:3" );
}

TEST_F( SwTable, OvertakenOperationsReachTheHardwareButOnlyTheNewestReports ) {
   commit( 5, 50, { ref( 1, 10 ) } );
   commit( 5, 51, { ref( 2, 20 ) } );
   remove( 5 );
   commit( 5, 52, { ref( 3, 30 ) } );
   // Their writes are in the queue, so the overtaken versions keep their rewrites.
   EXPECT_EQ( picture(), "seen r1=10? r2=20? r3=30? m5=52? | chip | open 7 | told" );
   settle();
   EXPECT_EQ( picture(), "seen r3=30 m5=52 | chip r3=30 m5=52 | open 0 | told 10:3 20:3 30:3 52:3 10:3 20:3" );
   EXPECT_THAT( chip->takeLog(),
                ElementsAre( "write rewrite 1", "write match 5", "write rewrite 2", "write match 5", "remove match 5",
                             "write rewrite 3", "write match 5", "remove rewrite 1", "remove rewrite 2" ) );
}

TEST_F( SwTable, HandlesAreGivenUpAfterTheResponseHasRun ) {
   auto const handle = commit( 5, 50, { ref( 1, 10 ) } );
   settle();
   std::vector< std::string > seenByResponse;
   after[ 51 ] = [ & ] { seenByResponse.push_back( picture() ); };
   commit( 5, 51, { ref( 2, 20 ) } );
   settle();
   after[ 51 ] = [ & ] { seenByResponse.push_back( picture() ); };
   remove( 5 );
   settle();
   EXPECT_THAT( seenByResponse,
                ElementsAre( "seen r1=10 r2=20 m5=51 | chip r1=10 r2=20 m5=51 | open 0 | told 10:3 50:3 20:3 51:3",
                             "seen r2=20 | chip r2=20 | open 0 | told 10:3 51:3" ) );
   EXPECT_EQ( picture(), "seen | chip | open 0 | told 20:3" );
   EXPECT_FALSE( handle->heldByHardware() );
}

TEST_F( SwTable, AReferencedRowStaysAsLongAsSomebodyHoldsItsHandle ) {
   auto const handle = ref( 1, 10 );
   EXPECT_EQ( ref( 1, 11 ), handle );  // replaced in place, data and response
   EXPECT_EQ( rewrites->entryHandle( RowNumber( 1 ) ), handle.ptr() );
   settle();
   EXPECT_EQ( picture(), "seen r1=11 | chip r1=11 | open 0 | told 11:3" );
   ref( 2, 20 );  // its local handle is a holder, and gone at the end of the statement
   EXPECT_EQ( picture(), "seen r1=11 | chip r1=11 | open 2 | told" );
   settle();
   EXPECT_EQ( picture(), "seen r1=11 | chip r1=11 | open 0 | told 20:3" );
   refTwin( 6, 60 );
   commit( 6, 61 );
   refTwin( 6, 62 );  // a committed row stays committed
   settle();
   EXPECT_EQ( picture(), "seen r1=11 m6=62 | chip r1=11 m6=62 | open 0 | told 62:3" );
}

TEST_F( SwTable, AKeyComesBackWhileItsRemovalIsOutstanding ) {
   auto first = commit( 5, 50 );
   settle();
   remove( 5 );
   EXPECT_EQ( matches->entry( RowNumber( 5 ) ), nullptr );
   EXPECT_EQ( matches->entryHandle( RowNumber( 5 ) ), nullptr );
   EXPECT_EQ( commit( 5, 51 ), first );
   settle();
   EXPECT_EQ( picture(), "seen m5=51 | chip m5=51 | open 0 | told 50:3 51:3" );
   remove( 5 );
   first = refTwin( 5, 52 );  // the commitment went with the removal
   first = nullptr;
   settle();
   EXPECT_EQ( picture(), "seen | chip | open 0 | told 52:3" );
}

TEST_F( SwTable, RemovalsCompleteWhateverTheyFind ) {
   remove( 4 );
   EXPECT_EQ( picture(), "seen | chip | open 0 | told" );
   chip->failing = { "match 5" };
   commit( 5, 50 );
   settle();
   remove( 5 );
   remove( 5 );  // absent now
   chip->refuseAll = true;
   EXPECT_EQ( picture(), "seen | chip | open 1 | told 50:4" );
   settle();
   EXPECT_EQ( picture(), "seen | chip | open 0 | told 50:3" );
   EXPECT_THAT( chip->takeLog(), ElementsAre( "write match 5 failed" ) );  // there was nothing to remove
}

// --- Refused removals ------------------------------------------------------------------------------------------------

TEST_F( SwTable, ARefusedRemovalShowsWhatTheHardwareHoldsAndIsTriedAgainEachTurn ) {
   commit( 5, 50, { ref( 1, 10 ) } );
   settle();
   chip->failing = { "match 5" };
   commit( 5, 51, { ref( 2, 20 ) } );
   settle();
   chip->refusing = { "match 5" };
   remove( 5 );
   told.clear();
   settle();  // told by the removed version; the one in the hardware keeps its rewrite
   EXPECT_EQ( picture(), "seen r1=10 m5=50! | chip r1=10 m5=50 | open 1 | told 51:4 20:3" );
   EXPECT_EQ( matches->failedRowCount(), 1U );
   hardware->retryFailed();
   EXPECT_EQ( hardware->outstanding(), 1U );
   settle();
   EXPECT_EQ( picture(), "seen r1=10 m5=50! | chip r1=10 m5=50 | open 1 | told 51:4" );
   chip->refusing.clear();
   settle();
   EXPECT_EQ( picture(), "seen | chip | open 0 | told 51:3 10:3" );
}

TEST_F( SwTable, AnOperationOfTheKeyEndsTheRetriesOfItsRefusedRemoval ) {
   struct {
      char const * name;
      std::function< Handle() > operation;
      char const *whileHeld, *dropped;
   } const rows[] = {
      { "commit", [ this ] { return commit( 5, 51 ); }, "seen m5=51 | chip m5=51 | open 0 | told 51:3",
        "seen m5=51 | chip m5=51 | open 0 | told" },
      { "ref", [ this ] { return refTwin( 5, 51 ); }, "seen m5=51 | chip m5=51 | open 0 | told 51:3",
        "seen | chip | open 0 | told 51:3" },
      { "remove", [ this ] { return remove( 5 ), Handle(); }, "seen | chip | open 0 | told 50:3",
        "seen | chip | open 0 | told" },
      { "a handle comes and goes", [ this ] { return Handle( matches->entryHandle( RowNumber( 5 ) ) ); },
        "seen | chip | open 0 | told 50:3", "seen | chip | open 0 | told" },
   };
   for ( auto const & row : rows ) {
      SCOPED_TRACE( row.name );
      commit( 5, 50 );
      settle();
      chip->refuseAll = true;
      remove( 5 );
      settle();
      EXPECT_EQ( picture(), "seen m5=50! | chip m5=50 | open 1 | told 50:3 50:4" );
      chip->refuseAll = false;
      auto handle = row.operation();
      EXPECT_EQ( hardware->outstanding(), 1U );
      settle();
      EXPECT_EQ( picture(), row.whileHeld );
      handle = nullptr;
      settle();
      EXPECT_EQ( picture(), row.dropped );
      remove( 5 );
      settle();
      told.clear();
   }
}

TEST_F( SwTable, ARefusedRowThatNobodyHoldsIsWantedAgain ) {
   ref( 1, 10 );
   chip->refuseAll = true;
   settle();
   EXPECT_EQ( picture(), "seen r1=10! | chip r1=10 | open 1 | told 10:4" );
   auto handle = ref( 1, 11 );
   settle();
   EXPECT_EQ( picture(), "seen r1=11 | chip r1=11 | open 0 | told 11:3" );
   chip->refuseAll = false;
   handle = nullptr;
   settle();
   EXPECT_EQ( picture(), "seen | chip | open 0 | told 11:3" );
}

TEST_F( SwTable, ARefusalThatWasOvertakenLeavesNoTrace ) {
   commit( 5, 50 );
   settle();
   chip->refuseAll = true;
   remove( 5 );
   commit( 5, 51 );
   settle();
   EXPECT_EQ( picture(), "seen m5=51 | chip m5=51 | open 0 | told 50:3 51:3" );
   EXPECT_EQ( matches->failedRowCount(), 0U );
}

// --- Failures --------------------------------------------------------------------------------------------------------

TEST_F( SwTable, AWriteIsNotSentWhileARowThatItNeedsFailedOrIsMissing ) {
   struct Case {
      char const * name;
      std::function< Handle() > needed;
      bool sent;
   } const rows[] = {
      { "settled", [ this ] { return ref( 1, 10 ); }, true },
      { "failed",
        [ this ] {
           chip->failing = { "rewrite 1" };
           return ref( 1, 10 );
        },
        false },
      { "full",
        [ this ] {
           chip->capacity = 1;
           rewrites->entryCommit( RowNumber( 9 ), entry< Rewrite >( 19 ) );
           return ref( 1, 10 );
        },
        false },
      { "failed while the hardware holds an older version",
        [ this ] {
           auto handle = ref( 1, 10 );
           settle();
           chip->failing = { "rewrite 1" };
           ref( 1, 11 );
           return handle;
        },
        false },
      { "removed",
        [ this ] {
           auto handle = ref( 1, 10 );
           settle();
           rewrites->entryRemove( RowNumber( 1 ) );
           return handle;
        },
        false },
      { "its table is gone",
        [ this ] {
           auto handle = ref( 1, 10 );
           settle();
           rewrites->clear();
           return handle;
        },
        false },
      { "no row at all", [] { return Asic::SwTableWorkaround::dontCareHandle( 0 ); }, true },
   };
   enum class As { counting, notCounting, twin };
   for ( auto const & row : rows ) {
      for ( auto const as : { As::counting, As::notCounting, As::twin } ) {
         SCOPED_TRACE( row.name );
         SCOPED_TRACE( static_cast< int >( as ) );
         commit( 5, 50 );
         settle();
         auto const needed = row.needed();
         auto written = match( 51, {} );
         if ( as == As::twin ) {
            written.fragHdl = needed;
         } else {
            written.egrHandleIs( Asic::SwTableWorkaround::dontCareHandle( 1 ), true );
            written.egrHandleIs( needed, as == As::counting );
         }
         matches->entryCommit( RowNumber( 5 ), std::move( written ) );
         chip->takeLog();
         settle();
         bool const sent = row.sent || as != As::counting;
         EXPECT_EQ( testing::Value( chip->takeLog(), testing::Contains( "write match 5" ) ), sent );
         EXPECT_EQ( Support::rowsOf( *matches ), std::vector< std::string >{ sent ? "5 -> 51" : "5 -> 51 (failed)" } );
         EXPECT_EQ( Support::hardwareRowsOf( *matches ), std::vector< std::string >{ sent ? "5 -> 51" : "5 -> 50" } );
         *chip = Support::ScriptedHardware();
         matches->clear();
         rewrites->clear();
      }
   }
}

TEST_F( SwTable, FailedRowsAreCountedUntilTheyAreRepairedOrRemoved ) {
   chip->failing = { "rewrite 1", "match 6" };
   auto rewrite = ref( 1, 10 );
   auto twin = refTwin( 6, 60, { rewrite } );
   commit( 5, 50, { rewrite }, twin );
   commit( 7, 70 );
   EXPECT_EQ( rewrites->failedRowCount() + matches->failedRowCount(), 0U );
   settle();
   EXPECT_EQ( rewrites->failedRowCount(), 1U );
   EXPECT_EQ( matches->failedRowCount(), 2U );
   EXPECT_EQ( matches->rowCount(), 3U );
   EXPECT_EQ( matches->hardwareRowCount(), 1U );
   chip->failing = { "match 6" };
   hardware->retryFailed();
   EXPECT_EQ( rewrites->failedRowCount() + matches->failedRowCount(), 0U );  // written again, not settled
   settle();
   EXPECT_EQ( rewrites->failedRowCount(), 0U );
   EXPECT_EQ( matches->failedRowCount(), 1U );
   EXPECT_EQ( matches->hardwareRowCount(), 2U );
   remove( 6 );
   EXPECT_EQ( matches->failedRowCount(), 0U );
}

TEST_F( SwTable, RetriesGoRewritesThenTwinsThenTheRestAsAsked ) {
   auto const refuseEverything = [ & ] {
      chip->failing = { "rewrite 1", "rewrite 2", "rewrite 3", "match 4", "match 5", "match 6", "match 7", "match 8" };
   };
   refuseEverything();
   auto const first = ref( 1, 10 );
   auto const twin = refTwin( 5, 50, { first } );
   commit( 8, 80, { first }, twin );
   auto const second = ref( 2, 20 );
   auto const otherTwin = refTwin( 4, 40, { second } );
   commit( 7, 70, { second }, otherTwin );
   auto const bareTwin =
      matches->entryRef( RowNumber( 6 ), match( 60, {}, Asic::SwTableWorkaround::dontCareHandle( 0 ) ) );
   rewrites->entryCommit( RowNumber( 3 ), entry< Rewrite >( 30 ) );
   ref( 1, 11 );  // asked for again after those that need it
   settle();
   chip->failing.clear();
   chip->takeLog();
   told.clear();
   hardware->retryFailed();
   settle();
   EXPECT_THAT( chip->takeLog(), ElementsAre( "write rewrite 2", "write rewrite 3", "write rewrite 1", "write match 5",
                                              "write match 4", "write match 6", "write match 8", "write match 7" ) );
   EXPECT_EQ( picture(),
              "seen r1=11 r2=20 r3=30 m4=40 m5=50 m6=60 m7=70 m8=80 | chip r1=11 r2=20 r3=30 m4=40 m5=50 m6=60 "
              "m7=70 m8=80 | open 0 | told 20:3 30:3 11:3 50:3 40:3 60:3 80:3 70:3" );
   hardware->retryFailed();
   EXPECT_EQ( hardware->outstanding(), 0U );
}

TEST_F( SwTable, SettlesByHandInRequestOrder ) {
   auto const rewrite = ref( 1, 10 );
   commit( 5, 50, { rewrite } );
   hardware->settleNext( EntryState::full );
   EXPECT_EQ( picture(), "seen r1=10# m5=50? | chip | open 1 | told 10:5" );
   hardware->settleNext( EntryState::settled );  // not sent: its rewrite is not there
   EXPECT_EQ( picture(), "seen r1=10# m5=50! | chip | open 0 | told 50:4" );
   hardware->retryFailed();
   hardware->settleNext( EntryState::settled );
   hardware->settleNext( EntryState::settled );
   remove( 5 );
   hardware->settleNext( EntryState::failed );
   EXPECT_EQ( picture(), "seen r1=10 m5=50! | chip r1=10 m5=50 | open 1 | told 10:3 50:3 50:4" );
   EXPECT_DEATH( hardware->settleNext( EntryState::settled ),
                 StartsWith( "!queue_.empty() && \"nothing is outstanding\"\n" ) );
}

TEST_F( SwTable, AChipMayBeFullSlowOrPicky ) {
   chip->capacity = 2;
   chip->delay = 1;
   commit( 1, 50 );
   commit( 2, 51 );
   commit( 3, 52 );
   settle();
   EXPECT_EQ( picture(), "seen m1=50? m2=51? m3=52? | chip | open 3 | told" );
   settle();
   EXPECT_EQ( picture(), "seen m1=50 m2=51 m3=52# | chip m1=50 m2=51 | open 0 | told 50:3 51:3 52:5" );
   chip->delay = 0;
   chip->failEvery = 2;
   commit( 1, 53 );  // replaces a row: needs no room
   remove( 2 );      // counts as no write
   commit( 3, 54 );
   settle();
   EXPECT_EQ( picture(), "seen m1=53 m3=54! | chip m1=53 | open 0 | told 53:3 51:3 54:4" );
}

}  // namespace
}  // namespace SwTables
