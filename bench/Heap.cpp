#include "Heap.h"

#include <malloc.h>

#include <cstdlib>
#include <new>

namespace Bench {

namespace {

constinit bool watched = false;
constinit HeapUse use;

void * take( std::size_t size ) {
   void * const memory = std::malloc( size == 0 ? 1 : size );
   if ( !memory ) {
      throw std::bad_alloc();
   }
   if ( watched ) [[unlikely]] {
      ++use.allocations;
      use.liveBytes += static_cast< long >( malloc_usable_size( memory ) );
   }
   return memory;
}

void give( void * memory ) {
   if ( watched && memory ) [[unlikely]] {
      use.liveBytes -= static_cast< long >( malloc_usable_size( memory ) );
   }
   std::free( memory );
}

}  // namespace

HeapWatch::HeapWatch() {
   use = {};
   watched = true;
}

HeapWatch::~HeapWatch() { watched = false; }

HeapUse HeapWatch::used() const { return use; }

void keepHeapPages() {
   constexpr int growth = 64 << 20;
   mallopt( M_MMAP_MAX, 0 );
   mallopt( M_TRIM_THRESHOLD, -1 );
   mallopt( M_TOP_PAD, growth );
}

}  // namespace Bench

void * operator new( std::size_t size ) { return Bench::take( size ); }
void * operator new[]( std::size_t size ) { return Bench::take( size ); }
void operator delete( void * memory ) noexcept { Bench::give( memory ); }
void operator delete[]( void * memory ) noexcept { Bench::give( memory ); }
void operator delete( void * memory, std::size_t ) noexcept { Bench::give( memory ); }
void operator delete[]( void * memory, std::size_t ) noexcept { Bench::give( memory ); }
