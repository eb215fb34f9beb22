// The unicast rewrites of one side: a slot per NAT id, and further slots for ids that are used under another qualifier.
#pragma once

#include "chip/Maps.h"
#include "chip/Pins.h"

#include <Pfe/EgrNatTables.h>

#include <map>
#include <optional>
#include <vector>

namespace Ebpf {

class RewriteTable {
 public:
   // Where the pipeline finds a rewrite, and as which one.
   struct Located {
      U16 generation = 0;
      bool inSecondTable = false;
   };

   // `side`: chipSourceRewrite or chipDestinationRewrite. Throws Refusal.
   RewriteTable( Pins const & pins, ChipRewriteTable side );

   // 0 or an errno.
   int put( Pfe::EgrNatUcRewriteKey const & key, Pfe::EgrNatUcRewriteEntry const & entry );
   int erase( Pfe::EgrNatUcRewriteKey const & key );
   // Absent when the chip has no such rewrite.
   std::optional< Located > located( U16 natId, U16 qualifier ) const;

   // Takes out what was found and not put since.
   void sweep();

   ChipSlot const & slot( U32 natId ) const { return slots_[ natId ]; }
   std::size_t count() const;
   U64 written() const { return written_; }

 private:
   using SecondKey = std::pair< U16, U16 >;  // id, qualifier

   bool isSlotOf( ChipRewrite const & rewrite, U16 qualifier ) const {
      return isInUse( rewrite ) && rewrite.qualifier == qualifier;
   }
   int putSecond( SecondKey const & key, ChipRewrite rewrite );
   int eraseSecond( SecondKey const & key );
   void release( U32 natId );

   ChipRewriteTable side_;
   ArrayOf< ChipSlot > slots_;
   HashOf< ChipSecondKey, ChipSlot > secondSlots_;
   std::map< SecondKey, ChipRewrite > seconds_;  // what the second table holds of this side
   U16 nextGeneration_ = 1;                      // of second slots; odd
   // Slots and second keys that were found and not yet asked for. Both empty after the sweep.
   std::vector< bool > isUnclaimed_;
   std::map< SecondKey, bool > unclaimedSeconds_;
   U64 written_ = 0;
};

}  // namespace Ebpf
