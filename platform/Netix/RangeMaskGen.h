// Ranges of numbers as value and mask pairs, which is how match hardware takes them.
#pragma once

#include <Vexa/Types.h>

#include <algorithm>
#include <bit>
#include <concepts>
#include <vector>

namespace [[gnu::visibility( "default" )]] Netix {

// Splits ranges into aligned blocks whose size is a power of two.
template< std::unsigned_integral Number > class RangeMaskGen {
 public:
   // Matches every number n with ( n & mask ) == value.
   struct Entry {
      Number value = 0;
      Number mask = 0;
      friend bool operator==( Entry const &, Entry const & ) = default;
   };

   // The fewest entries that together match exactly first to last, in ascending order; none when first > last.
   static std::vector< Entry > entriesOf( Number first, Number last ) {
      std::vector< Entry > entries;
      U64 const end = U64{ last } + 1;
      for ( U64 next = first; next < end; ) {
         // The largest block that starts here: as far as the start is aligned, and not past the end.
         U64 const fitting = std::bit_floor( end - next );
         U64 const aligned = next == 0 ? fitting : next & ( ~next + 1 );
         U64 const size = std::min( aligned, fitting );
         entries.push_back( { static_cast< Number >( next ), static_cast< Number >( ~( size - 1 ) ) } );
         next += size;
      }
      return entries;
   }
};

}  // namespace Netix
