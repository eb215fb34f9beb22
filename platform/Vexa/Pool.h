// Free lists for objects that come and go with every rule.
#pragma once

#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

namespace [[gnu::visibility( "default" )]] Vexa {

// Slabs of memory for all pools, cut from larger pieces of the heap. Nothing goes back to the heap: a table that was
// once full is expected to be full again.
class Slabs {
 public:
   static constexpr std::size_t slabSize = 5040;  // a multiple of most sizes that objects have

   std::byte * take() {
      if ( left_ == 0 ) {
         // Never freed: objects in static storage may give their memory back at any time. Each piece ends with the
         // address of the one before it, by which leak checkers see that none is lost.
         next_ = static_cast< std::byte * >( ::operator new( slabsPerPiece * slabSize + sizeof( piece_ ) ) );
         std::memcpy( next_ + slabsPerPiece * slabSize, &piece_, sizeof( piece_ ) );
         piece_ = next_;
         left_ = slabsPerPiece;
      }
      --left_;
      return std::exchange( next_, next_ + slabSize );
   }

   static Slabs & instance() {
      static Slabs slabs;
      return slabs;
   }

 private:
   static constexpr std::size_t slabsPerPiece = 16;

   std::byte * piece_ = nullptr;
   std::byte * next_ = nullptr;
   std::size_t left_ = 0;
};

// Memory for objects of one size and alignment, kept for the next object when it is given back.
template< std::size_t size, std::size_t alignment > class Pool {
   // What is free begins with the address of the next that is.
   static_assert( size >= sizeof( void * ) && size <= Slabs::slabSize / 8 );
   static_assert( size % alignment == 0 && Slabs::slabSize % alignment == 0 );

 public:
   void * take() {
      if ( !free_ ) {
         grow();
      }
      auto * const memory = free_;
      std::memcpy( &free_, memory, sizeof( free_ ) );
      return memory;
   }

   void give( void * memory ) {
      std::memcpy( memory, &free_, sizeof( free_ ) );
      free_ = memory;
   }

 private:
   void grow() {
      auto * const slab = Slabs::instance().take();
      for ( auto i = Slabs::slabSize / size; i-- > 0; ) {
         give( slab + i * size );
      }
   }

   void * free_ = nullptr;
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
   static auto & pool() {
      static constinit Pool< sizeof( T ), alignof( T ) > instance;
      return instance;
   }
};

}  // namespace Vexa
