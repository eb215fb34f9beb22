// What histories of rules do not reach in the software tables: their end and that of whoever holds them, the order of
// the queue, and what entries are.
#include <tests/support/ScriptedHardware.h>
#include <tests/support/SmallTables.h>

#include <Asic/SwTableWorkaround.h>
#include <Pfe/IngTwiceNatTable.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>

namespace {

using Asic::EntryState;
using Handle = Asic::EntryHandle::PtrConst;
using Support::Match;
using Support::RowNumber;
using testing::ElementsAre;
using testing::IsEmpty;

class SwTable : public testing::Test {
 protected:
   SwTable() {
      hardware->chipIs( chip );
      chip->log.emplace();
   }
   ~SwTable() override { matches->clear(); }

   void settleToRest() {
      while ( hardware->outstanding() != 0 ) {
         hardware->settle();
      }
   }

   Handle ref( U32 row ) { return rewrites->entryRef( RowNumber( row ), {} ); }
   static Match match( Handle const & rewrite = nullptr, Handle const & twin = nullptr,
                       Asic::WriteResponseFn response = {} ) {
      Match made;
      if ( rewrite ) {
         made.egrHandleIs( rewrite, true );
      }
      made.fragHdl = twin;
      made.writeResponse = std::move( response );
      return made;
   }
   Handle commit( U32 row, Match made = {} ) { return matches->entryCommit( RowNumber( row ), std::move( made ) ); }
   Handle refTwin( U32 row, Match made = {} ) { return matches->entryRef( RowNumber( row ), std::move( made ) ); }

   // Rows that somebody sees, that the chip holds, and that have something outstanding.
   std::array< std::size_t, 3 > left() const {
      return { matches->rowCount() + rewrites->rowCount(), matches->hardwareRowCount() + rewrites->hardwareRowCount(),
               hardware->outstanding() };
   }
   static constexpr std::array< std::size_t, 3 > nothing{};

