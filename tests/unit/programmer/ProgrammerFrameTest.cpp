// The programmer's frame: initialisation, collaborators, the end; and what every class can be asked by name.
#include "PfeNat/PfeNatProgrammerIntfModeSm.h"
#include "PfeNat/PfeNatSwTableProgrammerSm.h"
#include "PfeNat/PfeNatSwTableSm.h"

#include <tests/support/Programmer.h>

#include <Vexa/Type.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace {

using Pfe::NatSwTableProgrammerSm;
using Support::Lines;
using testing::ElementsAre;

struct Frame : testing::Test {
   Pfe::NatProgrammerConfig::Ptr const config = Orla::make< Pfe::NatProgrammerConfig >();
   Pfe::NatProgrammerStatus::Ptr const status = Orla::make< Pfe::NatProgrammerStatus >();
   Pfe::NatIdInfo::Ptr const natIdInfo = Orla::make< Pfe::NatIdInfo >();
   Ip::Nat::HwCapabilities::Ptr const capabilities = Orla::make< Ip::Nat::HwCapabilities >();
   NatSwTableProgrammerSm::Ptr sm = Pfe::natSwTableProgrammerSmFactory( config, status, capabilities, natIdInfo );
};

// --- Life ------------------------------------------------------------------------------------------------------------

TEST_F( Frame, InitialisingDropsStaleTrapsAndReservesPersistedIdsOnce ) {
   auto const traps = Orla::make< Pfe::NatTrapConfig >();
   auto const staleTrap = Pfe::NatTrapAcl( { "lab", 1, 1 } );
   sm->natTrapConfigIs( traps );
   traps->trapAclIs( staleTrap );
   natIdInfo->matchKeyToNatIdIs( Pfe::StaticNatMatchKey{}, Pfe::NatId( 7 ) );
   Support::TraceLines trace( 6 );

   sm->initializedIs( false );
   sm->initializedIs( true );
   EXPECT_THAT( trace.take(),
                ElementsAre( "6 handleInitialized initialized=1", "6 NatIdManager:: handleInitialized" ) );
   EXPECT_EQ( traps->trapAcl().count(), 0U );
   auto const manager = sm->natIdManager();
   ASSERT_TRUE( manager );
   EXPECT_TRUE( manager->natIdBitmap()->bit( 7 ) );

   traps->trapAclIs( staleTrap );
   sm->initializedIs( true );
   EXPECT_THAT( trace.take(), ElementsAre() );
   sm->initializedIs( false );
   EXPECT_THAT( trace.take(), ElementsAre( "6 handleInitialized initialized=0" ) );
   EXPECT_EQ( traps->trapAcl().count(), 1U );
   sm->initializedIs( true );
   EXPECT_EQ( traps->trapAcl().count(), 0U );
   EXPECT_EQ( sm->natIdManager(), manager );
}

TEST_F( Frame, KeepsTheManagerOfTheSameIdState ) {
   auto const manager = sm->natIdManagerIs( natIdInfo );
   EXPECT_EQ( sm->natIdManagerIs( natIdInfo ), manager );
   auto const other = sm->natIdManagerIs( Orla::make< Pfe::NatIdInfo >() );
   EXPECT_NE( other, manager );
   EXPECT_EQ( sm->natIdManager(), other );
   EXPECT_EQ( manager->referenceCount(), 1U );
   EXPECT_EQ( sm->natIdManagerDel(), other );
   EXPECT_FALSE( sm->natIdManager() );
   EXPECT_FALSE( sm->natIdManagerDel() );
}

// --- The end ---------------------------------------------------------------------------------------------------------

// Tells, when it goes, whether the test alone still holds what the programmer held beside it.
struct WitnessCapabilities final : Ip::Nat::HwCapabilities {
   explicit WitnessCapabilities( std::function< void() > action ) : whenGone( std::move( action ) ) {}
   ~WitnessCapabilities() override { whenGone(); }
   std::function< void() > whenGone;
};

