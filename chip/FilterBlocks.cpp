#include "chip/FilterBlocks.h"

#include "chip/Rows.h"

#include <algorithm>
#include <cstring>

namespace Ebpf {

namespace {

ChipFilter filterOf( Ip::Nat::NatFilter const & filter ) {
   auto const masked = []( Netix::IpAddrWithFullMask const & given ) {
      return inPacket( given.address ) & inPacket( given.mask );
   };
   return { .source = masked( filter.source ),
            .sourceMask = inPacket( filter.source.mask ),
            .destination = masked( filter.destination ),
            .destinationMask = inPacket( filter.destination.mask ),
            .sourcePort = htons( filter.sourcePort ),
            .destinationPort = htons( filter.destinationPort ) };
}

}  // namespace

FilterBlocks::FilterBlocks( Pins const & pins )
   : blocks_( pins.openMap( "filterBlocks" ) ), isUsed_( chipFilterBlocks ) {
   isUsed_[ 0 ] = true;
}

std::optional< U16 > FilterBlocks::put( Filters const & filters ) {
   auto const wanted = ( filters.size() + chipFiltersInBlock - 1 ) / chipFiltersInBlock;
   if ( wanted > chipBlocksInChain || wanted > chipFilterBlocks - usedCount_ ) {
      return std::nullopt;
   }
   // From the last one on, so that each knows its next.
   U16 next = 0;
   for ( auto left = filters.size(); left != 0; ) {
      auto const inBlock = ( left - 1 ) % chipFiltersInBlock + 1;
      left -= inBlock;
      auto const free = static_cast< U16 >( std::ranges::find( isUsed_, false ) - isUsed_.begin() );
      auto & block = blocks_[ free ];
      block.count = static_cast< U16 >( inBlock );
      block.next = next;
      std::transform( filters.begin() + left, filters.begin() + left + inBlock, block.filter, filterOf );
      isUsed_[ free ] = true;
      ++usedCount_;
      next = free;
   }
   return next;
}

void FilterBlocks::free( U16 first ) {
   for ( auto block = first; block != 0 && block < chipFilterBlocks && isUsed_[ block ];
         block = blocks_[ block ].next ) {
      isUsed_[ block ] = false;
      --usedCount_;
   }
}

bool FilterBlocks::holds( U16 first, Filters const & filters ) const {
   auto const * wanted = filters.begin();
   for ( auto block = first; block != 0 && block < chipFilterBlocks; block = blocks_[ block ].next ) {
      auto const & there = blocks_[ block ];
      for ( unsigned i = 0; i < there.count && i < chipFiltersInBlock; ++i, ++wanted ) {
         auto const filter = wanted == filters.end() ? ChipFilter{} : filterOf( *wanted );
         if ( wanted == filters.end() || std::memcmp( &there.filter[ i ], &filter, sizeof filter ) != 0 ) {
            return false;
         }
      }
   }
   return wanted == filters.end();
}

void FilterBlocks::found( U16 first ) {
   for ( auto block = first; block != 0 && block < chipFilterBlocks && !isUsed_[ block ];
         block = blocks_[ block ].next ) {
      isUsed_[ block ] = true;
      ++usedCount_;
   }
}

}  // namespace Ebpf
