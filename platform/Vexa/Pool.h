// Free lists for objects that come and go with every rule.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <vector>

namespace [[gnu::visibility( "default" )]] Vexa {

// Memory for objects of one size, taken from the heap in growing chunks and kept for the next object. Nothing goes
// back to the heap: a table that was once full is expected to be full again.
template< std::size_t size > class Pool {
 public:
   void * take() {
      if ( !free_ ) {
         grow();
      }
      auto * const block = free_;
      free_ = block->next;
      return block;
   }

   void give( void * memory ) { free_ = new ( memory ) Block{ free_ }; }

 private:
   struct Block {
      Block * next;
   };
   static constexpr std::size_t blockSize =
      ( std::max( size, sizeof( Block ) ) + alignof( std::max_align_t ) / 2 - 1 ) &
      ~( alignof( std::max_align_t ) / 2 - 1 );
   static constexpr std::size_t firstChunk = 32;
   static constexpr std::size_t growthDivisor = 8;
   static constexpr std::size_t largestChunk = 1024;

   void grow() {
      auto const count = std::clamp( blocks_ / growthDivisor, firstChunk, largestChunk );
      auto & chunk = chunks_.emplace_back( std::make_unique_for_overwrite< std::byte[] >( count * blockSize ) );
      blocks_ += count;
      for ( auto i = count; i-- > 0; ) {
         give( chunk.get() + i * blockSize );
      }
   }

   Block * free_ = nullptr;
   std::size_t blocks_ = 0;
   std::vector< std::unique_ptr< std::byte[] > > chunks_;
};

// The address sanitizer finds what is used too late, or never given back, only in memory of its own.
inline constexpr bool poolsAreUsed =
#if defined( __SANITIZE_ADDRESS__ )
   false;
#elif defined( __has_feature )
#if __has_feature( address_sanitizer )
   false;
#else
   true;
#endif
#else
   true;
#endif

// Base that gives a class the free list of its size. Only for classes that are destroyed as what they are, or through a
// virtual destructor.
template< class T > class Pooled {
 public:
   static void * operator new( std::size_t size ) { return poolsAreUsed ? pool().take() : ::operator new( size ); }
   static void operator delete( void * memory ) { poolsAreUsed ? pool().give( memory ) : ::operator delete( memory ); }

 private:
   // Never destroyed: objects in static storage may give their memory back at any time.
   static auto & pool() {
      static auto * const instance = new Pool< sizeof( T ) >;
      return *instance;
   }
};

}  // namespace Vexa