   std::shared_ptr< Support::ScriptedHardware > const chip = std::make_shared< Support::ScriptedHardware >();
   Asic::Hardware::Ptr hardware = Orla::make< Asic::Hardware >();
   Orla::Ptr< Support::RewriteTable > rewrites = Orla::make< Support::RewriteTable >( hardware );
   Orla::Ptr< Support::MatchTable > matches = Orla::make< Support::MatchTable >( hardware );
};

// --- The end ---------------------------------------------------------------------------------------------------------

TEST_F( SwTable, AHandleMayOutliveItsTable ) {
   auto settled = ref( 1 );
   hardware->settle();
   auto const outstanding = ref( 2 );
   rewrites->clear();
   EXPECT_EQ( left(), nothing );
   EXPECT_FALSE( settled->heldByHardware() );
   EXPECT_EQ( Vexa::stringOf( settled ), "1" );
   EXPECT_NE( ref( 1 ), settled ) << "a row of its own";
   rewrites = nullptr;
   EXPECT_EQ( hardware->tables().size(), 1U );
   settled = nullptr;
   hardware->settle();
   rewrites = Orla::make< Support::RewriteTable >( hardware );
}

// Rows that hold each other, and themselves, in whatever order the table destroys them.
TEST_F( SwTable, ClearGivesUpRowsThatReferToRowsOfTheSameTable ) {
   for ( bool const settled : { false, true } ) {
      auto gone = refTwin( 900 );
      for ( U32 row = 0; row < 100; ++row ) {
         auto const twin = refTwin( 100 + row, match( ref( row ) ) );
         commit( row, match( ref( row ), row % 3 == 0 ? gone : twin ) );
         if ( row % 5 == 0 ) {
            commit( row, match( nullptr, commit( row, match( nullptr, twin ) ) ) );
         }
      }
      matches->entryRemove( RowNumber( 900 ) );
      if ( settled ) {
         hardware->settle();
      }
      gone = nullptr;
      matches->clear();
      EXPECT_EQ( matches->rowCount() + matches->hardwareRowCount(), 0U );
      settleToRest();
      EXPECT_EQ( left(), nothing );
   }
}

// The last reference to everything goes in a response, and another one with the table's last response.
TEST( SwTableEnd, AResponseMayDropTheLastReferenceToItsTableAndTheHardware ) {
   for ( std::size_t const batch : { 1, 3 } ) {
      auto hardware = Orla::make< Asic::Hardware >();
      auto const chip = std::make_shared< Support::ScriptedHardware >();
      chip->batch = batch;
      hardware->chipIs( chip );
      auto table = Orla::make< Support::MatchTable >( hardware );
      std::size_t tablesDuringTheResponse = 0;
      auto const watched = std::make_shared< int >();
      for ( U32 row = 0; row < 3; ++row ) {
         Match entry;
         entry.writeResponse = [ &, watched ]( EntryState ) {
            ++*watched;
            table = nullptr;
            tablesDuringTheResponse = hardware->tables().size();
            hardware = nullptr;
         };
         table->entryCommit( RowNumber( row ), std::move( entry ) );
      }
      hardware->settle();
      EXPECT_EQ( *watched, 1 );  // the queue dropped the others
      EXPECT_EQ( tablesDuringTheResponse, 1U );
      EXPECT_EQ( watched.use_count(), 1 );
   }
}

// The cycle programmer, table, row, response, programmer is broken by clear(), which then destroys the table itself.
TEST( SwTableEnd, ClearMayDropTheLastReferenceToItsTable ) {
   struct Programmer {
      Orla::Ptr< Support::MatchTable > table;
      Orla::Ptr< Support::RewriteTable > rewrites;
      Handle held;
   };
   auto const hardware = Orla::make< Asic::Hardware >();
   auto programmer = std::make_shared< Programmer >();
   std::weak_ptr< Programmer > const alive = programmer;
   programmer->table = Orla::make< Support::MatchTable >( hardware );
   programmer->rewrites = Orla::make< Support::RewriteTable >( hardware );
   for ( U32 row = 0; row < 9; ++row ) {
      Match entry;
      entry.egrHandleIs( programmer->rewrites->entryRef( RowNumber( row ), {} ), true );
      entry.fragHdl = programmer->held;
      entry.writeResponse = [ programmer ]( EntryState ) {};
      programmer->held = programmer->table->entryCommit( RowNumber( row ), std::move( entry ) );
      if ( row == 5 ) {
         hardware->settle();
      }
   }
   auto & table = *programmer->table;
   programmer = nullptr;
   EXPECT_FALSE( alive.expired() );
   table.clear();
   EXPECT_TRUE( alive.expired() );
   EXPECT_THAT( hardware->tables(), IsEmpty() );
   EXPECT_EQ( hardware->outstanding(), 0U );
}

// --- The queue -------------------------------------------------------------------------------------------------------

TEST_F( SwTable, OvertakenOperationsReachTheHardwareButOnlyTheNewestReports ) {
   std::string told;
   auto const tells = [ & ]( char version ) { return [ &told, version ]( EntryState ) { told += version; }; };
   auto const first = commit( 5, match( ref( 1 ), nullptr, tells( 'a' ) ) );
   EXPECT_EQ( commit( 5, match( ref( 2 ), nullptr, tells( 'b' ) ) ), first );
   matches->entryRemove( RowNumber( 5 ) );
   EXPECT_EQ( matches->entryHandle( RowNumber( 5 ) ), nullptr );
   EXPECT_EQ( commit( 5, match( ref( 3 ), nullptr, tells( 'c' ) ) ), first );
   EXPECT_EQ( rewrites->rowCount(), 3U ) << "versions in the queue keep their rewrites";
   EXPECT_EQ( told, "" );
   settleToRest();
   EXPECT_EQ( told, "c" );
   EXPECT_EQ( left(), ( std::array< std::size_t, 3 >{ 2, 2, 0 } ) );
   EXPECT_THAT( *chip->log,
                ElementsAre( "write rewrite 1", "write match 5", "write rewrite 2", "write match 5", "remove match 5",
                             "write rewrite 3", "write match 5", "remove rewrite 1", "remove rewrite 2" ) );
}

TEST_F( SwTable, ARowThatIsWrittenAgainIsPendingAndOneWhoseRemovalIsRefusedIsSeenAgain ) {
   auto const handle = commit( 5, match( ref( 1 ) ) );
   settleToRest();
   EXPECT_EQ( commit( 5, match( ref( 1 ) ) ), handle );
   EXPECT_EQ( handle->state(), EntryState::pending );
   settleToRest();
   chip->refuseEvery = 1;
   matches->entryRemove( RowNumber( 5 ) );
   EXPECT_EQ( matches->entry( RowNumber( 5 ) ), nullptr );
   hardware->settle();
   EXPECT_NE( matches->entry( RowNumber( 5 ) ), nullptr );
   EXPECT_EQ( handle->state(), EntryState::failed );
   EXPECT_EQ( rewrites->rowCount(), 1U ) << "what the hardware holds keeps its rewrite";
   chip->refuseEvery = 0;
   settleToRest();  // it is tried again
   EXPECT_EQ( left(), nothing );
}

TEST_F( SwTable, RetriesGoRewritesThenTwinsThenTheRestAsAsked ) {
   chip->failEvery = 1;
   auto const first = ref( 1 ), second = ref( 2 );
   auto const twin = refTwin( 5, match( first ) ), otherTwin = refTwin( 4, match( second ) );
   commit( 8, match( first, twin ) );
   commit( 7, match( second, otherTwin ) );
   ref( 1 );  // asked for again after those that need it
   hardware->settle();
   chip->failEvery = 0;
   chip->log.emplace();
   hardware->retryFailed();
   settleToRest();
   EXPECT_THAT( *chip->log, ElementsAre( "write rewrite 2", "write rewrite 1", "write match 5", "write match 4",
                                         "write match 8", "write match 7" ) );
   hardware->retryFailed();
   EXPECT_EQ( hardware->outstanding(), 0U );
}

// It gives large memory back when it is empty, and starts anew.
TEST_F( SwTable, ABulkChangeLeavesNothingInTheQueue ) {
   for ( int round = 0; round < 2; ++round ) {
      for ( U32 row = 0; row < 900; ++row ) {
         ref( row );  // written and removed
         commit( row );
      }
      EXPECT_EQ( hardware->outstanding(), 2700U );
      settleToRest();
      EXPECT_EQ( left(), ( std::array< std::size_t, 3 >{ 900, 900, 0 } ) );
      matches->clear();
   }
   EXPECT_DEATH( hardware->settleNext( EntryState::settled ),
                 testing::StartsWith( "!queue_.empty() && \"nothing is outstanding\"\n" ) );
}

// --- Entries ---------------------------------------------------------------------------------------------------------

TEST( Entry, ComparesAndPrintsItsHandlesButNotItsResponse ) {
   auto const handle = []( U32 index ) { return Asic::SwTableWorkaround::dontCareHandle( index ); };
   Pfe::IngTwiceNatEntry plain, answered, one, other, twin;
   answered.writeResponse = []( EntryState ) {};
   EXPECT_EQ( plain, answered );
   one.egrHandleIs( handle( 1 ), true );
   other.egrHandleIs( handle( 1 ), false );
   EXPECT_NE( plain, one );
   EXPECT_NE( one, other ) << "what counts as a failure is part of an entry";
   twin.fragHdl = handle( 4 );
   EXPECT_NE( plain, twin );
   EXPECT_EQ( Vexa::stringOf( answered ), "egrHdl=[], fragHdl=none, nextHopId=0" );
   EXPECT_EQ( Vexa::stringOf( twin ), "egrHdl=[], fragHdl=dontCare, nextHopId=0" );
}

}  // namespace
