#include <Brix/HBitmap.h>

#include <Vexa/Assert.h>
#include <Vexa/Type.h>

#include <bit>

namespace [[gnu::visibility( "default" )]] Brix {

namespace {

constexpr U64 allSet = ~U64{ 0 };

}  // namespace

HBitmap::HBitmap( U64 firstBit, U32 lastBit, BitState initialBitState )
   : firstBit_( firstBit ), lastBit_( lastBit ), initialBitState_( initialBitState ) {
   VEXA_ASSERT( firstBit <= lastBit );
   auto bits = static_cast< std::size_t >( lastBit - firstBit ) + 1;
   bool const filled = initialBitState == BitState::set;
   do {
      auto const words = ( bits + wordBits - 1 ) / wordBits;
      auto & level = levels_.emplace_back( words, filled ? allSet : U64{ 0 } );
      if ( bits % wordBits != 0 ) {
         level.back() |= allSet << bits % wordBits;
      }
      bits = words;
   } while ( bits > 1 );
}

U64 HBitmap::offset( U64 index ) const {
   VEXA_ASSERT( index >= firstBit_ && index <= lastBit_ );
   return index - firstBit_;
}

U64 HBitmap::findBitInClearState( IndexPreference ) const {
   if ( levels_.back()[ 0 ] == allSet ) {
      return null();
   }
   U64 position = 0;
   for ( auto level = levels_.rbegin(); level != levels_.rend(); ++level ) {
      position = position * wordBits + static_cast< unsigned >( std::countr_one( ( *level )[ position ] ) );
   }
   return firstBit_ + position;
}

bool HBitmap::bit( U64 index ) const {
   auto const position = offset( index );
   return levels_[ 0 ][ position / wordBits ] >> position % wordBits & 1;
}

void HBitmap::setBit( U64 index ) {
   auto position = offset( index );
   for ( auto & level : levels_ ) {
      auto & word = level[ position / wordBits ];
      word |= U64{ 1 } << position % wordBits;
      if ( word != allSet ) {
         return;
      }
      position /= wordBits;
   }
}

void HBitmap::clearBit( U64 index ) {
   auto position = offset( index );
   for ( auto & level : levels_ ) {
      level[ position / wordBits ] &= ~( U64{ 1 } << position % wordBits );
      position /= wordBits;
   }
}

Vexa::TypeData const & HBitmap::typeData() const {
   static constexpr Vexa::TypeData type{ .name = "Brix::HBitmap" };
   return type;
}

}  // namespace Brix
