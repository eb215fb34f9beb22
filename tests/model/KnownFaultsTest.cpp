// What went wrong in systems of this kind before: each sequence leaves rows, results and NAT ids as a programmer has
// them that was handed the same configuration just now.
#include "FreshProgrammer.h"
#include "RandomRules.h"
#include "World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace {

using Model::AnyRule;
using Model::Choices;
using PfeHelper::NatHwResult;
using testing::IsEmpty;

AnyRule staticRule( U16 port ) {
   return Support::StaticRule{ Support::staticKey( "10.0.0.1:" + std::to_string( port ) ),
                               Support::staticEntry( "192.0.2.1:" + std::to_string( port ) ) };
}

// Two rules of one row are in each other's way.
bool shareRows( AnyRule const & a, AnyRule const & b ) {
   auto const ofA = Model::directionsOf( a, {} ), ofB = Model::directionsOf( b, {} );
   return keyOf( a ) == keyOf( b ) || std::ranges::any_of( ofA, [ & ]( Model::Direction const & own ) {
             return std::ranges::find( ofB, own.key, &Model::Direction::key ) != ofB.end();
          } );
}

class KnownFaults : public testing::Test {
 protected:
   void configure( AnyRule const & rule ) { Support::configure( *programmer.config, rule ); }
   void unconfigure( AnyRule const & rule ) { Support::unconfigure( *programmer.config, keyOf( rule ) ); }

   // Everything works again, and what failed is sent once more.
   void recover() {
      hardware->heal();
      programmer.tables.hardware->retryFailed();
      ASSERT_TRUE( programmer.settleToRest() );
      programmer->retryRefused();
      ASSERT_TRUE( programmer.settleToRest() );
   }

   void expectAsFresh() const {
      EXPECT_THAT( Model::differencesFromFresh( programmer ), IsEmpty() );
      EXPECT_THAT( programmer->checkStaleStatus(), IsEmpty() );
   }

   unsigned count( NatHwResult result ) const {
      unsigned found = 0;
      for ( auto const & [ key, outcome ] : Support::outcomes( *programmer.status ) ) {
         found += outcome.result == result;
      }
      return found;
   }

   Support::Programmer programmer;
   std::shared_ptr< Support::ScriptedHardware > const hardware = programmer.chip;
};

TEST_F( KnownFaults, AFailedCreateIsRepairedByARetryAndByTheSameConfigurationAgain ) {
   programmer->replay();
   for ( bool const byReplay : { false, true } ) {
      hardware->failEvery = 10;
      for ( U16 port = 1; port <= 100; ++port ) {
         configure( staticRule( port ) );
      }
      ASSERT_TRUE( programmer.settleToRest() );
      EXPECT_GT( count( NatHwResult::failed ), 10U );
      hardware->heal();
      byReplay ? programmer->replay() : programmer.tables.hardware->retryFailed();
      ASSERT_TRUE( programmer.settleToRest() );
      EXPECT_EQ( count( NatHwResult::programmed ), 100U );
      expectAsFresh();
      for ( U16 port = 1; port <= 100; ++port ) {
         unconfigure( staticRule( port ) );
      }
      ASSERT_TRUE( programmer.settleToRest() );
   }
}

TEST_F( KnownFaults, ADeleteOfWhatWasNeverProgrammedTouchesNothingElse ) {
   programmer->replay();
   for ( U32 seed = 1; seed <= 300; ++seed ) {
      SCOPED_TRACE( seed );
      Choices choices( seed );
      auto const stays = anyRule( choices ), goes = anyRule( choices );
      if ( shareRows( stays, goes ) ) {
         continue;
      }
      configure( stays );
      ASSERT_TRUE( programmer.settleToRest() );
      switch ( seed % 4 ) {
      case 0: hardware->failEvery = 1; break;
      case 1: programmer.freeIdsAre( 0 ); break;
      case 2: hardware->delay = 3; break;
      default: break;  // deleted in the turn in which it came
      }
      configure( goes );
      if ( seed % 4 != 3 ) {
         programmer.settle();
      }
      unconfigure( goes );
      programmer.freeIdsAre( Pfe::NatId::max );
      recover();
      expectAsFresh();
      unconfigure( stays );
      ASSERT_TRUE( programmer.settleToRest() );
      ASSERT_TRUE( programmer.isEmpty() );
   }
}

TEST_F( KnownFaults, AChangeOfAnyFieldIsProgrammedAtRestAndWithCompletionsPending ) {
   programmer->replay();
   programmer.config->fragmentationEnabledIs( true );
   programmer->replay();
   for ( U32 seed = 1; seed <= 400; ++seed ) {
      SCOPED_TRACE( seed );
      Choices choices( seed );
      hardware->delay = choices.of< U64 >( { 0, 2 } );
      auto const rule = anyRule( choices );
      configure( rule );
      programmer.settle();
      auto const changed = choices.oneIn( 2 ) ? withOtherContents( rule, choices ) : withOtherRows( rule, choices );
      configure( changed );
      recover();
      expectAsFresh();
      unconfigure( changed );
      ASSERT_TRUE( programmer.settleToRest() );
   }
}

TEST_F( KnownFaults, RulesDeletedWhileTheFeatureIsOffStayAway ) {
   configure( staticRule( 1 ) );
   configure( staticRule( 2 ) );
   unconfigure( staticRule( 1 ) );  // not yet started
   programmer->replay();
   configure( staticRule( 3 ) );
   ASSERT_TRUE( programmer.settleToRest() );
   programmer->deleteAllConnections();
   programmer->cleanupInProgressIs( true );
   unconfigure( staticRule( 2 ) );
   configure( staticRule( 4 ) );
   ASSERT_TRUE( programmer.settleToRest() );
   EXPECT_EQ( programmer.tables.rowCount(), 0U );
   programmer->cleanupInProgressIs( false );
   programmer->replay();
   ASSERT_TRUE( programmer.settleToRest() );
   EXPECT_EQ( count( NatHwResult::programmed ), 2U );
   expectAsFresh();
}

TEST_F( KnownFaults, ALimitHoldsEachTimeThatItIsReached ) {
   constexpr unsigned fits = 10, wanted = 15;
   programmer->replay();
   auto const expectLimited = [ & ]( char const * by ) {
      SCOPED_TRACE( by );
      for ( int round = 0; round < 3; ++round ) {
         for ( U16 port = 1; port <= wanted; ++port ) {
            configure( staticRule( port ) );
         }
         ASSERT_TRUE( programmer.settleToRest() );
         EXPECT_EQ( count( NatHwResult::programmed ), fits );
         EXPECT_EQ( count( NatHwResult::failed ), wanted - fits );
         for ( U16 port = 1; port <= wanted / 2; ++port ) {
            unconfigure( staticRule( port ) );
         }
         ASSERT_TRUE( programmer.settleToRest() );
         programmer.tables.hardware->retryFailed();
         programmer->retryRefused();
         ASSERT_TRUE( programmer.settleToRest() );
         EXPECT_EQ( count( NatHwResult::programmed ), wanted - wanted / 2 );
         EXPECT_EQ( count( NatHwResult::failed ), 0U );
         expectAsFresh();
      }
   };
   hardware->capacity = 2 * fits;
   expectLimited( "the table" );
   for ( U16 port = 1; port <= wanted; ++port ) {
      unconfigure( staticRule( port ) );
   }
   ASSERT_TRUE( programmer.settleToRest() );
   hardware->heal();
   programmer.freeIdsAre( 2 * fits );
   expectLimited( "the pool of NAT ids" );
}

}  // namespace
