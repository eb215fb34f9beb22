#include <Pfe/NatBaseProgrammerSm.h>

#include <Pfe/RuleMemory.h>
#include <Vexa/KeysOf.h>
#include <Vexa/Type.h>

namespace [[gnu::visibility( "default" )]] Pfe {

namespace {

// One description per kind of rules: what it is keyed by, where it is configured, the operations that take it, where
// its results are, and the hash constants of what is remembered of it.

struct StaticKind {
   using Key = NatProgrammerStaticKey;
   using Entry = NatProgrammerStaticEntry;
   static constexpr Vexa::MapOf< NatProgrammerConfig, NatProgrammerConfig::StaticEntries > configured =
      &NatProgrammerConfig::staticEntry;
   static constexpr auto add = &NatBaseProgrammerSm::addStaticConnection;
   static constexpr auto update = &NatBaseProgrammerSm::updateStaticConnection;
   static constexpr auto del = &NatBaseProgrammerSm::deleteStaticConnection;
   static constexpr Vexa::MapOf< NatProgrammerStatus, NatProgrammerStatus::StaticStatus > status =
      &NatProgrammerStatus::staticStatus;
   static constexpr auto statusIs = &NatProgrammerStatus::staticStatusIs;
   static constexpr auto statusDel = &NatProgrammerStatus::staticStatusDel;
   static constexpr U32 rememberedConstant = 0xB5470917;
   static constexpr U32 refusedConstant = 0x9216D5D9;
};

struct TwiceKind {
   using Key = NatProgrammerTwiceKey;
   using Entry = NatProgrammerTwiceEntry;
   static constexpr Vexa::MapOf< NatProgrammerConfig, NatProgrammerConfig::TwiceEntries > configured =
      &NatProgrammerConfig::twiceEntry;
   static constexpr auto add = &NatBaseProgrammerSm::addTwiceConnection;
   static constexpr auto update = &NatBaseProgrammerSm::updateTwiceConnection;
   static constexpr auto del = &NatBaseProgrammerSm::deleteTwiceConnection;
   static constexpr Vexa::MapOf< NatProgrammerStatus, NatProgrammerStatus::TwiceStatus > status =
      &NatProgrammerStatus::twiceStatus;
   static constexpr auto statusIs = &NatProgrammerStatus::twiceStatusIs;
   static constexpr auto statusDel = &NatProgrammerStatus::twiceStatusDel;
   static constexpr U32 rememberedConstant = 0x8979FB1B;
   static constexpr U32 refusedConstant = 0xD1310BA6;
};

struct DynamicKind {
   using Key = NatProgrammerDynamicKey;
   using Entry = NatProgrammerDynamicEntry;
   static constexpr Vexa::MapOf< NatProgrammerConfig, NatProgrammerConfig::DynamicEntries > configured =
      &NatProgrammerConfig::dynamicEntry;
   static constexpr auto add = &NatBaseProgrammerSm::addDynamicConnection;
   static constexpr auto update = &NatBaseProgrammerSm::updateDynamicConnection;
   static constexpr auto del = &NatBaseProgrammerSm::deleteDynamicConnection;
   static constexpr Vexa::MapOf< NatProgrammerStatus, NatProgrammerStatus::DynamicStatus > status =
      &NatProgrammerStatus::dynamicStatus;
   static constexpr auto statusIs = &NatProgrammerStatus::dynamicStatusIs;
   static constexpr auto statusDel = &NatProgrammerStatus::dynamicStatusDel;
   static constexpr U32 rememberedConstant = 0x98DFB5AC;
   static constexpr U32 refusedConstant = 0x2FFD72DB;
};

template< class Pointer > Pointer valueOrNull( Pointer const * pointer ) { return pointer ? *pointer : Pointer(); }

NatTrapKey trapKeyOf( NatProgrammerTrapKey const & key, NatProgrammerTrapEntry const & entry ) {
   return { key.key.aclName, key.key.poolId, entry.rule().ruleId };
}

}  // namespace

struct NatBaseProgrammerSm::Memory {
   explicit Memory( NatBaseProgrammerSm & programmer )
      : staticRules( programmer, refusals ), twiceRules( programmer, refusals ), dynamicRules( programmer, refusals ) {}

