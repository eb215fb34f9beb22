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

namespace {

// What a rule counts for; without an entry as one without VLAN.
U16 vlanOf( NatProgrammerStaticEntry::PtrConst const & entry ) { return entry ? entry->vlanId() : U16{ 0 }; }

}  // namespace

void NatProgrammerStaticMap::SwTableKeySet::progEntryIs( NatProgrammerStaticEntry::PtrConst const & progEntry ) {
   if ( progEntry_ == progEntry ) {
      return;
   }
   auto const previous = std::exchange( progEntry_, progEntry );
   if ( map_ ) {
      entry_.forEach(
         [ & ]( auto const & swTableKey ) { map_->moveUser( swTableKey, progKey_, previous, progEntry ); } );
   }
}

void NatProgrammerStaticMap::SwTableKeySet::entryDel( NatSwTableStaticKey const & swTableKey ) {
   if ( map_ && entry_.has( swTableKey ) ) {
      map_->endCounting( swTableKey );
   }
   entry_.del( swTableKey );
}

void NatProgrammerStaticMap::SwTableKeySet::entryDelAll() {
   endCounting();
   entry_.delAll();
}

void NatProgrammerStaticMap::SwTableKeySet::endCounting() const {
   if ( map_ ) {
      entry_.forEach( [ & ]( auto const & swTableKey ) { map_->endCounting( swTableKey ); } );
   }
}

void NatProgrammerStaticMap::ProgrammerKeySet::entryIs( NatProgrammerStaticKey const & progKey ) {
   isCounted_ = false;
   entry_.is( progKey );
}

void NatProgrammerStaticMap::ProgrammerKeySet::entryDel( NatProgrammerStaticKey const & progKey ) {
   isCounted_ = false;
   entry_.del( progKey );
}

void NatProgrammerStaticMap::ProgrammerKeySet::entryDelAll() {
   isCounted_ = false;
   entry_.delAll();
}

NatProgrammerStaticMap::SwTableKeySet::Ptr
NatProgrammerStaticMap::progKeyToSwTableKeysMapIs( NatProgrammerStaticKey const & progKey ) {
   if ( auto const * const known = progKeyToSwTableKeysMap_.find( progKey ) ) {
      return *known;
   }
   auto const set = Orla::make< SwTableKeySet >( progKey );
   set->map_ = this;
   progKeyToSwTableKeysMap_.is( progKey, set );
   return set;
}

void NatProgrammerStaticMap::progKeyToSwTableKeysMapDel( NatProgrammerStaticKey const & progKey ) {
   if ( auto const set = progKeyToSwTableKeysMap( progKey ) ) {
      set->endCounting();
      set->map_ = nullptr;
      progKeyToSwTableKeysMap_.del( progKey );
   }
}

void NatProgrammerStaticMap::progKeyToSwTableKeysMapDelAll() {
   progKeyToSwTableKeysMap_.forEach( [ & ]( auto const &, SwTableKeySet::Ptr const & set ) {
      set->endCounting();
      set->map_ = nullptr;
   } );
   progKeyToSwTableKeysMap_.delAll();
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

void NatProgrammerStaticMap::moveUser( NatSwTableStaticKey const & swTableKey, NatProgrammerStaticKey const & progKey,
                                       NatProgrammerStaticEntry::PtrConst const & from,
                                       NatProgrammerStaticEntry::PtrConst const & to ) {
   auto const * const progKeys = swTableKeyToProgKeysMap_.find( swTableKey );
   if ( progKeys && ( *progKeys )->isCounted_ && ( *progKeys )->entryHas( progKey ) ) {
      ( *progKeys )->vlanUsers_.del( vlanOf( from ) );
      ( *progKeys )->vlanUsers_.add( vlanOf( to ) );
   }
}

void NatProgrammerStaticMap::endCounting( NatSwTableStaticKey const & swTableKey ) {
   if ( auto const * const progKeys = swTableKeyToProgKeysMap_.find( swTableKey ) ) {
      ( *progKeys )->isCounted_ = false;
   }
}

void NatProgrammerStaticMap::addDependency( NatSwTableStaticKey const & swTableKey,
                                            NatProgrammerStaticKey const & progKey,
                                            NatProgrammerStaticEntry::PtrConst const & progEntry ) {
   TRACE( traceHandle(), 6, "NatProgrammerStaticMap::", "addDependency", ", swTableKey: ", swTableKey,
          ", progKey: ", progKey );
   auto const swTableKeys = progKeyToSwTableKeysMapIs( progKey );
   swTableKeys->progEntryIs( progEntry );
   swTableKeys->entryIs( swTableKey );
   auto const progKeys = swTableKeyToProgKeysMapIs( swTableKey );
   if ( progKeys->entry_.is( progKey ) ) {
      progKeys->vlanUsers_.add( vlanOf( progEntry ) );
   }
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
   swTableKeys->entry_.del( swTableKey );
   progKeys->entry_.del( progKey );
   if ( progKeys->isCounted_ ) {
      progKeys->vlanUsers_.del( vlanOf( swTableKeys->progEntry() ) );
   }
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
         // Asked only when it is known to fail.
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
   auto const progKeys = staticConfigMap_->swTableKeyToProgKeysMap( swTableKey );
   if ( auto const * const vlanIds = progKeys->vlanIds() ) {
      swTableEntry->vlanIdsAre( *vlanIds );
   } else {
      for ( auto const vlanId : getVlanIdsForSwTableEntry( staticConfigMap_, swTableKey ) ) {
         swTableEntry->vlanIdIs( vlanId );
      }
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
