// The programmer's frame: initialisation, collaborators, the end, and its attributes by name and by id.
#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <tests/support/Programmer.h>

#include <Vexa/Type.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

namespace {

using Pfe::NatSwTableProgrammerSm;
using Support::Lines;
using testing::ElementsAre;
using Vexa::AttrResult;

struct Frame : testing::Test {
   Pfe::NatProgrammerConfig::Ptr const config = Orla::make< Pfe::NatProgrammerConfig >();
   Pfe::NatProgrammerStatus::Ptr const status = Orla::make< Pfe::NatProgrammerStatus >();
   Pfe::NatIdInfo::Ptr const natIdInfo = Orla::make< Pfe::NatIdInfo >();
   Ip::Nat::HwCapabilities::Ptr const capabilities = Orla::make< Ip::Nat::HwCapabilities >();
   NatSwTableProgrammerSm::Ptr sm = Pfe::natSwTableProgrammerSmFactory( config, status, capabilities, natIdInfo );
};

// --- Life ------------------------------------------------------------------------------------------------------------

TEST_F( Frame, StartsWithWhatItWasGivenAndNothingElse ) {
   EXPECT_EQ( sm->referenceCount(), 1U );
   EXPECT_TRUE( sm->hasNotificationActive() );
   EXPECT_EQ( sm->natProgrammerConfig(), config );
   EXPECT_EQ( sm->natProgrammerStatus(), status );
   EXPECT_EQ( sm->hwCapabilities(), capabilities );
   EXPECT_EQ( sm->natIdInfo(), natIdInfo );
   EXPECT_FALSE( sm->initialized() );
   EXPECT_FALSE( sm->cleanupInProgress() );
   EXPECT_FALSE( sm->natIdManager() );
   EXPECT_FALSE( sm->ingStaticNatTable() );
   EXPECT_EQ( sm->programmerMode(), NatSwTableProgrammerSm::Mode::interfaces );
   EXPECT_EQ( NatSwTableProgrammerSm( config, status, nullptr, nullptr ).hasNotificationActive(), false );
}

TEST_F( Frame, InitialisingDropsStaleTrapsAndReservesPersistedIdsOnce ) {
   auto const traps = Orla::make< Pfe::NatTrapConfig >();
   auto const staleTrap = Pfe::NatTrapAcl( { "lab", 1, 1 } );
   sm->natTrapConfigIs( traps );
   traps->trapAclIs( staleTrap );
   natIdInfo->matchKeyToNatIdIs( Pfe::StaticNatMatchKey{}, Pfe::NatId( 7 ) );
   Support::TraceLines trace( 6 );

   sm->initializedIs( false );
   EXPECT_THAT( trace.take(), ElementsAre() );
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
   EXPECT_EQ( sm->natIdManager(), manager );
   sm->initializedIs( true );
   EXPECT_EQ( traps->trapAcl().count(), 0U );
   EXPECT_EQ( sm->natIdManager(), manager );
}

TEST_F( Frame, WithoutIdStateThereIsNoManager ) {
   sm = Pfe::natSwTableProgrammerSmFactory( config, status, nullptr, nullptr );
   sm->initializedIs( true );
   EXPECT_FALSE( sm->natIdManager() );
   sm->replayReconcile();
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

TEST_F( Frame, AZombieReactsToNothing ) {
   sm->replay();
   sm->cleanupInProgressIs( true );
   auto const changed = [ & ] {
      return Support::ringLinesOf(
         [ & ] { config->staticEntryIs( Support::staticKey( "10.0.0.1" ), Support::staticEntry( "192.0.2.1" ) ); } );
   };
   sm->vexaDoZombieReactors( true );
   EXPECT_TRUE( sm->vexaZombie() );
   EXPECT_THAT( changed(), ElementsAre() );
   sm->vexaDoZombieReactors( false );
   EXPECT_FALSE( sm->vexaZombie() );
   EXPECT_EQ( changed().size(), 2U );
}

// --- The end ---------------------------------------------------------------------------------------------------------

// Write down, when they go, how many references the test still sees on what else the programmer held.
struct Witness {
   Lines * lines;
   Orla::Entity const * natIdInfo;
   Orla::Entity const * table;
   void gone( std::string const & name ) const {
      lines->push_back( name + ": ids " + std::to_string( natIdInfo->referenceCount() ) + " table " +
                        std::to_string( table->referenceCount() ) );
   }
};

struct WitnessCapabilities final : Ip::Nat::HwCapabilities {
   explicit WitnessCapabilities( Witness w ) : witness( w ) {}
   ~WitnessCapabilities() override { witness.gone( "capabilities" ); }
   Witness witness;
};

struct WitnessDynamicHelper final : Pfe::DynamicNatProgrammerHelper {
   explicit WitnessDynamicHelper( Witness w ) : witness( w ) {}
   ~WitnessDynamicHelper() override { witness.gone( "dynamic helper" ); }
   bool getL4ProtocolDetected( U8 ) override { return false; }
   Witness witness;
};

TEST_F( Frame, EndsByReleasingTheManagerThenTheOthersBackwards ) {
   Lines lines;
   auto const table = Orla::make< Pfe::IngStaticNatTable >( Orla::make< Asic::Hardware >() );
   Witness const witness{ &lines, natIdInfo.ptr(), table.ptr() };
   sm = Pfe::natSwTableProgrammerSmFactory( config, status, Orla::make< WitnessCapabilities >( witness ), natIdInfo );
   sm->ingStaticNatTableIs( table );
   sm->dynamicNatProgrammerHelperIs( Orla::make< WitnessDynamicHelper >( witness ) );
   sm->initializedIs( true );
   sm = nullptr;
   EXPECT_THAT( lines, ElementsAre( "dynamic helper: ids 2 table 2", "capabilities: ids 1 table 1" ) );
   EXPECT_EQ( natIdInfo->referenceCount(), 1U );
   config->staticEntryIs( Support::staticKey( "10.0.0.1" ), Support::staticEntry( "192.0.2.1" ) );  // nobody is told
}

// --- Attributes ------------------------------------------------------------------------------------------------------

struct ExpectedAttribute {
   char const * name;
   bool reads, writes, calls;
};

void hasAttributes( Vexa::TypeData const & type, std::vector< ExpectedAttribute > const & expected ) {
   SCOPED_TRACE( type.name );
   ASSERT_EQ( type.attributes.size(), expected.size() );
   for ( std::size_t i = 0; i < expected.size(); ++i ) {
      auto const & attribute = type.attributes[ i ];
      EXPECT_EQ( attribute.name, expected[ i ].name ) << "id " << i + 1;
      EXPECT_EQ( attribute.read != nullptr, expected[ i ].reads ) << attribute.name;
      EXPECT_EQ( attribute.write != nullptr, expected[ i ].writes ) << attribute.name;
      EXPECT_EQ( attribute.call != nullptr, expected[ i ].calls ) << attribute.name;
   }
}

TEST_F( Frame, AttributesStandInTheirOrder ) {
   auto const readOnly = []( char const * name ) { return ExpectedAttribute{ name, true, false, false }; };
   auto const writable = []( char const * name ) { return ExpectedAttribute{ name, true, true, false }; };
   auto const method = []( char const * name ) { return ExpectedAttribute{ name, false, false, true }; };
   auto const instantiating = []( char const * name ) { return ExpectedAttribute{ name, true, false, true }; };
   hasAttributes( NatSwTableProgrammerSm::classType(), { readOnly( "hwCapabilities" ),
                                                         readOnly( "natIdInfo" ),
                                                         writable( "aclNameIdTable" ),
                                                         writable( "egrSourceNatUcRewriteTable" ),
                                                         writable( "egrDestinationNatUcRewriteTable" ),
                                                         writable( "egrNatMcRewriteTable" ),
                                                         writable( "ingStaticNatTable" ),
                                                         writable( "ingTwiceNatTable" ),
                                                         writable( "ingDynamicSnaptTable" ),
                                                         writable( "ingDynamicDnaptTable" ),
                                                         writable( "ingDynamicSnatAddrOnlyTable" ),
                                                         writable( "ingDynamicDnatAddrOnlyTable" ),
                                                         writable( "natTrapConfig" ),
                                                         writable( "natProfileConfig" ),
                                                         instantiating( "natIdManager" ),
                                                         writable( "mcastProgrammerHelper" ),
                                                         writable( "dynamicNatProgrammerHelper" ),
                                                         method( "staticNatMatchKey" ),
                                                         method( "twiceNatMatchKey" ),
                                                         method( "deleteAllConnections" ),
                                                         method( "addAllConnections" ),
                                                         writable( "initialized" ),
                                                         method( "handleInitialized" ),
                                                         writable( "cleanupInProgress" ) } );
   hasAttributes( Pfe::NatIdManager::classType(),
                  { readOnly( "natIdInfo" ), method( "matchKeyToIngKeySet" ), instantiating( "natIdBitmap" ),
                    method( "allocateNatId" ), method( "getNatId" ), method( "freeNatId" ),
                    method( "sweepAndCleanupNatIds" ), method( "handleInitialized" ) } );
   hasAttributes( Pfe::NatMcastProgrammerHelper::classType(),
                  { method( "getStaticEgrMcastEntry" ), method( "getTwiceEgrMcastEntry" ),
                    method( "isValidMcastStaticTranslation" ), method( "isValidMcastTwiceTranslation" ),
                    method( "cleanupNatEntry" ), method( "handleStartup" ) } );
   hasAttributes( Pfe::DynamicNatProgrammerHelper::classType(), { method( "getL4ProtocolDetected" ) } );
   hasAttributes( Pfe::PfeNatProgrammerBaseHelper::classType(), { readOnly( "name" ) } );
}

TEST_F( Frame, PointerAttributesHoldWhatIsWrittenAndLetGoOfWhatWasThere ) {
   struct {
      U32 id;
      Orla::Ptr< Orla::Entity > first, second;
      std::any firstValue, secondValue;
   } rows[ 10 ];
   std::size_t count = 0;
   auto const row = [ & ]< class T >( U32 id, Orla::Ptr< T > first, Orla::Ptr< T > second ) {
      rows[ count++ ] = { id, first, second, first, second };
   };
   auto const hardware = Orla::make< Asic::Hardware >();
   auto const tables = [ & ]< class Table >( U32 id, Table * ) {
      row( id, Orla::make< Table >( hardware ), Orla::make< Table >( hardware ) );
   };
   row( 3, Orla::make< Pfe::NatAclNameIdTable >(), Orla::make< Pfe::NatAclNameIdTable >() );
   tables( 4, static_cast< Pfe::EgrSourceNatUcRewriteTable * >( nullptr ) );
   tables( 5, static_cast< Pfe::EgrDestinationNatUcRewriteTable * >( nullptr ) );
   tables( 6, static_cast< Pfe::EgrNatMcRewriteTable * >( nullptr ) );
   tables( 7, static_cast< Pfe::IngStaticNatTable * >( nullptr ) );
   tables( 9, static_cast< Pfe::IngDynamicSnaptTable * >( nullptr ) );
   tables( 12, static_cast< Pfe::IngDynamicDnatAddrOnlyTable * >( nullptr ) );
   row( 13, Orla::make< Pfe::NatTrapConfig >(), Orla::make< Pfe::NatTrapConfig >() );
   row( 14, Orla::make< Pfe::NatProfileConfig >(), Orla::make< Pfe::NatProfileConfig >() );
   row( 16, Pfe::NatMcastProgrammerHelper::Ptr( Orla::make< Support::McastHook >() ),
        Pfe::NatMcastProgrammerHelper::Ptr( Orla::make< Support::McastHook >() ) );
   Orla::Entity & entity = *sm;
   auto const table = NatSwTableProgrammerSm::classType().attributes;
   for ( auto const & [ id, first, second, firstValue, secondValue ] : rows ) {
      SCOPED_TRACE( id );
      auto const held = first->referenceCount();
      EXPECT_EQ( Vexa::attributeWrite( table, entity, id, firstValue ), AttrResult::done );
      EXPECT_EQ( first->referenceCount(), held + 1 );
      EXPECT_EQ( Vexa::attributeWrite( *sm, table[ id - 1 ].name, secondValue ), AttrResult::done );
      EXPECT_EQ( first->referenceCount(), held );
      EXPECT_EQ( second->referenceCount(), held + 1 );
      EXPECT_EQ( Vexa::attributeWrite( table, entity, id, std::any( std::string() ) ), AttrResult::notSupported );
      EXPECT_EQ( second->referenceCount(), held + 1 );
   }
}

TEST_F( Frame, AnswersTellWhatAnAttributeDoesNotHave ) {
   auto const table = NatSwTableProgrammerSm::classType().attributes;
   Orla::Entity & entity = *sm;
   std::any value;
   for ( U32 const id : { 0u, 25u } ) {
      EXPECT_EQ( Vexa::attributeRead( table, entity, id, value ), AttrResult::noSuchAttribute );
      EXPECT_EQ( Vexa::attributeWrite( table, entity, id, value ), AttrResult::noSuchAttribute );
      EXPECT_EQ( Vexa::attributeCall( table, entity, id, {}, value ), AttrResult::noSuchAttribute );
   }
   EXPECT_EQ( Vexa::attributeRead( *sm, "nonsense", value ), AttrResult::noSuchAttribute );
   EXPECT_EQ( Vexa::attributeWrite( *sm, "natIdInfo", natIdInfo ), AttrResult::notSupported );
   EXPECT_EQ( Vexa::attributeCall( *sm, "initialized", {}, value ), AttrResult::notSupported );
   EXPECT_EQ( Vexa::attributeRead( *sm, "handleInitialized", value ), AttrResult::notSupported );
   EXPECT_EQ( Vexa::attributeWrite( *sm, "addAllConnections", true ), AttrResult::notSupported );
   std::any const tooMany[] = { 1 };
   EXPECT_EQ( Vexa::attributeCall( *sm, "handleInitialized", tooMany, value ), AttrResult::notSupported );
   EXPECT_EQ( Vexa::attributeCall( *sm, "staticNatMatchKey", tooMany, value ), AttrResult::notSupported );
}

TEST_F( Frame, MethodsAreCalledByName ) {
   std::any value;
   EXPECT_EQ( Vexa::attributeRead( *sm, "natIdManager", value ), AttrResult::done );
   EXPECT_FALSE( std::any_cast< Pfe::NatIdManager::Ptr >( value ) );
   std::any const info[] = { natIdInfo };
   EXPECT_EQ( Vexa::attributeCall( *sm, "natIdManager", info, value ), AttrResult::done );
   auto const manager = std::any_cast< Pfe::NatIdManager::Ptr >( value );
   EXPECT_EQ( sm->natIdManager(), manager );

   auto const ingKey = Support::ingressKey( Ip::Nat::NatTarget::source, "10.0.0.1:80", "192.0.2.1:80" );
   std::any const argument[] = { ingKey };
   EXPECT_EQ( Vexa::attributeCall( *sm, "staticNatMatchKey", argument, value ), AttrResult::done );
   EXPECT_EQ( std::any_cast< Pfe::NatMatchKey >( value ), sm->staticNatMatchKey( ingKey ) );
   std::any const keys[] = { Pfe::IngNatTableKey( ingKey ), value };
   EXPECT_EQ( Vexa::attributeCall( *manager, "allocateNatId", keys, value ), AttrResult::done );
   EXPECT_EQ( std::any_cast< Pfe::NatId >( value ), Pfe::NatId( 1 ) );
   EXPECT_EQ( Vexa::attributeCall( *manager, "matchKeyToIngKeySet", { &keys[ 1 ], 1 }, value ), AttrResult::done );
   EXPECT_EQ( std::any_cast< Pfe::IngKeySet >( value ).entrys(), 1U );
   EXPECT_EQ( Vexa::attributeCall( *manager, "freeNatId", keys, value ), AttrResult::done );
   EXPECT_EQ( natIdInfo->matchKeyToNatId().count(), 0U );

   EXPECT_EQ( Vexa::attributeWrite( *sm, "cleanupInProgress", true ), AttrResult::done );
   EXPECT_TRUE( sm->cleanupInProgress() );
   // Its base's attributes too.
   EXPECT_EQ( Vexa::attributeRead( *sm, "refusedCount", value ), AttrResult::done );
   EXPECT_EQ( std::any_cast< std::size_t >( value ), 0U );
}

TEST_F( Frame, CollectionsAreFilledAndEmptiedByName ) {
   using namespace Pfe;
   using enum Vexa::AttrResult;
   std::any result;
   auto const info = Orla::make< NatIdInfo >();
   std::any const pair[] = { NatMatchKey( TwiceNatMatchKey{ .vrfId = 4 } ), NatId( 7 ) };
   std::span< std::any const > const keyOnly( pair, 1 );
   EXPECT_EQ( Vexa::attributeInsert( *info, "matchKeyToNatId", keyOnly, result ), notSupported );
   EXPECT_EQ( Vexa::attributeInsert( *info, "matchKeyToNatId", pair, result ), done );
   EXPECT_EQ( Vexa::attributeCall( *info, "matchKeyToNatId", keyOnly, result ), done );
   EXPECT_EQ( std::any_cast< NatId >( result ), NatId( 7 ) );
   EXPECT_EQ( Vexa::attributeDel( *info, "matchKeyToNatId", keyOnly, result ), done );
   EXPECT_EQ( Vexa::attributeCall( *info, "matchKeyToNatId", keyOnly, result ), done );
   EXPECT_FALSE( result.has_value() );

   auto const manager = sm->natIdManagerIs( info );
   EXPECT_EQ( Vexa::attributeDel( *sm, "natIdManager", {}, result ), done );
   EXPECT_EQ( std::any_cast< NatIdManager::Ptr >( result ), manager );
   EXPECT_FALSE( sm->natIdManager() );
   EXPECT_EQ( Vexa::attributeDel( *sm, "initialized", {}, result ), notSupported );

   IngKeySet set;
   std::any const key = IngNatTableKey();
   EXPECT_EQ( Vexa::attributeInvoke( IngKeySet::attributeTable(), set, 1, &Vexa::Attribute< IngKeySet >::insert,
                                     std::span( &key, 1 ), result ),
              done );
   EXPECT_TRUE( set.entryHas( IngNatTableKey() ) );
   EgrMcastEntry rewrites;
   EXPECT_EQ( Vexa::attributeWrite( EgrMcastEntry::attributeTable(), rewrites, 2, true ), done );
   EXPECT_TRUE( rewrites.valid() );
}

TEST_F( Frame, IsConstructedFromItsFourArguments ) {
   auto const construct = NatSwTableProgrammerSm::classType().construct;
   std::any const arguments[] = { Pfe::NatProgrammerConfig::PtrConst( config ), status,
                                  Ip::Nat::HwCapabilities::PtrConst( capabilities ), natIdInfo };
   auto const made = construct( arguments );
   ASSERT_TRUE( made );
   EXPECT_EQ( made->typeData().name, "Pfe::NatSwTableProgrammerSm" );
   EXPECT_TRUE( made->hasNotificationActive() );
   EXPECT_FALSE( construct( Vexa::AttrArguments( arguments, 3 ) ) );
   EXPECT_FALSE( Pfe::NatMcastProgrammerHelper::classType().construct );
}

// --- Hooks -----------------------------------------------------------------------------------------------------------

TEST( PfeNatProgrammerBaseHelper, CommitsAtOnceAndDefersNothing ) {
   auto const hook = Pfe::pfeNatProgrammerBaseHelperFactory( "nat" );
   EXPECT_EQ( hook->name(), "nat" );
   EXPECT_TRUE( hook->immediateCommit() );
   EXPECT_TRUE( hook->skipDeferredProcessingOnInit() );
   EXPECT_EQ( hook->referenceCount(), 1U );

   // Unlike the platform's own.
   auto const plain = Orla::make< PfeHelper::PfeHelperNat >( "plain" );
   EXPECT_FALSE( plain->immediateCommit() );
   EXPECT_FALSE( plain->skipDeferredProcessingOnInit() );

   std::any value;
   EXPECT_EQ( Vexa::attributeRead( *hook, "name", value ), AttrResult::done );
   EXPECT_EQ( std::any_cast< Orla::String >( value ), "nat" );
   EXPECT_EQ( Vexa::attributeWrite( *hook, "name", Orla::String( "other" ) ), AttrResult::notSupported );
   std::any const name[] = { Orla::String( "made" ) };
   EXPECT_TRUE( Pfe::PfeNatProgrammerBaseHelper::classType().construct( name ) );
}

}  // namespace