   auto & of( NatProgrammerStaticKey const & ) { return staticRules; }
   auto & of( NatProgrammerTwiceKey const & ) { return twiceRules; }
   auto & of( NatProgrammerDynamicKey const & ) { return dynamicRules; }

   // Calls function( rules ) for each kind, in the order in which they are handed over.
   template< class Function > void forEachKind( Function && function ) {
      function( staticRules );
      function( twiceRules );
      function( dynamicRules );
   }

   Refusals refusals;
   RuleMemory< StaticKind > staticRules;
   RuleMemory< TwiceKind > twiceRules;
   RuleMemory< DynamicKind > dynamicRules;
   Vexa::HashMap< NatProgrammerTrapKey, NatProgrammerTrapEntry::PtrConst, 0xD01ADFB7 > traps;
};

NatBaseProgrammerSm::NatBaseProgrammerSm( NatProgrammerConfig::PtrConst config, NatProgrammerStatus::Ptr status )
   : natProgrammerConfig_( std::move( config ) ),
     natProgrammerStatus_( std::move( status ) ),
     memory_( std::make_unique< Memory >( *this ) ),
     staticReactor_( *this ),
     twiceReactor_( *this ),
     dynamicReactor_( *this ),
     trapReactor_( *this ),
     profileReactor_( *this ) {
   staticReactor_.watchedIs( &natProgrammerConfig_->staticEntry() );
   twiceReactor_.watchedIs( &natProgrammerConfig_->twiceEntry() );
   dynamicReactor_.watchedIs( &natProgrammerConfig_->dynamicEntry() );
   trapReactor_.watchedIs( &natProgrammerConfig_->trapEntry() );
}

NatBaseProgrammerSm::~NatBaseProgrammerSm() { profileReactor_.watchedIs( nullptr ); }

void NatBaseProgrammerSm::replayReconcile() {}

void NatBaseProgrammerSm::natVlanProfileConfigIs( NatVlanProfileConfig::PtrConst config ) {
   profileReactor_.watchedIs( config ? &config->vlanProfile() : nullptr );
   natVlanProfileConfig_ = std::move( config );
}

// --- Handing over ----------------------------------------------------------------------------------------------------

void NatBaseProgrammerSm::replay() {
   Orla::Ptr< NatBaseProgrammerSm > const self( this );
   replayed_ = true;
   handleAllConfig();
   if ( natVlanProfileConfig_ ) {
      natVlanProfileConfig_->vlanProfile().forEach(
         [ & ]( U16 vlan, U16 profile ) { setNatProfile( vlan, profile ); } );
   }
   replayReconcile();
   retryRefused();
}

// Whoever watches the status may change rules meanwhile: each is looked up at its turn.
void NatBaseProgrammerSm::handleAllConfig() {
   memory_->forEachKind( []( auto & rules ) { rules.handleAll(); } );
   for ( auto const & key : Vexa::keysOf( natProgrammerConfig_->trapEntry() ) ) {
      handleProgrammerTrapConfig( key );
   }
}

void NatBaseProgrammerSm::handleProgrammerStaticConfig( NatProgrammerStaticKey const & key ) {
   memory_->staticRules.handleConfigured( key );
}

void NatBaseProgrammerSm::handleProgrammerTwiceConfig( NatProgrammerTwiceKey const & key ) {
   memory_->twiceRules.handleConfigured( key );
}

void NatBaseProgrammerSm::handleProgrammerDynamicConfig( NatProgrammerDynamicKey const & key ) {
   memory_->dynamicRules.handleConfigured( key );
}

void NatBaseProgrammerSm::handleProgrammerTrapConfig( NatProgrammerTrapKey const & key ) {
   handleTrap( key, natProgrammerConfig_->trapEntry( key ) );
}

// Traps have no status: what was raised is counted and not remembered.
void NatBaseProgrammerSm::handleTrap( NatProgrammerTrapKey const & key,
                                      NatProgrammerTrapEntry::PtrConst const & configured ) {
   auto const raises = [ & ]( auto const & operation ) {
      try {
         operation();
         return false;
      } catch ( Vexa::RangeException const & error ) {
         memory_->refusals.countRangeError( Vexa::stringOf( key ), error );
         return true;
      }
   };
   auto const previous = memory_->traps.valueOr( key );
   if ( previous && ( !configured || trapKeyOf( key, *previous ) != trapKeyOf( key, *configured ) ) ) {
      memory_->traps.del( key );
      raises( [ & ] { deleteTrap( key, previous ); } );
   }
   if ( configured ) {
      memory_->traps.is( key, configured );
      if ( raises( [ & ] { addTrap( key, configured ); } ) ) {
         memory_->traps.del( key );
      }
   }
}

void NatBaseProgrammerSm::on_staticEntry( NatProgrammerStaticKey const & key,
                                          NatProgrammerStaticEntry::PtrConst const *,
                                          NatProgrammerStaticEntry::PtrConst const * current ) {
   if ( replayed_ ) {
      memory_->staticRules.handle( key, valueOrNull( current ) );
   }
}

void NatBaseProgrammerSm::on_twiceEntry( NatProgrammerTwiceKey const & key, NatProgrammerTwiceEntry::PtrConst const *,
                                         NatProgrammerTwiceEntry::PtrConst const * current ) {
   if ( replayed_ ) {
      memory_->twiceRules.handle( key, valueOrNull( current ) );
   }
}

void NatBaseProgrammerSm::on_dynamicEntry( NatProgrammerDynamicKey const & key,
                                           NatProgrammerDynamicEntry::PtrConst const *,
                                           NatProgrammerDynamicEntry::PtrConst const * current ) {
   if ( replayed_ ) {
      memory_->dynamicRules.handle( key, valueOrNull( current ) );
   }
}

void NatBaseProgrammerSm::on_trapEntry( NatProgrammerTrapKey const & key, NatProgrammerTrapEntry::PtrConst const *,
                                        NatProgrammerTrapEntry::PtrConst const * current ) {
   if ( replayed_ ) {
      handleTrap( key, valueOrNull( current ) );
   }
}

void NatBaseProgrammerSm::on_vlanProfile( U16 const & vlanId, U16 const *, U16 const * current ) {
   if ( !replayed_ ) {
      return;
   }
   if ( current ) {
      setNatProfile( vlanId, *current );
   } else {
      clearNatProfile( vlanId );
   }
}

// --- Refusals and rest -----------------------------------------------------------------------------------------------

void NatBaseProgrammerSm::natIdPoolIs( NatIdInfo::PtrConst pool ) {
   natIdPool_ = pool;
   memory_->refusals.waiting.poolIs( std::move( pool ) );
}

void NatBaseProgrammerSm::natIdDemandIs( std::shared_ptr< NatIdDemand const > demand ) {
   memory_->refusals.demand = std::move( demand );
}

std::size_t NatBaseProgrammerSm::retryRefused() {
   auto const last = memory_->refusals.refused;  // what is refused again from here on has its turn next time
   std::size_t handedOver = 0;
   for ( bool accepted = true; accepted; ) {
      auto const key = memory_->refusals.waiting.next( last );
      if ( !key ) {
         break;
      }
      ++handedOver;
      accepted = std::visit( [ & ]( auto const & ofKind ) { return memory_->of( ofKind ).retry( ofKind ); }, *key );
   }
   return handedOver;
}

void NatBaseProgrammerSm::atRest() {
   memory_->forEachKind( []( auto & rules ) { rules.dropStaleStatus(); } );
}

std::vector< std::string > NatBaseProgrammerSm::checkStaleStatus() const {
   std::vector< std::string > names;
   memory_->forEachKind( [ & ]( auto const & rules ) { rules.nameStaleStatus( names ); } );
   return names;
}

std::size_t NatBaseProgrammerSm::refusedCount() const {
   std::size_t count = 0;
   memory_->forEachKind( [ & ]( auto const & rules ) { count += rules.refusedCount(); } );
   return count;
}

U64 NatBaseProgrammerSm::rangeErrorCount() const { return memory_->refusals.rangeErrors; }

// --- Status ----------------------------------------------------------------------------------------------------------

void NatBaseProgrammerSm::addProgrammerStaticStatusEntry( NatProgrammerStaticKey const & key,
                                                          NatProgrammerStaticEntry::PtrConst const & entry,
                                                          PfeHelper::NatHwResult result ) {
   memory_->staticRules.statusAdd( key, entry, result );
}

void NatBaseProgrammerSm::deleteProgrammerStaticStatusEntry( NatProgrammerStaticKey const & key,
                                                             NatProgrammerStaticEntry::PtrConst const & entry ) {
   memory_->staticRules.statusDel( key, entry );
}

void NatBaseProgrammerSm::addProgrammerTwiceStatusEntry( NatProgrammerTwiceKey const & key,
                                                         NatProgrammerTwiceEntry::PtrConst const & entry,
                                                         PfeHelper::NatHwResult result ) {
   memory_->twiceRules.statusAdd( key, entry, result );
}

void NatBaseProgrammerSm::deleteProgrammerTwiceStatusEntry( NatProgrammerTwiceKey const & key,
                                                            NatProgrammerTwiceEntry::PtrConst const & entry ) {
   memory_->twiceRules.statusDel( key, entry );
}

void NatBaseProgrammerSm::addProgrammerDynamicStatusEntry( NatProgrammerDynamicKey const & key,
                                                           NatProgrammerDynamicEntry::PtrConst const & entry,
                                                           PfeHelper::NatHwResult result ) {
   memory_->dynamicRules.statusAdd( key, entry, result );
}

void NatBaseProgrammerSm::deleteProgrammerDynamicStatusEntry( NatProgrammerDynamicKey const & key,
                                                              NatProgrammerDynamicEntry::PtrConst const & entry ) {
   memory_->dynamicRules.statusDel( key, entry );
}

// --- Attribute table -------------------------------------------------------------------------------------------------

Vexa::TypeData const & NatBaseProgrammerSm::classType() {
   using Entity = Orla::Entity;
   using Sm = NatBaseProgrammerSm;
   static constexpr Vexa::Attribute< Entity > attributes[] = {
      Vexa::readOnlyAttribute< Entity, &Sm::natProgrammerConfig >( "natProgrammerConfig" ),
      Vexa::readOnlyAttribute< Entity, &Sm::natProgrammerStatus >( "natProgrammerStatus" ),
      Vexa::attribute< Entity, &Sm::programmerMode, &Sm::programmerModeIs >( "programmerMode" ),
      Vexa::attribute< Entity, &Sm::natVlanProfileConfig, &Sm::natVlanProfileConfigIs >( "natVlanProfileConfig" ),
      Vexa::attribute< Entity, &Sm::natIdPool, &Sm::natIdPoolIs >( "natIdPool" ),
      Vexa::methodAttribute< Entity, &Sm::replay >( "replay" ),
      Vexa::methodAttribute< Entity, &Sm::retryRefused >( "retryRefused" ),
      Vexa::methodAttribute< Entity, &Sm::atRest >( "atRest" ),
      Vexa::methodAttribute< Entity, &Sm::checkStaleStatus >( "checkStaleStatus" ),
      Vexa::readOnlyAttribute< Entity, &Sm::refusedCount >( "refusedCount" ),
      Vexa::readOnlyAttribute< Entity, &Sm::rangeErrorCount >( "rangeErrorCount" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatBaseProgrammerSm", .attributes = attributes };
   return type;
}

}  // namespace Pfe
