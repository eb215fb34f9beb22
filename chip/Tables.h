// The nine tables: software rows in, map elements out.
#pragma once

#include "chip/EbpfChip.h"
#include "chip/FilterBlocks.h"
#include "chip/IngressRows.h"
#include "chip/PortTable.h"
#include "chip/RewriteTable.h"

#include <Asic/SwTableBase.h>

#include <map>
#include <optional>
#include <tuple>

namespace Ebpf {

class Chip::Tables {
 public:
   // Reads what the chip holds. Throws Refusal.
   Tables( Pins const & pins, PortTable & ports );

   void vrfLessIs( bool vrfLess ) { vrfLess_ = vrfLess; }

   void carryOut( std::span< Asic::ChipRequest const > requests, std::span< Asic::EntryState > outcomes );
   void sweep();
   Asic::ChipHits hitsOf( U32 natId ) const;
   U64 written() const;

 private:
   template< class Table > IngressRows< Table > & rowsOf() { return std::get< IngressRows< Table > >( rows_ ); }
   template< class Function > void forEachIngress( Function && function ) {
      std::apply( [ & ]( auto &... rows ) { ( function( rows ), ... ); }, rows_ );
   }

   // The result of one that is carried out at once; absent when it waits for its batch.
   template< class Table > std::optional< int > take( Asic::ChipRequest const & request, std::size_t number );
   template< class Table > int takeIngress( Asic::ChipRequest const & request, std::size_t number );
   int putCopy( Pfe::EgrNatMcRewriteKey const & key, Pfe::EgrNatMcRewriteEntry const & entry );
   // What the row refers to, with no filters and no check; absent when the chip lacks it.
   std::optional< ChipRow > rowOf( Asic::ReferringEntry const & entry, U16 & generation );
   int putCopyList( U32 natId, Asic::ReferringEntry const & entry );
   int putFilters( IngressRows< Pfe::IngStaticNatTable > & rows, ChipStaticKey const & key,
                   Pfe::IngStaticNatTable::Entry const & entry, ChipRow & row );
   // The row leaves the chip, or is replaced: its filters go when the batch is done.
   void dropped( ChipRow const & row );
   void freeDropped();

   bool vrfLess_ = false;
   FilterBlocks filters_;
   bool hasFilters_ = false;  // some row has, or had
   std::vector< U16 > droppedFilters_;
   RewriteTable source_;
   RewriteTable destination_;
   HashOf< ChipCopyKey, ChipCopy > copies_;
   HashOf< U32, ChipCopyList > copyLists_;
   std::map< std::pair< U16, U16 >, ChipCopy > foundCopies_;  // until the sweep, those not asked for
   std::map< U32, ChipCopyList > foundLists_;
   U64 written_ = 0;
   std::tuple< IngressRows< Pfe::IngTwiceNatTable >, IngressRows< Pfe::IngStaticNatTable >,
               IngressRows< Pfe::IngDynamicSnaptTable >, IngressRows< Pfe::IngDynamicDnaptTable >,
               IngressRows< Pfe::IngDynamicSnatAddrOnlyTable >, IngressRows< Pfe::IngDynamicDnatAddrOnlyTable > >
      rows_;
};

}  // namespace Ebpf
