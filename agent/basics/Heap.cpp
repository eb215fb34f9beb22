#include "agent/basics/Heap.h"

#include <cstddef>
#include <cstdlib>
#include <malloc.h>
#include <memory>
#include <sys/mman.h>

namespace Agent {

void prepareHeap() {
   constexpr int never = 1 << 30;
   constexpr std::size_t hugePage = std::size_t{ 2 } << 20;
   constexpr std::size_t reach = std::size_t{ 256 } << 20;  // of addresses: memory is taken as it is needed
   mallopt( M_MMAP_MAX, 0 );
   mallopt( M_TRIM_THRESHOLD, never );
   mallopt( M_TOP_PAD, 16 << 20 );
   // Extends the one heap, of which it stays a part when it is given back.
   if ( void * const addresses = std::malloc( reach ) ) {
      constexpr std::size_t length = reach - hugePage;
      void * start = addresses;
      std::size_t space = reach;
      madvise( std::align( hugePage, length, start, space ), length, MADV_HUGEPAGE );  // best effort
      std::free( addresses );
   }
}

}  // namespace Agent
