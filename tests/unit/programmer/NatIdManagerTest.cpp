// NAT ids: traces, edges, restarts.
#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <tests/support/Programmer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Support::Lines;
using testing::ElementsAre;

Pfe::IngNatTableKey const first = Pfe::IngStaticNatTable::Key{ .vrfId = 1 };
Pfe::IngNatTableKey const second = Pfe::IngStaticNatTable::Key{ .vrfId = 2 };

Pfe::NatMatchKey matchKey( U16 port ) {
   return Pfe::StaticNatMatchKey{
      .natIntf = "ethernet1", .ipAndPortOld = { Support::ip( "10.0.0.1" ), port }, .protocol = 6 };
}

// The match keys' texts, for literals.
std::string const web =
   "Value('Pfe::NatMatchKey', staticKey=Value('Pfe::StaticNatMatchKey', natIntf='ethernet1', vrfId=0, "
   "ipAndPortOld=Value('Netix::IpAndPort', ip=10.0.0.1, port=80), target=0, protocol=6))";
std::string const ssh =
   "Value('Pfe::NatMatchKey', staticKey=Value('Pfe::StaticNatMatchKey', natIntf='ethernet1', vrfId=0, "
   "ipAndPortOld=Value('Netix::IpAndPort', ip=10.0.0.1, port=22), target=0, protocol=6))";

struct NatIdManagerTest : testing::Test {
   Pfe::NatIdManager & start() {
      manager = Orla::make< Pfe::NatIdManager >( info );
      return *manager;
   }

   Pfe::NatIdInfo::Ptr info = Orla::make< Pfe::NatIdInfo >();
   Pfe::NatIdManager::Ptr manager;
};

TEST_F( NatIdManagerTest, TracesEveryStepOfAnIdsLife ) {
   Support::TraceLines trace( 8 );
   start();
   EXPECT_THAT( trace.take(), ElementsAre( "6 NatIdManager:: handleInitialized" ) );
   EXPECT_EQ( manager->allocateNatId( first, matchKey( 80 ) ), 1 );
   EXPECT_THAT( trace.take(), ElementsAre( "8 allocateNatId matchKey " + web + " newly assigned to natId: 1",
                                           "8 matchKey " + web + ", natId: 1, new refCount: 1" ) );
   EXPECT_EQ( manager->allocateNatId( second, matchKey( 80 ) ), 1 );
   EXPECT_THAT( trace.take(), ElementsAre( "8 allocateNatId matchKey " + web + " already assigned to natId: 1",
                                           "8 matchKey " + web + ", natId: 1, new refCount: 2" ) );
   EXPECT_EQ( manager->allocateNatId( second, matchKey( 80 ) ), 1 );
   EXPECT_THAT( trace.take(), ElementsAre( "8 allocateNatId matchKey " + web + " already assigned to natId: 1",
                                           "8 matchKey " + web + ", natId: 1, new refCount: 2" ) );
   EXPECT_EQ( manager->allocateNatId( first, matchKey( 22 ) ), 2 );
   trace.take();

   // A restart.
   start();
   EXPECT_THAT( trace.take(),
                testing::UnorderedElementsAre( "6 NatIdManager:: handleInitialized",
                                               "8 handleInitialized Reserving natId 1 for matchKey " + web,
                                               "8 handleInitialized Reserving natId 2 for matchKey " + ssh ) );
   EXPECT_EQ( manager->allocateNatId( first, matchKey( 80 ) ), 1 );
   EXPECT_THAT( trace.take(), ElementsAre( "8 allocateNatId matchKey " + web +
                                              " has cached natId: 1. Rebuilding natId->IngKey map for restart",
                                           "8 matchKey " + web + ", natId: 1, new refCount: 1" ) );
   EXPECT_THAT( Support::ringLinesOf( [ & ] { manager->sweepAndCleanupNatIds(); } ),
                ElementsAre( "sweepAndCleanupNatIds" ) );
   EXPECT_THAT( trace.take(), ElementsAre( "8 sweepAndCleanupNatIds",
                                           "8 sweepAndCleanupNatIds matchKey " + ssh + " cleaning up natId: 2" ) );
   manager->sweepAndCleanupNatIds();
   EXPECT_THAT( trace.take(), ElementsAre( "8 sweepAndCleanupNatIds" ) );

   manager->freeNatId( second, matchKey( 80 ) );
   EXPECT_THAT( trace.take(), ElementsAre( "8 freeNatId matchKey " + web + " new refCount: 1" ) );
   manager->freeNatId( first, matchKey( 80 ) );
   EXPECT_THAT( trace.take(), ElementsAre( "8 freeNatId matchKey " + web + " new refCount: 0",
                                           "8 freeNatId matchKey " + web + " freeing natId: 1" ) );
   manager->freeNatId( first, matchKey( 80 ) );
   EXPECT_THAT( trace.take(), ElementsAre( "8 freeNatId natId not found for matchKey: " + web ) );
   EXPECT_EQ( info->matchKeyToNatId().count(), 0U );
   EXPECT_FALSE( manager->natIdBitmap()->bit( 1 ) );
   EXPECT_FALSE( manager->matchKeyToIngKeySetHas( matchKey( 80 ) ) );
}

