// What the process takes from the heap, counted by replacing operator new and operator delete.
#pragma once

namespace Bench {

struct HeapUse {
   long allocations = 0;
   long liveBytes = 0;  // as the allocator rounds them up
};

// Counts from its creation to its end; one at a time. While none exists, counting costs a look at one flag.
class HeapWatch {
 public:
   HeapWatch();
   ~HeapWatch();
   HeapWatch( HeapWatch const & ) = delete;
   HeapWatch & operator=( HeapWatch const & ) = delete;

   // Since the creation. The live bytes are negative when more was given back than taken.
   HeapUse used() const;
};

// Keeps freed memory in the process and large blocks inside the heap: page faults would drown everything else.
void keepHeapPages();

}  // namespace Bench
