// A bitmap that finds a clear bit in constant time.
#pragma once

#include <Orla/Entity.h>
#include <Vexa/Types.h>

#include <vector>

namespace [[gnu::visibility( "default" )]] Brix {

enum class BitState : U8 { clear, set };
enum class IndexPreference : U8 { lowest };

// Bits firstBit to lastBit, both included, under a tree of summary words (64 bits each): a bit of a summary is clear
// while the word below it has a clear bit.
class HBitmap : public Orla::Entity {
 public:
   HBitmap( U64 firstBit, U32 lastBit, BitState initialBitState );

   // Answers "no bit": all ones.
   static constexpr U64 null() { return ~U64{ 0 }; }

   U64 firstBit() const { return firstBit_; }
   U32 lastBit() const { return lastBit_; }
   BitState initialBitState() const { return initialBitState_; }

   // The lowest clear bit; null() when there is none.
   U64 findBitInClearState( IndexPreference preference ) const;

   // Bits outside the bounds stop the agent.
   bool bit( U64 index ) const;
   void setBit( U64 index );
   void clearBit( U64 index );

   Vexa::TypeData const & typeData() const override;

 private:
   static constexpr unsigned wordBits = 64;

   U64 offset( U64 index ) const;

   U64 firstBit_;
   U32 lastBit_;
   BitState initialBitState_;
   // levels_[ 0 ] holds the bits, each further level a bit per word of the one before; the last level is one word.
   // Bits past the end are set, so that no search yields them.
   std::vector< std::vector< U64 > > levels_;
};

}  // namespace Brix
