#include "chip/RewriteTable.h"

#include "chip/Rows.h"

#include <algorithm>
#include <cerrno>
#include <tuple>

namespace Ebpf {

namespace {

ChipRewrite contentsOf( Pfe::EgrNatUcRewriteEntry const & entry, U16 qualifier ) {
   return { .source = inPacket( entry.srcIp ),
            .destination = inPacket( entry.dstIp ),
            .sourcePort = htons( entry.srcPort ),
            .destinationPort = htons( entry.dstPort ),
            .qualifier = qualifier,
            .generation = 0 };
}

bool haveSameContents( ChipRewrite const & a, ChipRewrite const & b ) {
   return std::tie( a.source, a.destination, a.sourcePort, a.destinationPort, a.qualifier ) ==
          std::tie( b.source, b.destination, b.sourcePort, b.destinationPort, b.qualifier );
}

}  // namespace

RewriteTable::RewriteTable( Pins const & pins, ChipRewriteTable side )
   : side_( side ),
     slots_( pins.openMap( side == chipSourceRewrite ? "sourceSlots" : "targetSlots" ) ),
     secondSlots_( pins.openMap( "secondSlots" ) ),
     isUnclaimed_( chipNatIds ) {
   for ( U32 natId = 0; natId < chipNatIds; ++natId ) {
      isUnclaimed_[ natId ] = isInUse( current( slots_[ natId ] ) );
   }
   secondSlots_.forEach( [ & ]( ChipSecondKey const & key, ChipSlot const & slot ) {
      if ( key.rewriteTable == static_cast< U32 >( side_ ) ) {
         seconds_.insert_or_assign( { key.natId, key.qualifier }, current( slot ) );
         unclaimedSeconds_[ { key.natId, key.qualifier } ] = true;
         nextGeneration_ = std::max< U16 >( nextGeneration_, static_cast< U16 >( current( slot ).generation + 2 ) );
      }
   } );
}

int RewriteTable::put( Pfe::EgrNatUcRewriteKey const & key, Pfe::EgrNatUcRewriteEntry const & entry ) {
   U16 const natId = static_cast< U16 >( key.natId.value() );
   auto next = contentsOf( entry, key.qualifier );
   auto & slot = slots_[ natId ];
   auto const now = current( slot );
   if ( ( isInUse( now ) && now.qualifier != key.qualifier ) || seconds_.contains( { natId, key.qualifier } ) ) {
      return putSecond( { natId, key.qualifier }, next );
   }
   bool const isFound = !isUnclaimed_.empty() && isUnclaimed_[ natId ];
   if ( isFound ) {
      isUnclaimed_[ natId ] = false;
      if ( haveSameContents( now, next ) ) {
         return 0;
      }
   }
   if ( !isInUse( now ) ) {
      slot.packets = slot.bytes = slot.lastPacket = 0;
      next.generation = static_cast< U16 >( now.generation + 1 );
   } else {
      // What was found may be of a flow that had the id before: rows that still refer to it must not take this one.
      next.generation = static_cast< U16 >( now.generation + ( isFound ? 2 : 0 ) );
   }
   replace( slot, next );
   ++written_;
   return 0;
}

int RewriteTable::erase( Pfe::EgrNatUcRewriteKey const & key ) {
   U16 const natId = static_cast< U16 >( key.natId.value() );
   if ( isSlotOf( current( slots_[ natId ] ), key.qualifier ) ) {
      release( natId );
      return 0;
   }
   return eraseSecond( { natId, key.qualifier } );
}

std::optional< RewriteTable::Located > RewriteTable::located( U16 natId, U16 qualifier ) const {
   auto const & rewrite = current( slots_[ natId ] );
   if ( isSlotOf( rewrite, qualifier ) ) {
      return Located{ rewrite.generation, false };
   }
   auto const second = seconds_.find( { natId, qualifier } );
   return second == seconds_.end() ? std::nullopt : std::optional( Located{ second->second.generation, true } );
}

int RewriteTable::putSecond( SecondKey const & key, ChipRewrite rewrite ) {
   auto const found = seconds_.find( key );
   bool const wasFound = unclaimedSeconds_.erase( key ) != 0;
   if ( wasFound && haveSameContents( found->second, rewrite ) ) {
      return 0;
   }
   bool const keepsGeneration = found != seconds_.end() && !wasFound;
   rewrite.generation = keepsGeneration ? found->second.generation : nextGeneration_;
   ChipSlot slot{};
   slot.version[ 0 ] = rewrite;
   auto const fault = secondSlots_.put( { key.first, key.second, static_cast< U32 >( side_ ) }, slot );
   if ( fault == 0 ) {
      seconds_.insert_or_assign( key, rewrite );
      nextGeneration_ = static_cast< U16 >( nextGeneration_ + ( keepsGeneration ? 0 : 2 ) );
      ++written_;
   }
   return fault;
}

int RewriteTable::eraseSecond( SecondKey const & key ) {
   auto const fault = secondSlots_.erase( { key.first, key.second, static_cast< U32 >( side_ ) } );
   if ( fault != 0 && fault != ENOENT ) {
      return fault;
   }
   seconds_.erase( key );
   unclaimedSeconds_.erase( key );
   ++written_;
   return 0;
}

void RewriteTable::release( U32 natId ) {
   ChipRewrite free{};
   free.generation = static_cast< U16 >( current( slots_[ natId ] ).generation + 1 );
   replace( slots_[ natId ], free );
   if ( !isUnclaimed_.empty() ) {
      isUnclaimed_[ natId ] = false;
   }
   ++written_;
}

void RewriteTable::sweep() {
   for ( U32 natId = 0; natId < isUnclaimed_.size(); ++natId ) {
      if ( isUnclaimed_[ natId ] ) {
         release( natId );
      }
   }
   isUnclaimed_ = {};
   while ( !unclaimedSeconds_.empty() ) {
      auto const key = unclaimedSeconds_.begin()->first;
      if ( eraseSecond( key ) != 0 ) {
         unclaimedSeconds_.erase( key );  // stays in the chip, where nothing refers to it
      }
   }
}

std::size_t RewriteTable::count() const {
   auto const slots = slots_.elements();
   return seconds_.size() + static_cast< std::size_t >( std::ranges::count_if(
                               slots, []( ChipSlot const & slot ) { return isInUse( current( slot ) ); } ) );
}

}  // namespace Ebpf
