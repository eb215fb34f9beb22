#include "PfeNat/PfeNatSwTableProgrammerSm/NatIdManager.h"

#include "PfeNat/PfeNatSwTableProgrammerSm/UnitGlobals.h"

#include <Trace/RingTrace.h>
#include <Vexa/Assert.h>
#include <Vexa/KeysOf.h>
#include <Vexa/Type.h>

#include <cstddef>

namespace [[gnu::visibility( "default" )]] Pfe {

namespace {

constexpr U64 firstNatIdBit = 0;
constexpr U32 lastNatIdBit = 65535;

}  // namespace

NatIdManager::NatIdManager( NatIdInfo::Ptr const & natIdInfo ) : natIdInfo_( natIdInfo ) { handleInitialized(); }

void NatIdManager::handleInitialized() {
   TRACE( traceHandle(), 6, "NatIdManager:: ", "handleInitialized" );
   natIdBitmapIs( firstNatIdBit, lastNatIdBit, Brix::BitState::clear );
   natIdBitmap_->setBit( 0 );  // 0 is no NAT id
   if ( !natIdInfo_ ) {
      return;
   }
   natIdInfo_->matchKeyToNatId().forEach( [ & ]( NatMatchKey const & matchKey, NatId natId ) {
      TRACE( traceHandle(), 8, "handleInitialized", " Reserving natId ", natId, " for matchKey ", matchKey );
      natIdBitmap_->setBit( natId.value() );
   } );
}

Orla::Ptr< Brix::HBitmap > NatIdManager::natIdBitmapIs( U64 firstBit, U32 lastBit, Brix::BitState initialBitState ) {
   if ( !natIdBitmap_ || natIdBitmap_->firstBit() != firstBit || natIdBitmap_->lastBit() != lastBit ||
        natIdBitmap_->initialBitState() != initialBitState ) {
      natIdBitmap_ = Orla::make< Brix::HBitmap >( firstBit, lastBit, initialBitState );
   }
   return natIdBitmap_;
}

NatId const * NatIdManager::persistedId( NatMatchKey const & matchKey ) const {
   return natIdInfo_ ? natIdInfo_->matchKeyToNatId().find( matchKey ) : nullptr;
}

IngKeySet const & NatIdManager::holdersOf( NatMatchKey const & matchKey ) const {
   static IngKeySet const none;
   auto const * const ingKeySet = matchKeyToIngKeySet_.find( matchKey );
   return ingKeySet ? *ingKeySet : none;
}

NatId NatIdManager::allocateNatId( IngNatTableKey const & ingKey, NatMatchKey const & matchKey ) {
   bool isNew = false;
   auto const takeFreeId = [ & ] {
      // A full pool answers null, which is out of range for an id.
      NatId const natId( natIdBitmap_->findBitInClearState( Brix::IndexPreference::lowest ) );
      VEXA_ASSERT( natId != Brix::HBitmap::null() && "Unable to allocate natId" );
      natIdBitmap_->setBit( natId.value() );
      isNew = true;
      return natId;
   };
   auto const natId = natIdInfo_->matchKeyToNatIdFindOrInsert( matchKey, takeFreeId );
   bool wasCached = false;
   std::size_t refCount = 0;
   matchKeyToIngKeySet_.change( matchKey, [ & ]( IngKeySet & ingKeySet ) {
      if ( isNew ) {
         ingKeySet.entryDelAll();
      }
      wasCached = !isNew && !ingKeySet;
      ingKeySet.entryIs( ingKey );
      refCount = ingKeySet.entrys();
   } );
   // Told when all is done: a sink that throws leaves an id that is held.
   if ( wasCached ) {
      TRACE( traceHandle(), 8, "allocateNatId", " matchKey ", matchKey, " has cached natId: ", natId, ".",
             " Rebuilding natId->IngKey map for restart" );
   } else {
      TRACE( traceHandle(), 8, "allocateNatId", " matchKey ", matchKey, isNew ? " newly" : " already",
             " assigned to natId: ", natId );
   }
   TRACE( traceHandle(), 8, "matchKey ", matchKey, ", natId: ", natId, ", new refCount: ", refCount );
   return natId;
}

NatId NatIdManager::getNatId( NatMatchKey const & matchKey ) const {
   auto const * const persisted = persistedId( matchKey );
   auto const natId = persisted ? *persisted : NatId();
   VEXA_ASSERT( natId != 0 && "natId not allocated" );
   return natId;
}

void NatIdManager::freeNatId( IngNatTableKey const & ingKey, NatMatchKey const & matchKey ) {
   auto const * const persisted = persistedId( matchKey );
   if ( !persisted ) {
      TRACE( traceHandle(), 8, "freeNatId", " natId not found for matchKey: ", matchKey );
      return;
   }
   auto const natId = *persisted;
   auto const & ingKeySet = holdersOf( matchKey );
   VEXA_ASSERT( ingKeySet.entrys() );
   auto const newRefCount = ingKeySet.entrys() - ingKeySet.entryHas( ingKey );
   TRACE( traceHandle(), 8, "freeNatId", " matchKey ", matchKey, " new refCount: ", newRefCount );
   if ( newRefCount != 0 ) {
      matchKeyToIngKeySet_.change( matchKey, [ & ]( IngKeySet & set ) { set.entryDel( ingKey ); } );
      return;
   }
   // The last holder stays in the set until the set goes, so that a set is never empty. What the caller calls the key
   // by may be the one in a map.
   auto const gone = matchKey;  // NOLINT(performance-unnecessary-copy-initialization)
   natIdBitmap_->clearBit( natId.value() );
   natIdInfo_->matchKeyToNatIdDel( gone );
   matchKeyToIngKeySetDel( gone );
   TRACE( traceHandle(), 8, "freeNatId", " matchKey ", gone, " freeing natId: ", natId );
}

void NatIdManager::sweepAndCleanupNatIds() {
   Trace::RingTrace::defaultHandle().message( "sweepAndCleanupNatIds" );
   TRACE( traceHandle(), 8, "sweepAndCleanupNatIds" );
   if ( !natIdInfo_ ) {
      return;
   }
   // Whoever watches the ids may claim or give back others meanwhile: each is looked up at its turn.
   for ( auto const & matchKey : Vexa::keysOf( natIdInfo_->matchKeyToNatId() ) ) {
      auto const * const persisted = persistedId( matchKey );
      if ( !persisted || matchKeyToIngKeySetHas( matchKey ) ) {
         continue;
      }
      auto const natId = *persisted;
      natIdBitmap_->clearBit( natId.value() );
      natIdInfo_->matchKeyToNatIdDel( matchKey );
      TRACE( traceHandle(), 8, "sweepAndCleanupNatIds", " matchKey ", matchKey, " cleaning up natId: ", natId );
   }
}

Vexa::TypeData const & NatIdManager::classType() {
   using Entity = Orla::Entity;
   using IngKeySetOf = IngKeySet ( NatIdManager::* )( NatMatchKey const & ) const;
   static constexpr Vexa::Attribute< Entity > attributes[] = {
      Vexa::readOnlyAttribute< Entity, &NatIdManager::natIdInfo >( "natIdInfo" ),
      Vexa::collectionAttribute< Entity, static_cast< IngKeySetOf >( &NatIdManager::matchKeyToIngKeySet ),
                                 &NatIdManager::matchKeyToIngKeySetIs, &NatIdManager::matchKeyToIngKeySetDel >(
         "matchKeyToIngKeySet" ),
      Vexa::instantiatingAttribute< Entity, &NatIdManager::natIdBitmap, &NatIdManager::natIdBitmapIs,
                                    &NatIdManager::natIdBitmapDel >( "natIdBitmap" ),
      Vexa::methodAttribute< Entity, &NatIdManager::allocateNatId >( "allocateNatId" ),
      Vexa::methodAttribute< Entity, &NatIdManager::getNatId >( "getNatId" ),
      Vexa::methodAttribute< Entity, &NatIdManager::freeNatId >( "freeNatId" ),
      Vexa::methodAttribute< Entity, &NatIdManager::sweepAndCleanupNatIds >( "sweepAndCleanupNatIds" ),
      Vexa::methodAttribute< Entity, &NatIdManager::handleInitialized >( "handleInitialized" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatIdManager", .attributes = attributes };
   return type;
}

}  // namespace Pfe