TEST_F( NatIdManagerTest, HandsOutTheLowestIdThatIsNeitherZeroNorPersisted ) {
   info->matchKeyToNatIdIs( matchKey( 1 ), Pfe::NatId( 1 ) );
   info->matchKeyToNatIdIs( matchKey( 5 ), Pfe::NatId( 3 ) );
   start();
   EXPECT_TRUE( manager->natIdBitmap()->bit( 0 ) );
   EXPECT_EQ( manager->allocateNatId( first, matchKey( 80 ) ), 2 );
   EXPECT_EQ( manager->allocateNatId( first, matchKey( 81 ) ), 4 );
   EXPECT_EQ( manager->allocateNatId( first, matchKey( 5 ) ), 3 );
   EXPECT_EQ( manager->allocateNatId( first, matchKey( 82 ) ), 5 );
   manager->sweepAndCleanupNatIds();
   EXPECT_EQ( manager->allocateNatId( first, matchKey( 83 ) ), 1 );
   EXPECT_EQ( manager->getNatId( matchKey( 5 ) ), 3 );
   EXPECT_EQ( manager->getNatId( matchKey( 99 ) ), 1 ) << "the default of a key that has no id";
}

// The store writes ids back when they change; any other watcher may do more.
TEST_F( NatIdManagerTest, IdsMayGoWhileTheirMapsAreRead ) {
   struct Watcher final : Pfe::NatIdInfo::MatchKeyToNatId::Watcher {
      void onKey( Pfe::NatMatchKey const &, Pfe::NatId const *, Pfe::NatId const * current ) override {
         for ( U16 port = 1; !current && port <= 100; ++port ) {
            port % 2 == 0 ? info->matchKeyToNatIdDel( matchKey( port ) )
                          : info->matchKeyToNatIdIs( matchKey( 100 + port ), Pfe::NatId( 100 + port ) );
         }
      }
      Pfe::NatIdInfo * info;
   } watcher;
   watcher.info = info.ptr();
   for ( U16 port = 1; port <= 100; ++port ) {
      info->matchKeyToNatIdIs( matchKey( port ), Pfe::NatId( port ) );
   }
   start();
   info->matchKeyToNatId().watcherIs( watcher );
   manager->sweepAndCleanupNatIds();
   info->matchKeyToNatId().watcherDel( watcher );
   EXPECT_EQ( info->matchKeyToNatId().count(), 50U ) << "those that came meanwhile";
   manager->sweepAndCleanupNatIds();
   manager->allocateNatId( first, matchKey( 80 ) );
   manager->allocateNatId( first, matchKey( 81 ) );
   info->matchKeyToNatId().forEach(
      [ & ]( Pfe::NatMatchKey const & key, Pfe::NatId ) { manager->freeNatId( first, key ); } );
   EXPECT_EQ( info->matchKeyToNatId().count() + manager->matchKeyToIngKeySet().count(), 0U );
}

TEST_F( NatIdManagerTest, ThrowsWhenThePoolIsEmptyAndChangesNothing ) {
   start();
   for ( U32 id = 1; id < Pfe::NatId::max; ++id ) {
      manager->natIdBitmap()->setBit( id );
   }
   EXPECT_EQ( manager->allocateNatId( first, matchKey( 80 ) ), 65535 );
   try {
      manager->allocateNatId( first, matchKey( 22 ) );
      ADD_FAILURE() << "no id was free";
   } catch ( Vexa::RangeException const & error ) {
      EXPECT_STREQ( error.what(), "Pfe::NatId::value < Pfe::NatId::min or > Pfe::NatId::max not allowed" );
   }
   EXPECT_EQ( info->matchKeyToNatId().count() + manager->matchKeyToIngKeySet().count(), 2U );
   EXPECT_EQ( manager->allocateNatId( second, matchKey( 80 ) ), 65535 ) << "a known translation needs no id";
   manager->freeNatId( first, matchKey( 80 ) );
   manager->freeNatId( second, matchKey( 80 ) );
   EXPECT_EQ( manager->allocateNatId( first, matchKey( 22 ) ), 65535 );
}

using NatIdManagerDeathTest = NatIdManagerTest;

TEST_F( NatIdManagerDeathTest, StopsAtAnIdThatNobodyHoldsBeingFreed ) {
   info->matchKeyToNatIdIs( matchKey( 80 ), Pfe::NatId( 1 ) );
   start();
   EXPECT_DEATH( manager->freeNatId( first, matchKey( 80 ) ), "^ingKeySet\\.entrys\\(\\)\n" );
}

TEST_F( NatIdManagerDeathTest, WithoutPersistedIdsNothingIsKnownAndAllocationStops ) {
   info = nullptr;
   start().freeNatId( first, matchKey( 80 ) );
   manager->sweepAndCleanupNatIds();
   manager->handleInitialized();
   EXPECT_EQ( manager->getNatId( matchKey( 80 ) ), 1 );
   EXPECT_DEATH( manager->allocateNatId( first, matchKey( 80 ) ), "^object_ && \"Orla::Ptr is null\"\n" );
}

}  // namespace