TEST_F( Frame, EndsByReleasingTheManagerThenTheOthersBackwards ) {
   auto const table = Orla::make< Pfe::IngStaticNatTable >( Orla::make< Asic::Hardware >() );
   Lines lines;
   auto capabilities = Orla::make< WitnessCapabilities >( [ & ] {
      lines.push_back( "ids " + std::to_string( natIdInfo->referenceCount() ) + " table " +
                       std::to_string( table->referenceCount() ) );
   } );
   sm = Pfe::natSwTableProgrammerSmFactory( config, status, std::exchange( capabilities, nullptr ), natIdInfo );
   sm->ingStaticNatTableIs( table );
   sm->initializedIs( true );
   sm = nullptr;
   EXPECT_THAT( lines, ElementsAre( "ids 1 table 1" ) );
   config->staticEntryIs( Support::staticKey( "10.0.0.1" ), Support::staticEntry( "192.0.2.1" ) );  // nobody is told
}

// --- Attributes ------------------------------------------------------------------------------------------------------

// Its attributes in their order, each with the first letters of what can be done to it: read, write, call, insert,
// delete.
std::string attributesOf( Vexa::TypeData const & type ) {
   std::string text;
   for ( auto const & attribute : type.attributes ) {
      text += ( text.empty() ? "" : " " ) + std::string( attribute.name ) + ':' + ( attribute.read ? "r" : "" ) +
              ( attribute.write ? "w" : "" ) + ( attribute.call ? "c" : "" ) + ( attribute.insert ? "i" : "" ) +
              ( attribute.del ? "d" : "" );
   }
   return text;
}

TEST( Attributes, StandInTheirOrder ) {
   using Map = Pfe::NatProgrammerStaticMap;
   struct {
      Vexa::TypeData const & type;
      char const *name, *attributes;
   } const rows[] = {
      { NatSwTableProgrammerSm::classType(), "Pfe::NatSwTableProgrammerSm",
        "hwCapabilities:r natIdInfo:r aclNameIdTable:rw egrSourceNatUcRewriteTable:rw "
        "egrDestinationNatUcRewriteTable:rw egrNatMcRewriteTable:rw ingStaticNatTable:rw ingTwiceNatTable:rw "
        "ingDynamicSnaptTable:rw ingDynamicDnaptTable:rw ingDynamicSnatAddrOnlyTable:rw "
        "ingDynamicDnatAddrOnlyTable:rw natTrapConfig:rw natProfileConfig:rw natIdManager:rcid "
        "mcastProgrammerHelper:rw dynamicNatProgrammerHelper:rw staticNatMatchKey:c twiceNatMatchKey:c "
        "deleteAllConnections:c addAllConnections:c initialized:rw handleInitialized:c cleanupInProgress:rw" },
      { Pfe::NatIdManager::classType(), "Pfe::NatIdManager",
        "natIdInfo:r matchKeyToIngKeySet:cid natIdBitmap:rcid allocateNatId:c getNatId:c freeNatId:c "
        "sweepAndCleanupNatIds:c handleInitialized:c" },
      { Pfe::NatMcastProgrammerHelper::classType(), "Pfe::NatMcastProgrammerHelper",
        "getStaticEgrMcastEntry:c getTwiceEgrMcastEntry:c isValidMcastStaticTranslation:c "
        "isValidMcastTwiceTranslation:c cleanupNatEntry:c handleStartup:c" },
      { Pfe::DynamicNatProgrammerHelper::classType(), "Pfe::DynamicNatProgrammerHelper", "getL4ProtocolDetected:c" },
      { Pfe::PfeNatProgrammerBaseHelper::classType(), "Pfe::PfeNatProgrammerBaseHelper", "name:r" },
      { Pfe::NatSwTableSm::classType(), "Pfe::NatSwTableSm",
        "natSwTableConfig:rw natSwTableStatus:r addStaticSwTableEntry:c delStaticSwTableEntry:c "
        "handleStaticSwTableEntry:c handleInitialized:c initialized:rw" },
      { Pfe::NatProgrammerConfigSm::classType(), "Pfe::NatProgrammerConfigSm",
        "natProgrammerConfig:r natProgrammerStatus:r natSwTableConfig:r natSwTableStatus:rw "
        "handleStaticSwTableStatus:c" },
      { Pfe::NatProgrammerIntfModeSm::classType(), "Pfe::NatProgrammerIntfModeSm",
        "staticConfigMap:rcid staticStatusMap:rcid" },
      { Map::classType(), "Pfe::NatProgrammerStaticMap",
        "progKeyToSwTableKeysMap:cid swTableKeyToProgKeysMap:cid addDependency:c delDependency:c hasDependency:c" },
      { Map::SwTableKeySet::classType(), "Pfe::NatProgrammerStaticMap::SwTableKeySet",
        "progKey:r progEntry:rw entry:cid" },
      { Map::ProgrammerKeySet::classType(), "Pfe::NatProgrammerStaticMap::ProgrammerKeySet", "swTableKey:r entry:cid" },
   };
   for ( auto const & row : rows ) {
      EXPECT_EQ( row.type.name, row.name );
      EXPECT_EQ( attributesOf( row.type ), row.attributes );
   }
}

