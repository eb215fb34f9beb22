#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include "PfeNat/PfeNatSwTableProgrammerSm/UnitGlobals.h"

#include <Asic/SwTableWorkaround.h>
#include <Trace/RingTrace.h>
#include <Trace/Trace.h>
#include <Vexa/MemoryManager.h>
#include <Vexa/Type.h>

#include <array>
#include <cstdlib>

namespace [[gnu::visibility( "default" )]] Pfe {

// --- Once per process ------------------------------------------------------------------------------------------------

Asic::EntryHandle::PtrConst const dontCareHandle = Asic::SwTableWorkaround::dontCareHandle( 0 );

Trace::Handle const & traceHandle() {
   static Trace::Handle const handle( "PfeNatSwTableProgrammerSm" );
   return handle;
}

namespace {

std::array const unitTypes{ &NatSwTableProgrammerSm::classType(), &NatIdManager::classType(),
                            &PfeNatProgrammerBaseHelper::classType(), &NatMcastProgrammerHelper::classType(),
                            &DynamicNatProgrammerHelper::classType() };
Vexa::Module const unitModule{ "PfeNatSwTableProgrammerSm", unitTypes };

[[maybe_unused]] auto const registration = Vexa::vexaModuleIs( unitModule );
[[maybe_unused]] auto const agentNameIsHandedOver =
   ( Vexa::memoryManagerAgentNameIs( std::getenv( "AGENT_PROCESS_NAME" ) ), true );

}  // namespace

// --- Creation and end ------------------------------------------------------------------------------------------------

NatSwTableProgrammerSm::NatSwTableProgrammerSm( NatProgrammerConfig::PtrConst const & natProgrammerConfig,
                                                NatProgrammerStatus::Ptr const & natProgrammerStatus,
                                                Ip::Nat::HwCapabilities::PtrConst const & hwCapabilities,
                                                NatIdInfo::Ptr const & natIdInfo )
   : NatBaseProgrammerSm( natProgrammerConfig, natProgrammerStatus ),
     hwCapabilities_( hwCapabilities ),
     natIdInfo_( natIdInfo ) {}

NatSwTableProgrammerSm::~NatSwTableProgrammerSm() {
   hasNotificationActiveIs( false );
   vexaDoZombieReactors( true );
   // The manager goes before the helpers and tables; these go in the reverse order of their declaration.
   natIdManager_ = nullptr;
}

void NatSwTableProgrammerSm::vexaDoZombieReactors( bool zombie ) {
   if ( vexaZombie() != zombie ) {
      NatBaseProgrammerSm::vexaDoZombieReactors( zombie );
   }
}

NatSwTableProgrammerSm::Ptr NatSwTableProgrammerSmIs( NatProgrammerConfig::PtrConst const & natProgrammerConfig,
                                                      NatProgrammerStatus::Ptr const & natProgrammerStatus,
                                                      Ip::Nat::HwCapabilities::PtrConst const & hwCapabilities,
                                                      NatIdInfo::Ptr const & natIdInfo ) {
   auto const programmer =
      Orla::make< NatSwTableProgrammerSm >( natProgrammerConfig, natProgrammerStatus, hwCapabilities, natIdInfo );
   programmer->hasNotificationActiveIs( true );
   return programmer;
}

NatSwTableProgrammerSm::Ptr natSwTableProgrammerSmFactory( NatProgrammerConfig::PtrConst const & natProgrammerConfig,
                                                           NatProgrammerStatus::Ptr const & natProgrammerStatus,
                                                           Ip::Nat::HwCapabilities::PtrConst const & hwCapabilities,
                                                           NatIdInfo::Ptr const & natIdInfo ) {
   return NatSwTableProgrammerSmIs( natProgrammerConfig, natProgrammerStatus, hwCapabilities, natIdInfo );
}

// --- Attributes ------------------------------------------------------------------------------------------------------

NatIdManager::Ptr NatSwTableProgrammerSm::natIdManagerIs( NatIdInfo::Ptr const & natIdInfo ) {
   if ( !natIdManager_ || natIdManager_->natIdInfo() != natIdInfo ) {
      natIdManager_ = Orla::make< NatIdManager >( natIdInfo );
   }
   return natIdManager_;
}

NatIdManager::Ptr NatSwTableProgrammerSm::natIdManagerDel() { return std::exchange( natIdManager_, nullptr ); }

void NatSwTableProgrammerSm::initializedIs( bool v ) {
   if ( v != initialized_ ) {
      initialized_ = v;
      handleInitialized();
   }
}

void NatSwTableProgrammerSm::handleInitialized() {
   TRACE( traceHandle(), 6, "handleInitialized", " initialized=", initialized() );
   if ( !initialized() ) {
      return;
   }
   if ( natTrapConfig() ) {
      natTrapConfig()->trapAclDelAll();
   }
   if ( natIdInfo() ) {
      natIdManagerIs( natIdInfo() );
   }
}

// --- Profiles and replay ---------------------------------------------------------------------------------------------

void NatSwTableProgrammerSm::setNatProfile( U16 vlanId, U16 profileId ) {
   TRACE( traceHandle(), 1, "setNatProfile", ", vlan: ", vlanId, ", profile: ", profileId );
   natProfileConfig()->vlanIdToProfileIdIs( vlanId, profileId );
}

void NatSwTableProgrammerSm::clearNatProfile( U16 vlanId ) {
   TRACE( traceHandle(), 1, "clearNatProfile", ", vlan: ", vlanId );
   natProfileConfig()->vlanIdToProfileIdDel( vlanId );
}

void NatSwTableProgrammerSm::replayReconcile() {
   TRACE( traceHandle(), 8, "NatSwTableProgrammerSm::", "replayReconcile" );
   Trace::RingTrace::defaultHandle().message( "NatSwTableProgrammerSm::", "replayReconcile" );
   if ( mcastProgrammerHelper() ) {
      mcastProgrammerHelper()->handleStartup();
   }
   if ( natIdManager() ) {
      natIdManager()->sweepAndCleanupNatIds();
   }
}

// --- Attribute table -------------------------------------------------------------------------------------------------

Vexa::TypeData const & NatSwTableProgrammerSm::classType() {
   using Entity = Orla::Entity;
   using Sm = NatSwTableProgrammerSm;
   static constexpr Vexa::Attribute< Entity > attributes[] = {
      Vexa::readOnlyAttribute< Entity, &Sm::hwCapabilities >( "hwCapabilities" ),
      Vexa::readOnlyAttribute< Entity, &Sm::natIdInfo >( "natIdInfo" ),
      Vexa::attribute< Entity, &Sm::aclNameIdTable, &Sm::aclNameIdTableIs >( "aclNameIdTable" ),
      Vexa::attribute< Entity, &Sm::egrSourceNatUcRewriteTable, &Sm::egrSourceNatUcRewriteTableIs >(
         "egrSourceNatUcRewriteTable" ),
      Vexa::attribute< Entity, &Sm::egrDestinationNatUcRewriteTable, &Sm::egrDestinationNatUcRewriteTableIs >(
         "egrDestinationNatUcRewriteTable" ),
      Vexa::attribute< Entity, &Sm::egrNatMcRewriteTable, &Sm::egrNatMcRewriteTableIs >( "egrNatMcRewriteTable" ),
      Vexa::attribute< Entity, &Sm::ingStaticNatTable, &Sm::ingStaticNatTableIs >( "ingStaticNatTable" ),
      Vexa::attribute< Entity, &Sm::ingTwiceNatTable, &Sm::ingTwiceNatTableIs >( "ingTwiceNatTable" ),
      Vexa::attribute< Entity, &Sm::ingDynamicSnaptTable, &Sm::ingDynamicSnaptTableIs >( "ingDynamicSnaptTable" ),
      Vexa::attribute< Entity, &Sm::ingDynamicDnaptTable, &Sm::ingDynamicDnaptTableIs >( "ingDynamicDnaptTable" ),
      Vexa::attribute< Entity, &Sm::ingDynamicSnatAddrOnlyTable, &Sm::ingDynamicSnatAddrOnlyTableIs >(
         "ingDynamicSnatAddrOnlyTable" ),
      Vexa::attribute< Entity, &Sm::ingDynamicDnatAddrOnlyTable, &Sm::ingDynamicDnatAddrOnlyTableIs >(
         "ingDynamicDnatAddrOnlyTable" ),
      Vexa::attribute< Entity, &Sm::natTrapConfig, &Sm::natTrapConfigIs >( "natTrapConfig" ),
      Vexa::attribute< Entity, &Sm::natProfileConfig, &Sm::natProfileConfigIs >( "natProfileConfig" ),
      Vexa::instantiatingAttribute< Entity, &Sm::natIdManager, &Sm::natIdManagerIs, &Sm::natIdManagerDel >(
         "natIdManager" ),
      Vexa::attribute< Entity, &Sm::mcastProgrammerHelper, &Sm::mcastProgrammerHelperIs >( "mcastProgrammerHelper" ),
      Vexa::attribute< Entity, &Sm::dynamicNatProgrammerHelper, &Sm::dynamicNatProgrammerHelperIs >(
         "dynamicNatProgrammerHelper" ),
      Vexa::methodAttribute< Entity, &Sm::staticNatMatchKey >( "staticNatMatchKey" ),
      Vexa::methodAttribute< Entity, &Sm::twiceNatMatchKey >( "twiceNatMatchKey" ),
      Vexa::methodAttribute< Entity, &Sm::deleteAllConnections >( "deleteAllConnections" ),
      Vexa::methodAttribute< Entity, &Sm::addAllConnections >( "addAllConnections" ),
      Vexa::attribute< Entity, &Sm::initialized, &Sm::initializedIs >( "initialized" ),
      Vexa::methodAttribute< Entity, &Sm::handleInitialized >( "handleInitialized" ),
      Vexa::attribute< Entity, &Sm::cleanupInProgress, &Sm::cleanupInProgressIs >( "cleanupInProgress" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatSwTableProgrammerSm",
                                         .base = &NatBaseProgrammerSm::classType,
                                         .attributes = attributes,
                                         .construct = Vexa::constructFromArguments< &NatSwTableProgrammerSmIs > };
   return type;
}

}  // namespace Pfe
