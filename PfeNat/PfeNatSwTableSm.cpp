#include "PfeNat/PfeNatSwTableSm.h"

#include <Trace/Trace.h>
#include <Vexa/Type.h>

#include <array>

namespace [[gnu::visibility( "default" )]] Pfe {

namespace {

std::array const unitTypes{ &NatSwTableSm::classType() };
Vexa::Module const unitModule{ "PfeNatSwTableSm", unitTypes };
[[maybe_unused]] auto const registration = Vexa::vexaModuleIs( unitModule );

Trace::Handle const & traceHandle() {
   static Trace::Handle const handle( "PfeNatSwTableSm" );
   return handle;
}

NatSwTableConfig::StaticEntries const * entriesOf( NatSwTableConfig::PtrConst const & config ) {
   return config ? &config->staticEntry() : nullptr;
}

NatSwTableStaticEntry::PtrConst entryOrNull( NatSwTableStaticEntry::PtrConst const * entry ) {
   return entry ? *entry : nullptr;
}

}  // namespace

// --- Creation and end ------------------------------------------------------------------------------------------------

NatSwTableSm::NatSwTableSm( NatSwTableConfig::PtrConst const & natSwTableConfig,
                            NatSwTableStatus::Ptr const & natSwTableStatus )
   : natSwTableConfig_( natSwTableConfig ), natSwTableStatus_( natSwTableStatus ), configReactor_( *this ) {
   configReactor_.replacedBy( entriesOf( natSwTableConfig_ ) );
}

NatSwTableSm::~NatSwTableSm() {
   hasNotificationActiveIs( false );
   vexaDoZombieReactors( true );
}

void NatSwTableSm::vexaDoZombieReactors( bool zombie ) {
   if ( vexaZombie() != zombie ) {
      Entity::vexaDoZombieReactors( zombie );
   }
}

NatSwTableSm::Ptr NatSwTableSmIs( NatSwTableConfig::PtrConst const & natSwTableConfig,
                                  NatSwTableStatus::Ptr const & natSwTableStatus ) {
   auto const stateMachine = Orla::make< NatSwTableSm >( natSwTableConfig, natSwTableStatus );
   stateMachine->hasNotificationActiveIs( true );
   return stateMachine;
}

NatSwTableSm::Ptr natSwTableSmFactory( NatSwTableConfig::PtrConst const & natSwTableConfig,
                                       NatSwTableStatus::Ptr const & natSwTableStatus ) {
   return NatSwTableSmIs( natSwTableConfig, natSwTableStatus );
}

// --- What is watched -------------------------------------------------------------------------------------------------

void NatSwTableSm::natSwTableConfigIs( NatSwTableConfig::PtrConst natSwTableConfig ) {
   if ( natSwTableConfig != natSwTableConfig_ ) {
      natSwTableConfig_.swap( natSwTableConfig );  // the old one lives until the reactor has left it
      configReactor_.replacedBy( entriesOf( natSwTableConfig_ ) );
   }
}

void NatSwTableSm::on_staticEntry( NatSwTableStaticKey const & key, NatSwTableStaticEntry::PtrConst const * previous,
                                   NatSwTableStaticEntry::PtrConst const * current ) {
   handleStaticSwTableEntry( key, entryOrNull( previous ), entryOrNull( current ) );
}

// --- Handlers --------------------------------------------------------------------------------------------------------

void NatSwTableSm::handleStaticSwTableEntry( NatSwTableStaticKey const & key,
                                             NatSwTableStaticEntry::PtrConst const & oldEntry,
                                             NatSwTableStaticEntry::PtrConst const & newEntry ) {
   TRACE( traceHandle(), 6, "NatSwTableSm::", "handleStaticSwTableEntry" );
   if ( newEntry ) {
      addStaticSwTableEntry( key, newEntry );
   } else if ( oldEntry ) {
      delStaticSwTableEntry( key, oldEntry );
   }
}

void NatSwTableSm::addStaticSwTableEntry( NatSwTableStaticKey const &, NatSwTableStaticEntry::PtrConst const & ) {
   TRACE( traceHandle(), 6, "NatSwTableSm::", "addStaticSwTableEntry" );
}

void NatSwTableSm::delStaticSwTableEntry( NatSwTableStaticKey const &, NatSwTableStaticEntry::PtrConst const & ) {
   TRACE( traceHandle(), 6, "NatSwTableSm::", "delStaticSwTableEntry" );
}

void NatSwTableSm::handleInitialized() { TRACE( traceHandle(), 6, "NatSwTableSm::", "handleInitialized" ); }

void NatSwTableSm::initializedIs( bool initialized ) {
   if ( initialized != initialized_ ) {
      initialized_ = initialized;
      handleInitialized();
   }
}

// --- Attribute table -------------------------------------------------------------------------------------------------

Vexa::TypeData const & NatSwTableSm::classType() {
   using Entity = Orla::Entity;
   using Sm = NatSwTableSm;
   static constexpr Vexa::Attribute< Entity > attributes[] = {
      Vexa::attribute< Entity, &Sm::natSwTableConfig, &Sm::natSwTableConfigIs >( "natSwTableConfig" ),
      Vexa::readOnlyAttribute< Entity, &Sm::natSwTableStatus >( "natSwTableStatus" ),
      Vexa::methodAttribute< Entity, &Sm::addStaticSwTableEntry >( "addStaticSwTableEntry" ),
      Vexa::methodAttribute< Entity, &Sm::delStaticSwTableEntry >( "delStaticSwTableEntry" ),
      Vexa::methodAttribute< Entity, &Sm::handleStaticSwTableEntry >( "handleStaticSwTableEntry" ),
      Vexa::methodAttribute< Entity, &Sm::handleInitialized >( "handleInitialized" ),
      Vexa::attribute< Entity, &Sm::initialized, &Sm::initializedIs >( "initialized" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatSwTableSm",
                                         .attributes = attributes,
                                         .construct = Vexa::constructFromArguments< &NatSwTableSmIs > };
   return type;
}

}  // namespace Pfe