TEST_F( Frame, IsDrivenByNames ) {
   using enum Vexa::AttrResult;
   std::any value;
   auto const argument = [ & ]( auto const &... values ) { return std::vector< std::any >{ values... }; };
   EXPECT_EQ( Vexa::attributeCall( *sm, "natIdManager", argument( natIdInfo ), value ), done );
   auto const manager = std::any_cast< Pfe::NatIdManager::Ptr >( value );
   EXPECT_EQ( sm->natIdManager(), manager );

   auto const ingKey = Support::ingressKey( Ip::Nat::NatTarget::source, "10.0.0.1:80", "192.0.2.1:80" );
   EXPECT_EQ( Vexa::attributeCall( *sm, "staticNatMatchKey", argument( ingKey ), value ), done );
   auto const matchKey = std::any_cast< Pfe::NatMatchKey >( value );
   EXPECT_EQ( matchKey, sm->staticNatMatchKey( ingKey ) );
   auto const keys = argument( Pfe::IngNatTableKey( ingKey ), matchKey );
   EXPECT_EQ( Vexa::attributeCall( *manager, "allocateNatId", keys, value ), done );
   EXPECT_EQ( std::any_cast< Pfe::NatId >( value ), Pfe::NatId( 1 ) );
   EXPECT_EQ( Vexa::attributeCall( *natIdInfo, "matchKeyToNatId", argument( matchKey ), value ), done );
   EXPECT_EQ( std::any_cast< Pfe::NatId >( value ), Pfe::NatId( 1 ) );
   EXPECT_EQ( Vexa::attributeCall( *manager, "freeNatId", keys, value ), done );
   EXPECT_EQ( natIdInfo->matchKeyToNatId().count(), 0U );
   EXPECT_EQ( Vexa::attributeDel( *sm, "natIdManager", {}, value ), done );
   EXPECT_FALSE( sm->natIdManager() );
   EXPECT_EQ( Vexa::attributeWrite( *sm, "cleanupInProgress", true ), done );
   EXPECT_TRUE( sm->cleanupInProgress() );
   EXPECT_EQ( Vexa::attributeRead( *sm, "refusedCount", value ), done ) << "its base's attributes too";

   EXPECT_EQ( Vexa::attributeRead( *sm, "Initialized", value ), noSuchAttribute );
   EXPECT_EQ( Vexa::attributeRead( *sm, "handleInitialized", value ), notSupported ) << "a method";
   EXPECT_EQ( Vexa::attributeWrite( *sm, "initialized", 1 ), notSupported ) << "of another type";
   EXPECT_EQ( Vexa::attributeCall( *sm, "initialized", {}, value ), notSupported );
   EXPECT_EQ( Vexa::attributeCall( *manager, "freeNatId", argument( matchKey ), value ), notSupported ) << "too few";
   auto const swapped = argument( matchKey, Pfe::IngNatTableKey( ingKey ) );
   EXPECT_EQ( Vexa::attributeCall( *manager, "freeNatId", swapped, value ), notSupported );
}

TEST( PfeNatProgrammerBaseHelper, CommitsAtOnceAndDefersNothingUnlikeThePlatformsOwn ) {
   auto const hook = Pfe::pfeNatProgrammerBaseHelperFactory( "nat" );
   EXPECT_EQ( hook->name(), "nat" );
   EXPECT_TRUE( hook->immediateCommit() && hook->skipDeferredProcessingOnInit() );
   auto const plain = Orla::make< PfeHelper::PfeHelperNat >( "plain" );
   EXPECT_FALSE( plain->immediateCommit() || plain->skipDeferredProcessingOnInit() );
}

}  // namespace
