// Churn without end: what was there once is forgotten. SOAK_OPERATIONS=20000000 makes a long run of it.
#include "RandomRules.h"

#include <tests/support/Programmer.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include <malloc.h>

// Of the sanitizers' run time, which counts what malloc's own figures leave out there.
extern "C" [[gnu::weak]] std::size_t __sanitizer_get_current_allocated_bytes();

namespace {

using Model::AnyKey;
using Model::AnyRule;
using Model::Choices;

// In bytes.
std::size_t liveHeap() {
   return __sanitizer_get_current_allocated_bytes ? __sanitizer_get_current_allocated_bytes() : mallinfo2().uordblks;
}

// Malloc's own figures count what it adds to single blocks, and keeps for the next ones.
std::size_t const uncertainty = __sanitizer_get_current_allocated_bytes ? 0 : 4096;

U64 operations() {
   auto const * const text = std::getenv( "SOAK_OPERATIONS" );
   return text ? std::stoull( text ) : 100'000;
}

class Soak : public testing::Test {
 protected:
   static constexpr unsigned cycles = 10;

   Soak() { programmer->replay(); }

   // All rules go, and nothing of them stays.
   void clear() {
      hardware->heal();
      for ( auto const & [ key, rule ] : Support::configured( *programmer.config ) ) {
         Support::unconfigure( *programmer.config, key );
      }
      ASSERT_TRUE( programmer.settleToRest() );
      EXPECT_TRUE( programmer.isEmpty() );
      programmer.mcast->cleaned = {};
   }

   // Runs `cycle` over and over; with the same choices each time it needs what the first one left in free lists and
   // grown collections, and no more.
   template< class Cycle > void runsWithinItsHeap( Cycle && cycle ) {
      std::size_t afterFirst = 0;
      for ( unsigned i = 0; i < cycles && !HasFatalFailure(); ++i ) {
         choices = Choices( 1 );
         cycle();
         clear();
         if ( i == 0 ) {
            afterFirst = liveHeap();
         } else {
            // Fatal: a failure that is noted is on the heap as well.
            ASSERT_LE( liveHeap(), afterFirst + uncertainty ) << "after cycle " << i;
         }
      }
      std::cout << "live heap after each of " << cycles << " cycles: " << afterFirst << " bytes\n";
   }

   Support::Programmer programmer;
   std::shared_ptr< Support::ScriptedHardware > const hardware = programmer.chip;
   Choices choices{ 1 };
};

TEST_F( Soak, ChurnUnderFaultsLeavesNothing ) {
   auto const perCycle = operations() / cycles;
   runsWithinItsHeap( [ & ] {
      auto & config = *programmer.config;
      for ( U64 i = 0; i < perCycle; ++i ) {
         if ( i % 500 == 0 ) {
            hardware->failEvery = choices.of( { 0u, 0u, 2u, 5u } );
            hardware->refuseEvery = choices.of( { 0u, 0u, 2u, 3u } );
            hardware->capacity = choices.of< std::size_t >( { 1'000, 1'000, 9 } );
            hardware->delay = choices.of< U64 >( { 0, 0, 2 } );
            config.fragmentationEnabledIs( choices.oneIn( 2 ) );
            programmer->replay();
         }
         auto const rule = Model::anyRule( choices );
         if ( choices.oneIn( 3 ) ) {
            Support::unconfigure( config, keyOf( rule ) );
         } else {
            Support::configure( config, rule );
         }
         if ( choices.oneIn( 4 ) ) {
            programmer.settle();
         }
      }
      hardware->heal();
      programmer->replay();
      programmer.tables.hardware->retryFailed();
      ASSERT_TRUE( programmer.settleToRest() );
      EXPECT_EQ( programmer.tables.failedRowCount(), 0U );
      EXPECT_TRUE( programmer->checkStaleStatus().empty() );
   } );
}

TEST_F( Soak, AddsThatFailOrAreRefusedLeaveNothing ) {
   hardware->failEvery = 1;
   auto const perCycle = operations() / cycles;
   runsWithinItsHeap( [ & ] {
      for ( U64 i = 0; i < perCycle; ++i ) {
         hardware->failEvery = 1;
         hardware->refuseEvery = choices.oneIn( 4 ) ? 1 : 0;
         auto const rule = Model::anyRule( choices );
         Support::configure( *programmer.config, rule );
         programmer.settle();
         EXPECT_NE( programmer.result( keyOf( rule ) ), PfeHelper::NatHwResult::programmed );
         Support::unconfigure( *programmer.config, keyOf( rule ) );
         programmer.settle();
      }
   } );
}

}  // namespace
