#include "agent/Heap.h"

#include <cstdint>
#include <cstdlib>
#include <malloc.h>
#include <sys/mman.h>

namespace Agent {

void prepareHeap() {
   constexpr int never = 1 << 30;
   constexpr std::uintptr_t hugePage = std::uintptr_t{ 2 } << 20;
   constexpr std::size_t reach = std::size_t{ 256 } << 20;  // of addresses: memory is taken as it is needed
   mallopt( M_MMAP_MAX, 0 );
   mallopt( M_TRIM_THRESHOLD, never );
   mallopt( M_TOP_PAD, 16 << 20 );
   // Extends the one heap, of which it stays a part when it is given back.
   if ( void * const addresses = std::malloc( reach ) ) {
      auto const start = ( reinterpret_cast< std::uintptr_t >( addresses ) + hugePage - 1 ) / hugePage * hugePage;
      madvise( reinterpret_cast< void * >( start ), reach - hugePage, MADV_HUGEPAGE );  // best effort
      std::free( addresses );
   }
}

}  // namespace Agent
