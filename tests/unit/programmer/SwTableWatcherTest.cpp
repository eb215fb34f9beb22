// The watchers of the software-table configuration and status: changes of single keys, and of the whole collection.
#include "PfeNat/PfeNatProgrammerIntfModeSm.h"
#include "PfeNat/PfeNatSwTableSm.h"

#include <tests/support/Programmer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

namespace {

using Pfe::NatSwTableConfig;
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

// The handlers only trace, so what they were called for is seen in how often each was called: "+" an add, "-" a delete.
std::string calls( Support::TraceLines & trace ) {
   std::string text;
   std::size_t handled = 0;
   for ( auto const & line : trace.take() ) {
      handled += line == "6 NatSwTableSm::handleStaticSwTableEntry";
      text += line == "6 NatSwTableSm::addStaticSwTableEntry"   ? "+"
              : line == "6 NatSwTableSm::delStaticSwTableEntry" ? "-"
                                                                : "";
   }
   EXPECT_EQ( handled, text.size() );
   std::ranges::sort( text );
   return text;
}

TEST( NatSwTableSm, TellsAddsAndDeletes ) {
   auto const config = configOf( { 1, 2, 3 } );
   Support::TraceLines trace( 6 );
   auto const sm = Pfe::natSwTableSmFactory( config, nullptr );
   EXPECT_EQ( calls( trace ), "+++" );
   config->staticEntryIs( keyOf( 1 ), Orla::make< NatSwTableStaticEntry >() );
   EXPECT_EQ( calls( trace ), "+" );
   config->staticEntryDel( keyOf( 1 ) );
   EXPECT_EQ( calls( trace ), "-" );

   // Another configuration: key 2 is gone, 3 stays, 4 and 5 are new.
   auto const other = configOf( { 3, 4, 5 } );
   sm->hasNotificationActiveIs( false );
   sm->natSwTableConfigIs( other );
   EXPECT_EQ( calls( trace ), "+++-" );
   sm->natSwTableConfigIs( other );
   other->staticEntryDel( keyOf( 3 ) );
   EXPECT_THAT( trace.take(), IsEmpty() );
   sm->hasNotificationActiveIs( true );
   config->staticEntryDel( keyOf( 3 ) );
   EXPECT_THAT( trace.take(), IsEmpty() ) << "no longer watched";
   sm->natSwTableConfigIs( nullptr );
   EXPECT_EQ( calls( trace ), "--" );

   sm->initializedIs( false );
   sm->initializedIs( true );
   sm->initializedIs( true );
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
   sm->natSwTableConfigIs( configOf( { 3, 4 } ) );
   Trace::enabledLevelIs( 0 );
   Trace::sinkIs( {} );
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
   status->staticEntryDel( keyOf( 1 ) );
   status->staticEntryDel( keyOf( 1 ) );
   EXPECT_THAT( std::exchange( lines, {} ), ElementsAre( "1: 1", "1 gone" ) );

   sm->natSwTableStatusIs( statusOf( { { 2, 1 }, { 3, 4 } } ) );
   EXPECT_THAT( std::exchange( lines, {} ), ElementsAre( "2: 1", "3: 4" ) );
   sm->natSwTableStatusIs( nullptr );
   EXPECT_THAT( std::exchange( lines, {} ), UnorderedElementsAre( "2 gone", "3 gone" ) );
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
}

}  // namespace
