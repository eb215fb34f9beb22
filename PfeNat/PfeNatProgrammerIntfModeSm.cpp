#include "PfeNat/PfeNatProgrammerIntfModeSm.h"

#include <IpNat/NatStatic.h>
#include <Netix/IntfId.h>
#include <Netix/IpAndPort.h>
#include <Pfe/NatConnections.h>
#include <Trace/RingTrace.h>
#include <Trace/Trace.h>
#include <Vexa/Assert.h>
#include <Vexa/InlineList.h>
#include <Vexa/Type.h>

#include <array>
#include <utility>

namespace [[gnu::visibility( "default" )]] Pfe {

using Ip::Nat::NatTarget;

namespace {

std::array const unitTypes{ &NatProgrammerIntfModeSm::classType(), &NatProgrammerStaticMap::classType(),
                            &NatProgrammerStaticMap::SwTableKeySet::classType(),
                            &NatProgrammerStaticMap::ProgrammerKeySet::classType() };
Vexa::Module const unitModule{ "PfeNatProgrammerIntfModeSm", unitTypes };
[[maybe_unused]] auto const registration = Vexa::vexaModuleIs( unitModule );

Trace::Handle const & traceHandle() {
   static Trace::Handle const handle( "PfeNatProgrammerIntfModeSm" );
   return handle;
}

}  // namespace

// --- Dependencies ----------------------------------------------------------------------------------------------------

void NatProgrammerStaticMap::SwTableKeySet::progEntryIs( NatProgrammerStaticEntry::PtrConst const & progEntry ) {
   if ( progEntry_ != progEntry ) {
      progEntry_ = progEntry;
   }
}

NatProgrammerStaticMap::SwTableKeySet::Ptr
NatProgrammerStaticMap::progKeyToSwTableKeysMapIs( NatProgrammerStaticKey const & progKey ) {
   if ( auto const * const known = progKeyToSwTableKeysMap_.find( progKey ) ) {
      return *known;
   }
   auto const set = Orla::make< SwTableKeySet >( progKey );
   progKeyToSwTableKeysMap_.is( progKey, set );
   return set;
}

NatProgrammerStaticMap::ProgrammerKeySet::Ptr
NatProgrammerStaticMap::swTableKeyToProgKeysMapIs( NatSwTableStaticKey const & swTableKey ) {
   if ( auto const * const known = swTableKeyToProgKeysMap_.find( swTableKey ) ) {
      return *known;
   }
   auto const set = Orla::make< ProgrammerKeySet >( swTableKey );
   swTableKeyToProgKeysMap_.is( swTableKey, set );
   return set;
}

void NatProgrammerStaticMap::addDependency( NatSwTableStaticKey const & swTableKey,
                                            NatProgrammerStaticKey const & progKey,
                                            NatProgrammerStaticEntry::PtrConst const & progEntry ) {
   TRACE( traceHandle(), 6, "NatProgrammerStaticMap::", "addDependency", ", swTableKey: ", swTableKey,
          ", progKey: ", progKey );
   auto const swTableKeys = progKeyToSwTableKeysMapIs( progKey );
   swTableKeys->progEntryIs( progEntry );
   swTableKeys->entryIs( swTableKey );
   swTableKeyToProgKeysMapIs( swTableKey )->entryIs( progKey );
}

void NatProgrammerStaticMap::delDependency( NatSwTableStaticKey const & swTableKey,
                                            NatProgrammerStaticKey const & progKey ) {
   TRACE( traceHandle(), 6, "NatProgrammerStaticMap::", "delDependency", ", swTableKey: ", swTableKey,
          ", progKey: ", progKey );
   VEXA_ASSERT( progKeyToSwTableKeysMapHas( progKey ) && progKeyToSwTableKeysMap( progKey )->entryHas( swTableKey ) );
   VEXA_ASSERT( swTableKeyToProgKeysMapHas( swTableKey ) &&
                swTableKeyToProgKeysMap( swTableKey )->entryHas( progKey ) );
   auto const swTableKeys = progKeyToSwTableKeysMap( progKey );
   auto const progKeys = swTableKeyToProgKeysMap( swTableKey );
   swTableKeys->entryDel( swTableKey );
   progKeys->entryDel( progKey );
   if ( swTableKeys->entrys() == 0 ) {
      progKeyToSwTableKeysMapDel( progKey );
   }
   if ( progKeys->entrys() == 0 ) {
      swTableKeyToProgKeysMapDel( swTableKey );
   }
}

bool NatProgrammerStaticMap::hasDependency( NatSwTableStaticKey const & swTableKey,
                                            NatProgrammerStaticKey const & progKey ) const {
   TRACE( traceHandle(), 6, "NatProgrammerStaticMap::", "hasDependency", ", swTableKey: ", swTableKey,
          ", progKey: ", progKey );
   auto const swTableKeys = progKeyToSwTableKeysMap( progKey );
   auto const progKeys = swTableKeyToProgKeysMap( swTableKey );
   return swTableKeys && progKeys && swTableKeys->entryHas( swTableKey ) && progKeys->entryHas( progKey );
}

NatProgrammerStaticMap::Ptr NatProgrammerStaticMapIs() { return Orla::make< NatProgrammerStaticMap >(); }

NatProgrammerStaticMap::Ptr natProgrammerStaticMapFactory() { return NatProgrammerStaticMapIs(); }

std::vector< Bridging::VlanId > getVlanIdsForSwTableEntry( NatProgrammerStaticMap::PtrConst const & configMap,
                                                           NatSwTableStaticKey const & swTableKey ) {
   std::vector< Bridging::VlanId > vlanIds;
   auto const progKeys = configMap->swTableKeyToProgKeysMap( swTableKey );
   if ( !progKeys ) {
      return vlanIds;
   }
   vlanIds.reserve( progKeys->entrys() );
   progKeys->entry().forEach( [ & ]( NatProgrammerStaticKey const & progKey ) {
      auto const * const swTableKeys = configMap->progKeyToSwTableKeysMap().find( progKey );
      if ( !swTableKeys ) {
         // Asked only when it is known to fail: with n interfaces this is the innermost of n^2/2 steps.
         VEXA_ASSERT( configMap->progKeyToSwTableKeysMapHas( progKey ) );
      }
      // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): the assertion has stopped what has none
      vlanIds.emplace_back( ( *swTableKeys )->progEntry()->vlanId() );
   } );
   return vlanIds;
}

// --- Creation and end ------------------------------------------------------------------------------------------------

NatProgrammerIntfModeSm::NatProgrammerIntfModeSm( NatProgrammerConfig::PtrConst const & natProgrammerConfig,
                                                  NatProgrammerStatus::Ptr const & natProgrammerStatus,
                                                  NatSwTableConfig::Ptr const & natSwTableConfig,
                                                  NatSwTableStatus::PtrConst const & natSwTableStatus )
   : NatProgrammerConfigSm( natProgrammerConfig, natProgrammerStatus, natSwTableConfig, natSwTableStatus ) {
   staticConfigMapIs();
   staticStatusMapIs();
}

NatProgrammerIntfModeSm::~NatProgrammerIntfModeSm() {
   hasNotificationActiveIs( false );
   vexaDoZombieReactors( true );
}

void NatProgrammerIntfModeSm::vexaDoZombieReactors( bool zombie ) {
   if ( vexaZombie() != zombie ) {
      NatProgrammerConfigSm::vexaDoZombieReactors( zombie );
   }
}

NatProgrammerIntfModeSm::Ptr NatProgrammerIntfModeSmIs( NatProgrammerConfig::PtrConst const & natProgrammerConfig,
                                                        NatProgrammerStatus::Ptr const & natProgrammerStatus,
                                                        NatSwTableConfig::Ptr const & natSwTableConfig,
                                                        NatSwTableStatus::PtrConst const & natSwTableStatus ) {
   auto const programmer = Orla::make< NatProgrammerIntfModeSm >( natProgrammerConfig, natProgrammerStatus,
                                                                  natSwTableConfig, natSwTableStatus );
   programmer->handleAllStaticSwTableStatus();
   programmer->replay();
   programmer->hasNotificationActiveIs( true );
   return programmer;
}

NatProgrammerIntfModeSm::Ptr natProgrammerIntfModeSmFactory( NatProgrammerConfig::PtrConst const & natProgrammerConfig,
                                                             NatProgrammerStatus::Ptr const & natProgrammerStatus,
                                                             NatSwTableConfig::Ptr const & natSwTableConfig,
                                                             NatSwTableStatus::PtrConst const & natSwTableStatus ) {
   return NatProgrammerIntfModeSmIs( natProgrammerConfig, natProgrammerStatus, natSwTableConfig, natSwTableStatus );
}

NatProgrammerStaticMap::Ptr NatProgrammerIntfModeSm::staticConfigMapIs() {
   if ( !staticConfigMap_ ) {
      staticConfigMap_ = NatProgrammerStaticMapIs();
   }
   return staticConfigMap_;
}

NatProgrammerStaticMap::Ptr NatProgrammerIntfModeSm::staticStatusMapIs() {
   if ( !staticStatusMap_ ) {
      staticStatusMap_ = NatProgrammerStaticMapIs();
   }
   return staticStatusMap_;
}

NatProgrammerStaticMap::Ptr NatProgrammerIntfModeSm::staticConfigMapDel() {
   return std::exchange( staticConfigMap_, nullptr );
}

NatProgrammerStaticMap::Ptr NatProgrammerIntfModeSm::staticStatusMapDel() {
   return std::exchange( staticStatusMap_, nullptr );
}

// --- Static connections ----------------------------------------------------------------------------------------------

namespace {

// The ring names the table programmer, on purpose: both programmers leave the same message for the same request.
void traceStaticRequest( char const * operation, NatProgrammerStaticKey const & key ) {
   TRACE( traceHandle(), 6, operation, ", natIntf: ", key.natIntf, ", key: ", key.key.stringValue() );
   Trace::RingTrace::defaultHandle().message( "NatSwTableProgrammerSm::", operation,
                                              ", natIntf: ", Netix::ShortName{ key.natIntf }, ", key: ", key.key );
}

using SwTableKeys = Vexa::InlineList< NatSwTableStaticKey, 2 >;

// The software-table keys that a rule feeds, one per side that is translated. Throws Vexa::RangeException for a VLAN id
// above 4094.
SwTableKeys swTableKeysOf( NatProgrammerStaticKey const & progKey, NatProgrammerStaticEntry::PtrConst const & entry ) {
   auto const & connection = entry->connection();
   Bridging::VlanIdOrNone const vlanId( entry->vlanId() );
   Netix::IpAndPort first{ progKey.key.ip, progKey.key.port };
   Netix::IpAndPort second = connection.translated;
   if ( connection.target != NatTarget::source ) {
      std::swap( first, second );
   }
   bool const mcast = staticConnectionIsMulticast( progKey, entry, true );
   NatSwTableStaticKey const forward{ .aclName = progKey.key.aclName,
                                      .vrfId = entry->vrfId(),
                                      .ipAndPortOld = first,
                                      .ipAndPortNew = second,
                                      .vlanId = {},
                                      .reverse = false,
                                      .protocol = connection.protocol,
                                      .mcast = mcast };
   auto reverse = forward;
   std::swap( reverse.ipAndPortOld, reverse.ipAndPortNew );
   reverse.vlanId = vlanId;
   reverse.reverse = true;
   SwTableKeys keys;
   for ( auto const target : getStaticConnectionTargets( connection.target, mcast ) ) {
      keys.push( target == NatTarget::source ? forward : reverse );
   }
   return keys;
}

}  // namespace

void NatProgrammerIntfModeSm::writeSwTableEntry( NatSwTableStaticKey const & swTableKey,
                                                 NatProgrammerStaticEntry::PtrConst const & entry ) {
   auto const swTableEntry = Orla::make< NatSwTableStaticEntry >();
   swTableEntry->programmerEntryIs( entry );
   swTableEntry->fragmentIs( natProgrammerConfig()->fragmentationEnabled() && swTableKey.ipAndPortOld.port != 0 );
   for ( auto const vlanId : getVlanIdsForSwTableEntry( staticConfigMap_, swTableKey ) ) {
      swTableEntry->vlanIdIs( vlanId );
   }
   natSwTableConfig()->staticEntryIs( swTableKey, swTableEntry );
}

void NatProgrammerIntfModeSm::addStaticConnection( NatProgrammerStaticKey const & key,
                                                   NatProgrammerStaticEntry::PtrConst const & entry ) {
   traceStaticRequest( "addStaticConnection", key );
   for ( auto const & swTableKey : swTableKeysOf( key, entry ) ) {
      staticConfigMap_->addDependency( swTableKey, key, entry );
      writeSwTableEntry( swTableKey, entry );
   }
}

// What the rule fed before stays, on purpose: the base deletes with the old entry where keys change.
void NatProgrammerIntfModeSm::updateStaticConnection( NatProgrammerStaticKey const & key,
                                                      NatProgrammerStaticEntry::PtrConst const & entry ) {
   TRACE( traceHandle(), 6, "NatProgrammerIntfModeSm::", "updateStaticConnection" );
   addStaticConnection( key, entry );
}

void NatProgrammerIntfModeSm::deleteStaticConnection( NatProgrammerStaticKey const & key,
                                                      NatProgrammerStaticEntry::PtrConst const & entry ) {
   traceStaticRequest( "deleteStaticConnection", key );
   for ( auto const & swTableKey : swTableKeysOf( key, entry ) ) {
      staticConfigMap_->delDependency( swTableKey, key );
      if ( staticConfigMap_->swTableKeyToProgKeysMapHas( swTableKey ) ) {
         // Keeps naming the entry that goes, not one of those that stay.
         writeSwTableEntry( swTableKey, entry );
      } else {
         natSwTableConfig()->staticEntryDel( swTableKey );
      }
   }
}

// --- What interface mode does not program ----------------------------------------------------------------------------

void NatProgrammerIntfModeSm::setNatProfile( U16, U16 ) { VEXA_ASSERT( false && "profile config mode not supported" ); }

void NatProgrammerIntfModeSm::clearNatProfile( U16 ) { VEXA_ASSERT( false && "profile config mode not supported" ); }

void NatProgrammerIntfModeSm::addTwiceConnection( NatProgrammerTwiceKey const &,
                                                  NatProgrammerTwiceEntry::PtrConst const & ) {
   TRACE( traceHandle(), 6, "NatProgrammerIntfModeSm::", "addTwiceConnection" );
}

void NatProgrammerIntfModeSm::updateTwiceConnection( NatProgrammerTwiceKey const &,
                                                     NatProgrammerTwiceEntry::PtrConst const & ) {
   TRACE( traceHandle(), 6, "NatProgrammerIntfModeSm::", "updateTwiceConnection" );
}

void NatProgrammerIntfModeSm::deleteTwiceConnection( NatProgrammerTwiceKey const &,
                                                     NatProgrammerTwiceEntry::PtrConst const & ) {
   TRACE( traceHandle(), 6, "NatProgrammerIntfModeSm::", "deleteTwiceConnection" );
}

void NatProgrammerIntfModeSm::addDynamicConnection( NatProgrammerDynamicKey const &,
                                                    NatProgrammerDynamicEntry::PtrConst const & ) {
   TRACE( traceHandle(), 6, "NatProgrammerIntfModeSm::", "addDynamicConnection" );
}

void NatProgrammerIntfModeSm::updateDynamicConnection( NatProgrammerDynamicKey const &,
                                                       NatProgrammerDynamicEntry::PtrConst const & ) {
   TRACE( traceHandle(), 6, "NatProgrammerIntfModeSm::", "updateDynamicConnection" );
}

void NatProgrammerIntfModeSm::deleteDynamicConnection( NatProgrammerDynamicKey const &,
                                                       NatProgrammerDynamicEntry::PtrConst const & ) {
   TRACE( traceHandle(), 6, "NatProgrammerIntfModeSm::", "deleteDynamicConnection" );
}

void NatProgrammerIntfModeSm::addTrap( NatProgrammerTrapKey const &, NatProgrammerTrapEntry::PtrConst const & ) {
   TRACE( traceHandle(), 6, "NatProgrammerIntfModeSm::", "addTrap" );
}

void NatProgrammerIntfModeSm::deleteTrap( NatProgrammerTrapKey const &, NatProgrammerTrapEntry::PtrConst const & ) {
   TRACE( traceHandle(), 6, "NatProgrammerIntfModeSm::", "deleteTrap" );
}

void NatProgrammerIntfModeSm::handleStaticSwTableStatus( NatSwTableStaticKey const &,
                                                         Vexa::Optional< NatSwTableStatusEntry > const & ) {
   TRACE( traceHandle(), 6, "NatProgrammerIntfModeSm::", "handleStaticSwTableStatus" );
}

// --- Attribute tables ------------------------------------------------------------------------------------------------

Vexa::TypeData const & NatProgrammerStaticMap::SwTableKeySet::classType() {
   using Set = SwTableKeySet;
   static constexpr Vexa::Attribute< Orla::Entity > attributes[] = {
      Vexa::readOnlyAttribute< Orla::Entity, &Set::progKey >( "progKey" ),
      Vexa::attribute< Orla::Entity, &Set::progEntry, &Set::progEntryIs >( "progEntry" ),
      Vexa::collectionAttribute< Orla::Entity, &Set::entryHas, &Set::entryIs, &Set::entryDel >( "entry" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatProgrammerStaticMap::SwTableKeySet",
                                         .attributes = attributes };
   return type;
}

Vexa::TypeData const & NatProgrammerStaticMap::ProgrammerKeySet::classType() {
   using Set = ProgrammerKeySet;
   static constexpr Vexa::Attribute< Orla::Entity > attributes[] = {
      Vexa::readOnlyAttribute< Orla::Entity, &Set::swTableKey >( "swTableKey" ),
      Vexa::collectionAttribute< Orla::Entity, &Set::entryHas, &Set::entryIs, &Set::entryDel >( "entry" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatProgrammerStaticMap::ProgrammerKeySet",
                                         .attributes = attributes };
   return type;
}

Vexa::TypeData const & NatProgrammerStaticMap::classType() {
   using Map = NatProgrammerStaticMap;
   using SwTableKeysOf = SwTableKeySet::Ptr ( Map::* )( NatProgrammerStaticKey const & ) const;
   using ProgKeysOf = ProgrammerKeySet::Ptr ( Map::* )( NatSwTableStaticKey const & ) const;
   static constexpr Vexa::Attribute< Orla::Entity > attributes[] = {
      Vexa::collectionAttribute< Orla::Entity, static_cast< SwTableKeysOf >( &Map::progKeyToSwTableKeysMap ),
                                 &Map::progKeyToSwTableKeysMapIs, &Map::progKeyToSwTableKeysMapDel >(
         "progKeyToSwTableKeysMap" ),
      Vexa::collectionAttribute< Orla::Entity, static_cast< ProgKeysOf >( &Map::swTableKeyToProgKeysMap ),
                                 &Map::swTableKeyToProgKeysMapIs, &Map::swTableKeyToProgKeysMapDel >(
         "swTableKeyToProgKeysMap" ),
      Vexa::methodAttribute< Orla::Entity, &Map::addDependency >( "addDependency" ),
      Vexa::methodAttribute< Orla::Entity, &Map::delDependency >( "delDependency" ),
      Vexa::methodAttribute< Orla::Entity, &Map::hasDependency >( "hasDependency" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatProgrammerStaticMap",
                                         .attributes = attributes,
                                         .construct = Vexa::constructFromArguments< &NatProgrammerStaticMapIs > };
   return type;
}

Vexa::TypeData const & NatProgrammerIntfModeSm::classType() {
   using Entity = Orla::Entity;
   using Sm = NatProgrammerIntfModeSm;
   static constexpr Vexa::Attribute< Entity > attributes[] = {
      Vexa::instantiatingAttribute< Entity, &Sm::staticConfigMap, &Sm::staticConfigMapIs, &Sm::staticConfigMapDel >(
         "staticConfigMap" ),
      Vexa::instantiatingAttribute< Entity, &Sm::staticStatusMap, &Sm::staticStatusMapIs, &Sm::staticStatusMapDel >(
         "staticStatusMap" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatProgrammerIntfModeSm",
                                         .base = &NatProgrammerConfigSm::classType,
                                         .attributes = attributes,
                                         .construct = Vexa::constructFromArguments< &NatProgrammerIntfModeSmIs > };
   return type;
}

}  // namespace Pfe
