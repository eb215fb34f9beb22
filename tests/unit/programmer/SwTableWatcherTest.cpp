// The watchers of the software-table configuration and status: changes of single keys, and of the whole collection.
#include "PfeNat/PfeNatProgrammerIntfModeSm.h"
#include "PfeNat/PfeNatSwTableSm.h"

#include <tests/support/Programmer.h>

#include <Vexa/Type.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>

namespace {

using Pfe::NatSwTableConfig;
using Pfe::NatSwTableSm;
using Pfe::NatSwTableStaticEntry;
using Pfe::NatSwTableStatus;
using Support::Lines;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// Keys that differ in nothing but a number.
Pfe::NatSwTableStaticKey keyOf( U32 number ) { return { .vrfId = number }; }

// --- The configuration -----------------------------------------------------------------------------------------------

NatSwTableConfig::Ptr configOf( std::initializer_list< U32 > numbers ) {
   auto const config = Orla::make< NatSwTableConfig >();
   for ( auto const number : numbers ) {
      config->staticEntryIs( keyOf( number ), Orla::make< NatSwTableStaticEntry >() );
   }
   return config;
}

// The handlers only trace, so what they were called for is seen in how often each was called.
std::map< std::string, unsigned > calls( Support::TraceLines & trace ) {
   std::map< std::string, unsigned > counts;
   for ( auto const & line : trace.take() ) {
      ++counts[ line ];
   }
   return counts;
}

std::map< std::string, unsigned > expectedCalls( unsigned adds, unsigned deletes ) {
   std::map< std::string, unsigned > counts;
   for ( auto const & [ operation, count ] :
         { std::pair( "handleStaticSwTableEntry", adds + deletes ), std::pair( "addStaticSwTableEntry", adds ),
           std::pair( "delStaticSwTableEntry", deletes ) } ) {
      if ( count != 0 ) {
         counts[ std::string( "6 NatSwTableSm::" ) + operation ] = count;
      }
   }
   return counts;
}

TEST( NatSwTableSm, TellsAddsAndDeletes ) {
   auto const config = configOf( { 1, 2 } );
   auto const status = Orla::make< NatSwTableStatus >();
   Support::TraceLines trace( 6 );
   auto const sm = Pfe::natSwTableSmFactory( config, status );
   EXPECT_EQ( calls( trace ), expectedCalls( 2, 0 ) );
   EXPECT_EQ( sm->referenceCount(), 1U );
   EXPECT_EQ( sm->natSwTableStatus(), status );

   config->staticEntryIs( keyOf( 1 ), Orla::make< NatSwTableStaticEntry >() );
   EXPECT_EQ( calls( trace ), expectedCalls( 1, 0 ) );
   config->staticEntryDel( keyOf( 1 ) );
   EXPECT_EQ( calls( trace ), expectedCalls( 0, 1 ) );
   sm->handleStaticSwTableEntry( keyOf( 1 ), nullptr, nullptr );
   EXPECT_THAT( trace.take(), ElementsAre( "6 NatSwTableSm::handleStaticSwTableEntry" ) );

   // Another configuration: key 2 is gone, 3 stays, 4 and 5 are new.
   config->staticEntryIs( keyOf( 3 ), Orla::make< NatSwTableStaticEntry >() );
   trace.take();
   auto const other = configOf( { 3, 4, 5 } );
   sm->hasNotificationActiveIs( false );
   sm->natSwTableConfigIs( other );
   EXPECT_EQ( calls( trace ), expectedCalls( 3, 1 ) );
   sm->natSwTableConfigIs( other );
   other->staticEntryDel( keyOf( 3 ) );
   EXPECT_THAT( trace.take(), IsEmpty() );
   sm->hasNotificationActiveIs( true );
   config->staticEntryDel( keyOf( 3 ) );
   EXPECT_THAT( trace.take(), IsEmpty() ) << "no longer watched";
   EXPECT_EQ( Vexa::attributeWrite( *sm, "natSwTableConfig", NatSwTableConfig::PtrConst() ), Vexa::AttrResult::done );
   EXPECT_EQ( calls( trace ), expectedCalls( 0, 2 ) );
   EXPECT_EQ( other->referenceCount(), 1U );
   EXPECT_EQ( Vexa::attributeWrite( *sm, "natSwTableStatus", status ), Vexa::AttrResult::notSupported );
   EXPECT_EQ( status->staticEntry().count(), 0U );
}

TEST( NatSwTableSm, InitialisesOncePerChange ) {
   auto const sm = Pfe::natSwTableSmFactory( nullptr, nullptr );
   Support::TraceLines trace( 6 );
   sm->initializedIs( false );
   sm->initializedIs( true );
   sm->initializedIs( true );
   EXPECT_THAT( trace.take(), ElementsAre( "6 NatSwTableSm::handleInitialized" ) );
   EXPECT_EQ( Vexa::attributeWrite( *sm, "initialized", false ), Vexa::AttrResult::done );
   EXPECT_THAT( trace.take(), ElementsAre( "6 NatSwTableSm::handleInitialized" ) );
}

// Whoever owns the state machine may let go of it while it is told something.
TEST( NatSwTableSm, GoesWhenTheHandlerThatLosesItIsDone ) {
   auto const config = configOf( { 1, 2, 3 } );
   auto sm = Pfe::natSwTableSmFactory( config, nullptr );
   unsigned lines = 0;
   Trace::enabledLevelIs( 6 );
   Trace::sinkIs( [ & ]( auto, auto, auto const & ) {
      ++lines;
      sm = nullptr;
   } );
   auto const resets = [ & ] {
      Trace::enabledLevelIs( 0 );
      Trace::sinkIs( {} );
   };
   sm->natSwTableConfigIs( configOf( { 3, 4 } ) );
   resets();
   EXPECT_FALSE( sm );
   EXPECT_EQ( lines, 2U ) << "the handler that is under way, and no other";
   EXPECT_EQ( config->referenceCount(), 1U );
}

// --- The status ------------------------------------------------------------------------------------------------------

// A concrete programmer that writes down what it is handed.
class StatusRecorder final : public Pfe::NatProgrammerIntfModeSm {
 public:
   StatusRecorder( NatSwTableStatus::Ptr const & status, Lines & lines )
      : NatProgrammerIntfModeSm( Orla::make< Pfe::NatProgrammerConfig >(), nullptr, nullptr, status ),
        lines_( lines ) {}
   void handleStaticSwTableStatus( Pfe::NatSwTableStaticKey const & key,
                                   Vexa::Optional< Pfe::NatSwTableStatusEntry > const & status ) override {
      lines_.push_back( std::to_string( key.vrfId ) + ( status ? ": " + Vexa::stringOf( status->result ) : " gone" ) );
      if ( then ) {
         then();
      }
   }
   std::function< void() > then;

