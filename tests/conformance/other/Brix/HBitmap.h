// Another bitmap than the platform's own, for the conformance test: it looks from the top, bit by bit.
#pragma once

#include <Orla/Entity.h>
#include <Vexa/Assert.h>
#include <Vexa/Type.h>
#include <Vexa/Types.h>

#include <vector>

namespace [[gnu::visibility( "default" )]] Brix {

enum class BitState : U8 { clear, set };
enum class IndexPreference : U8 { lowest };

class HBitmap : public Orla::Entity {
 public:
   HBitmap( U64 firstBit, U32 lastBit, BitState initialBitState )
      : firstBit_( firstBit ),
        lastBit_( lastBit ),
        initialBitState_( initialBitState ),
        bits_( lastBit + 1 - firstBit, initialBitState == BitState::set ) {}

   static constexpr U64 null() { return ~U64{ 0 }; }

   U64 firstBit() const { return firstBit_; }
   U32 lastBit() const { return lastBit_; }
   BitState initialBitState() const { return initialBitState_; }

   U64 findBitInClearState( IndexPreference ) const {
      for ( auto i = bits_.size(); i-- > 0; ) {
         if ( !bits_[ i ] ) {
            return firstBit_ + i;
         }
      }
      return null();
   }

   bool bit( U64 index ) const { return bits_[ offset( index ) ]; }
   void setBit( U64 index ) { bits_[ offset( index ) ] = true; }
   void clearBit( U64 index ) { bits_[ offset( index ) ] = false; }

   Vexa::TypeData const & typeData() const override {
      static constexpr Vexa::TypeData type{ .name = "Brix::HBitmap" };
      return type;
   }

 private:
   std::size_t offset( U64 index ) const {
      VEXA_ASSERT( firstBit_ <= index && index <= lastBit_ );
      return index - firstBit_;
   }

   U64 firstBit_;
   U32 lastBit_;
   BitState initialBitState_;
   std::vector< bool > bits_;
};

}  // namespace Brix
