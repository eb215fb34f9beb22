// The framework's seeded 32-bit hash accumulator.
#pragma once

#include <Vexa/Types.h>

namespace [[gnu::visibility( "default" )]] Vexa {

// Mixes a seed, then 4-byte steps, into 32 bits. Each step is one 64 x 64 bit multiplication folded to 64 bits.
class Hash {
 public:
   constexpr explicit Hash( U32 seed ) : state_( ( U64{ seed } << 32 ) ^ seedSpread ) {}

   constexpr void mix( U32 step ) {
      __extension__ using U128 = unsigned __int128;
      auto const product = static_cast< U128 >( state_ ^ step ) * multiplier;
      state_ = static_cast< U64 >( product ) ^ static_cast< U64 >( product >> 64 );
   }

   constexpr U32 result() const { return static_cast< U32 >( state_ ^ ( state_ >> 32 ) ); }

 private:
   // Odd constants with balanced bits: digits of the golden ratio and of the square root of 2.
   static constexpr U64 multiplier = 0x9E3779B97F4A7C15;
   static constexpr U64 seedSpread = 0x6A09E667F3BCC908;
   U64 state_;
};

// The seed that every hash map of the process mixes with a constant of its own. Fixed, so that runs repeat; may be
// set once, before the first map is filled.
extern U32 processHashSeed;

}  // namespace Vexa