 private:
   Lines & lines_;
};

NatSwTableStatus::Ptr statusOf( std::initializer_list< std::pair< U32, U8 > > results ) {
   auto const status = Orla::make< NatSwTableStatus >();
   for ( auto const & [ number, result ] : results ) {
      status->staticEntryIs( keyOf( number ), { static_cast< PfeHelper::NatHwResult >( result ) } );
   }
   return status;
}

TEST( NatProgrammerConfigSm, HandsOnEachChangeOfAStatus ) {
   Lines lines;
   auto const status = statusOf( { { 1, 0 }, { 2, 2 } } );
   auto const sm = Orla::make< StatusRecorder >( status, lines );
   EXPECT_THAT( lines, IsEmpty() ) << "the concrete programmer is not there yet";
   sm->handleAllStaticSwTableStatus();
   EXPECT_THAT( std::exchange( lines, {} ), UnorderedElementsAre( "1: 0", "2: 2" ) );
   status->staticEntryDel( keyOf( 1 ) );
   EXPECT_THAT( lines, IsEmpty() ) << "notifications are off";
   sm->hasNotificationActiveIs( true );
   status->staticEntryIs( keyOf( 1 ), { PfeHelper::NatHwResult::programmed } );
   status->staticEntryIs( keyOf( 1 ), { PfeHelper::NatHwResult::failed } );
   status->staticEntryDel( keyOf( 1 ) );
   status->staticEntryDel( keyOf( 1 ) );
   EXPECT_THAT( std::exchange( lines, {} ), ElementsAre( "1: 1", "1: 2", "1 gone" ) );

   sm->natSwTableStatusIs( statusOf( { { 2, 1 }, { 3, 4 } } ) );
   EXPECT_THAT( std::exchange( lines, {} ), ElementsAre( "2: 1", "3: 4" ) );
   sm->natSwTableStatusIs( nullptr );
   EXPECT_THAT( std::exchange( lines, {} ), UnorderedElementsAre( "2 gone", "3 gone" ) );
   sm->natSwTableStatusIs( status );
   EXPECT_THAT( std::exchange( lines, {} ), ElementsAre( "2: 2" ) );
   sm->natSwTableStatusIs( status );
   EXPECT_THAT( lines, IsEmpty() );
}

TEST( NatProgrammerConfigSm, AWalkEndsWithItsProgrammer ) {
   for ( bool const zombie : { false, true } ) {
      Lines lines;
      auto sm = Orla::make< StatusRecorder >( statusOf( { { 1, 0 }, { 2, 0 }, { 3, 0 } } ), lines );
      sm->then = [ & ] {
         if ( zombie ) {
            sm->vexaDoZombieReactors( true );
         } else {
            sm = nullptr;
         }
      };
      sm->natSwTableStatusIs( statusOf( { { 3, 1 }, { 4, 1 } } ) );
      EXPECT_EQ( lines.size(), 1U );
      EXPECT_EQ( bool( sm ), zombie );
   }
   // As does the notification of one key.
   Lines lines;
   auto const status = statusOf( {} );
   auto sm = Orla::make< StatusRecorder >( status, lines );
   sm->hasNotificationActiveIs( true );
   sm->then = [ & ] { sm = nullptr; };
   status->staticEntryIs( keyOf( 1 ), {} );
   status->staticEntryIs( keyOf( 2 ), {} );
   EXPECT_THAT( lines, ElementsAre( "1: 0" ) );
}

// --- Attributes ------------------------------------------------------------------------------------------------------

std::string attributesOf( Vexa::TypeData const & type ) {
   std::string text( type.name );
   for ( auto const & attribute : type.attributes ) {
      text += '\n' + std::string( attribute.name ) + ( attribute.read ? " read" : "" ) +
              ( attribute.write ? " write" : "" ) + ( attribute.call ? " call" : "" ) +
              ( attribute.insert && attribute.del ? " fill" : "" );
   }
   return text;
}

TEST( InterfaceModeTypes, AttributesStandInTheirOrder ) {
   Vexa::TypeData const * const types[] = { &NatSwTableSm::classType(),
                                            &Pfe::NatProgrammerConfigSm::classType(),
                                            &Pfe::NatProgrammerIntfModeSm::classType(),
                                            &Pfe::NatProgrammerStaticMap::classType(),
                                            &Pfe::NatProgrammerStaticMap::SwTableKeySet::classType(),
                                            &Pfe::NatProgrammerStaticMap::ProgrammerKeySet::classType() };
   char const * const expected[] = {
      "Pfe::NatSwTableSm\nnatSwTableConfig read write\nnatSwTableStatus read\naddStaticSwTableEntry call\n"
      "delStaticSwTableEntry call\nhandleStaticSwTableEntry call\nhandleInitialized call\ninitialized read write",
      "Pfe::NatProgrammerConfigSm\nnatProgrammerConfig read\nnatProgrammerStatus read\nnatSwTableConfig read\n"
      "natSwTableStatus read write\nhandleStaticSwTableStatus call",
      "Pfe::NatProgrammerIntfModeSm\nstaticConfigMap read call fill\nstaticStatusMap read call fill",
      "Pfe::NatProgrammerStaticMap\nprogKeyToSwTableKeysMap call fill\nswTableKeyToProgKeysMap call fill\naddDependency call\n"
      "delDependency call\nhasDependency call",
      "Pfe::NatProgrammerStaticMap::SwTableKeySet\nprogKey read\nprogEntry read write\nentry call fill",
      "Pfe::NatProgrammerStaticMap::ProgrammerKeySet\nswTableKey read\nentry call fill" };
   for ( std::size_t i = 0; i < std::size( types ); ++i ) {
      EXPECT_EQ( attributesOf( *types[ i ] ), expected[ i ] );
   }
}

}  // namespace
