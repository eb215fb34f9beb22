// The filters of static rows, in chains of blocks that rows name by number.
#pragma once

#include "chip/Maps.h"
#include "chip/Pins.h"

#include <IpNat/NatStatic.h>
#include <Vexa/RareList.h>

#include <optional>
#include <vector>

namespace Ebpf {

class FilterBlocks {
 public:
   using Filters = Vexa::RareList< Ip::Nat::NatFilter >;

   explicit FilterBlocks( Pins const & pins );

   // The first of the blocks that hold them from now on; 0 for no filters. Absent when there is no room.
   std::optional< U16 > put( Filters const & filters );
   // Gives the chain back; 0: nothing.
   void free( U16 first );
   // Whether the chain holds these filters.
   bool holds( U16 first, Filters const & filters ) const;
   // The chain is that of a row which the chip was found with.
   void found( U16 first );

 private:
   ArrayOf< ChipFilterBlock > blocks_;
   std::vector< bool > isUsed_;
   U32 usedCount_ = 1;  // the first is never used
};

}  // namespace Ebpf
