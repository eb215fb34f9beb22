// What the base programmer does about traps and profiles, in which order it replays, and when no NAT id is free.
#include <Pfe/NatBaseProgrammerSm.h>

#include <tests/support/BaseProgrammerKinds.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Support::CalledProgrammer;
using testing::ElementsAre;
using testing::IsEmpty;

struct Replay : testing::Test {
   Replay() {
      sm->programmerModeIs( CalledProgrammer::Mode::tables );
      sm->hasNotificationActiveIs( true );
      sm->replay();
      sm->calls.clear();
   }
   template< class Kind > void configure( int key, U32 number ) {
      typename Kind::Fields fields;
      fields.nextHop = Orla::make< Pfe::NatNextHopId >( number );
      Kind::configure( *config, Kind::key( key ), Kind::make( fields ) );
   }
   void configureTrap( U16 poolId, U16 ruleId, U32 vrfId = 0 ) {
      config->trapEntryIs( trapKey( poolId ), Orla::make< Pfe::NatProgrammerTrapEntry const >(
                                                 vrfId, Ip::Nat::NatDynamicTrapRule{ .ruleId = ruleId } ) );
   }
   static Pfe::NatProgrammerTrapKey trapKey( U16 poolId ) { return { Netix::IntfId(), { "lab", poolId } }; }

   Pfe::NatProgrammerConfig::Ptr const config = Orla::make< Pfe::NatProgrammerConfig >();
   Pfe::NatProgrammerStatus::Ptr const status = Orla::make< Pfe::NatProgrammerStatus >();
   Pfe::NatVlanProfileConfig::Ptr const profiles = Orla::make< Pfe::NatVlanProfileConfig >();
   Orla::Ptr< CalledProgrammer > sm = Orla::make< CalledProgrammer >( config, status );
};

TEST_F( Replay, GoesThroughStaticTwiceDynamicTrapsAndProfilesThenReconcilesThenRetries ) {
   configureTrap( 4, 1 );
   configure< Support::DynamicKind >( 3, 3 );
   configure< Support::TwiceKind >( 2, 2 );
   sm->raises = { { "add 1 1", 2 } };
   configure< Support::StaticKind >( 1, 1 );
   profiles->vlanProfileIs( 10, 7 );
   sm->natVlanProfileConfigIs( profiles );
   sm->calls.clear();
   sm->replay();
   EXPECT_THAT( sm->calls, ElementsAre( "add 1 1 raised", "delete 1 1", "update 2 2", "update 3 3", "addTrap 4 rule 1",
                                        "setProfile 10 7", "reconcile", "add 1 1" ) );
}

TEST_F( Replay, RetriesKeepOneOrderForAllKindsAndStopWhileNoIdIsFree ) {
   sm->raises = { { "add 1 1", 1 }, { "add 2 2", 1 }, { "add 3 3", 1 } };
   configure< Support::DynamicKind >( 3, 3 );
   configure< Support::StaticKind >( 1, 1 );
   configure< Support::TwiceKind >( 2, 2 );
   auto const pool = Orla::make< Pfe::NatIdInfo >();
   for ( U32 id = 1; id <= Pfe::NatId::max; ++id ) {
      pool->matchKeyToNatIdIs( Pfe::StaticNatMatchKey{ .vrfId = id }, Pfe::NatId( id ) );
   }
   sm->natIdPoolIs( pool );
   sm->calls.clear();
   EXPECT_EQ( sm->retryRefused(), 0U );
   EXPECT_THAT( sm->calls, IsEmpty() );
   pool->matchKeyToNatIdDel( Pfe::StaticNatMatchKey{ .vrfId = 1 } );
   EXPECT_EQ( sm->retryRefused(), 3U );
   EXPECT_THAT( sm->calls, ElementsAre( "add 3 3", "add 1 1", "add 2 2" ) );
}

TEST_F( Replay, TrapsOfTheSameNameAreAddedOverAndOthersTakenBackFirst ) {
   configureTrap( 4, 1 );
   configureTrap( 4, 1, 9 );
   configureTrap( 4, 2 );
   config->trapEntryDel( trapKey( 4 ) );
   config->trapEntryDel( trapKey( 4 ) );
   EXPECT_THAT( sm->calls, ElementsAre( "addTrap 4 rule 1", "addTrap 4 rule 1", "deleteTrap 4 rule 1",
                                        "addTrap 4 rule 2", "deleteTrap 4 rule 2" ) );
}

TEST_F( Replay, ARaisedTrapIsCountedAndForgotten ) {
   sm->raises = { { "addTrap 4 rule 1", 1 } };
   configureTrap( 4, 1 );
   EXPECT_EQ( sm->rangeErrorCount(), 1U );
   EXPECT_EQ( sm->refusedCount(), 0U );
   config->trapEntryDel( trapKey( 4 ) );
   configureTrap( 4, 1 );
   EXPECT_THAT( sm->calls, ElementsAre( "addTrap 4 rule 1 raised", "addTrap 4 rule 1" ) );
}

TEST_F( Replay, ATrapsDeleteThatRaisesIsCaught ) {
   configureTrap( 4, 1 );
   sm->raises = { { "deleteTrap 4 rule 1", 1 } };
   sm->calls.clear();
   configureTrap( 4, 2 );
   EXPECT_THAT( sm->calls, ElementsAre( "deleteTrap 4 rule 1 raised", "addTrap 4 rule 2" ) );
   EXPECT_EQ( sm->rangeErrorCount(), 1U );
}

TEST_F( Replay, ProfilesComeFromTheirOwnConfigurationOnly ) {
   profiles->vlanProfileIs( 10, 7 );
   sm->natVlanProfileConfigIs( profiles );
   EXPECT_THAT( sm->calls, IsEmpty() );
   profiles->vlanProfileIs( 11, 0 );
   profiles->vlanProfileIs( 10, 8 );
   profiles->vlanProfileDel( 11 );
   profiles->vlanProfileDel( 12 );
   EXPECT_THAT( sm->calls, ElementsAre( "setProfile 11 0", "setProfile 10 8", "clearProfile 11" ) );

   sm->calls.clear();
   sm->natVlanProfileConfigIs( nullptr );
   profiles->vlanProfileIs( 10, 9 );
   sm->replay();
   EXPECT_THAT( sm->calls, ElementsAre( "reconcile" ) );

   // Changes before the first replay are left to it.
   auto const early = Orla::make< CalledProgrammer >( config, status );
   early->hasNotificationActiveIs( true );
   early->natVlanProfileConfigIs( profiles );
   profiles->vlanProfileIs( 10, 1 );
   EXPECT_THAT( early->calls, IsEmpty() );
   early->replay();
   EXPECT_THAT( early->calls, ElementsAre( "setProfile 10 1", "reconcile" ) );
}

TEST_F( Replay, RangeErrorsAreTracedWithTheRule ) {
   Support::TraceLines trace( 2 );
   sm->raises = { { "add 1 1", 1 } };
   configure< Support::StaticKind >( 1, 1 );
   EXPECT_THAT( trace.take(),
                ElementsAre( "2 range error, rule: " + Vexa::stringOf( Support::StaticKind::key( 1 ) ) +
                             ", error: Pfe::NatId::value < Pfe::NatId::min or > Pfe::NatId::max not allowed" ) );
}

TEST_F( Replay, AProgrammerThatIsGoneIsToldNothing ) {
   sm->natVlanProfileConfigIs( profiles );
   sm = nullptr;
   configure< Support::StaticKind >( 1, 1 );
   configureTrap( 4, 1 );
   profiles->vlanProfileIs( 10, 1 );
}

}  // namespace
