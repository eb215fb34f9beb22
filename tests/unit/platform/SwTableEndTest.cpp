// How software tables end: cleared, destroyed, dropped from inside their own responses. And what entries are.
#include "SwTableFixture.h"

#include <Asic/SwTableWorkaround.h>
#include <Pfe/IngTwiceNatTable.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace SwTables {
namespace {

using testing::IsEmpty;

TEST_F( SwTable, AHandleMayOutliveItsTable ) {
   auto settled = ref( 1, 10 );
   settle();
   auto const outstanding = ref( 2, 20 );
   auto const copy = settled;
   rewrites->clear();
   EXPECT_EQ( picture(), "seen | chip | open 0 | told 10:3" );
   EXPECT_FALSE( settled->heldByHardware() );
   EXPECT_EQ( Vexa::stringOf( settled ), "1" );
   auto const again = ref( 1, 11 );  // a row of its own
   EXPECT_NE( again, settled );
   settled = nullptr;
   settle();
   EXPECT_EQ( picture(), "seen r1=11 | chip r1=11 | open 0 | told 11:3" );
   rewrites = nullptr;
   EXPECT_EQ( hardware->tables().size(), 1U );
   settle();
}

// The queue gives large memory back when it is empty, and starts anew.
TEST_F( SwTable, ABulkChangeLeavesNothingInTheQueue ) {
   for ( int round = 0; round < 2; ++round ) {
      for ( U32 row = 0; row < 900; ++row ) {
         ref( row, 10 );  // written and removed
         commit( row, 50 );
      }
      EXPECT_EQ( hardware->outstanding(), 2700U );
      settle();
      EXPECT_EQ( hardware->outstanding(), 0U );
      EXPECT_EQ( matches->hardwareRowCount() + rewrites->hardwareRowCount(), 900U );
      matches->clear();
      told.clear();
   }
   commit( 5, 51 );
   settle();
   EXPECT_EQ( picture(), "seen m5=51 | chip m5=51 | open 0 | told 51:3" );
}

// Rows that hold each other, and themselves, in whatever order the table destroys them.
TEST_F( SwTable, ClearGivesUpRowsThatReferToRowsOfTheSameTable ) {
   for ( bool const settled : { false, true } ) {
      auto gone = refTwin( 900, 59 );
      for ( U32 row = 0; row < 100; ++row ) {
         auto const twin = refTwin( 100 + row, 51, { ref( row, 10 ) } );
         commit( row, 50, { ref( row, 11 ) }, row % 3 == 0 ? gone : twin );
         if ( row % 5 == 0 ) {
            commit( row, 52, {}, commit( row, 53, {}, twin ) );
         }
      }
      remove( 900 );
      if ( settled ) {
         settle();
      }
      gone = nullptr;
      told.clear();
      matches->clear();
      EXPECT_EQ( told, "" );
      EXPECT_EQ( matches->rowCount() + matches->hardwareRowCount(), 0U );
      EXPECT_THAT( Support::keysOf( *matches ), IsEmpty() );
      settle();
      told.clear();
      EXPECT_EQ( picture(), "seen | chip | open 0 | told" );
      EXPECT_THAT( Support::keysOf( *rewrites ), IsEmpty() );
   }
}

TEST_F( SwTable, AResponseMayClearItsTableAndWriteItAnew ) {
   chip->refuseAll = true;
   commit( 1, 50 );
   settle();
   remove( 1 );
   settle();  // refused
   auto const twin = refTwin( 2, 51 );
   commit( 3, 52, { ref( 1, 10 ) }, twin );
   commit( 4, 53, {}, twin );
   after[ 52 ] = [ & ] {
      matches->clear();
      commit( 3, 54 );
   };
   chip->refuseAll = false;
   told.clear();
   settle();
   EXPECT_EQ( picture(), "seen m3=54 | chip m3=54 | open 0 | told 51:3 10:3 52:3 54:3 10:3" );
   EXPECT_FALSE( twin->heldByHardware() );
}

// The last reference to everything goes in a response, and another one with the table's last response.
TEST( SwTableEnd, AResponseMayDropTheLastReferenceToItsTableAndTheHardware ) {
   auto hardware = Orla::make< Asic::Hardware >();
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

// --- Entries ---------------------------------------------------------------------------------------------------------

TEST( Entry, ComparesAndPrintsItsHandlesButNotItsResponse ) {
   auto const handle = []( U32 index ) { return Asic::SwTableWorkaround::dontCareHandle( index ); };
   auto const entryWith = [ & ]( std::vector< U32 > const & egress ) {
      Pfe::IngTwiceNatEntry entry;
      for ( auto const index : egress ) {
         entry.egrHandleIs( handle( index ), true );
      }
      return entry;
   };
   auto plain = entryWith( {} ), answered = entryWith( {} );
   answered.writeResponse = []( EntryState ) {};
   EXPECT_EQ( plain, answered );
   EXPECT_EQ( Vexa::stringOf( answered ), "egrHdl=[], fragHdl=none, nextHopId=0" );
   std::vector< U32 > const lists[] = { {}, { 1 }, { 2 }, { 1, 2 }, { 1, 3 }, { 1, 2, 3 } };
   for ( auto const & a : lists ) {
      for ( auto const & b : lists ) {
         EXPECT_EQ( entryWith( a ) == entryWith( b ), a == b );
      }
   }
   auto twin = entryWith( { 1, 2, 3 } );
   twin.fragHdl = handle( 4 );
   EXPECT_NE( twin, entryWith( { 1, 2, 3 } ) );
   EXPECT_EQ( Vexa::stringOf( twin ), "egrHdl=[ dontCare, dontCare, dontCare ], fragHdl=dontCare, nextHopId=0" );
   Pfe::IngTwiceNatEntry one = entryWith( { 1 } ), other;
   other.egrHandleIs( handle( 1 ), false );
   EXPECT_NE( one, other );  // what counts as a failure is part of an entry
   EXPECT_EQ( handle( 7 ), handle( 7 ) );
   EXPECT_NE( handle( 7 ), handle( 8 ) );
}

}  // namespace
}  // namespace SwTables
