// One round of programming and deleting many rules of a kind, and what it takes from the heap.
#pragma once

#include "Heap.h"
#include "Measure.h"
#include "System.h"

#include <algorithm>

namespace Bench {

// Twins take a NAT id per address and side beside the two of each connection, so many rules must share addresses.
inline constexpr std::size_t sharedAddresses = 2000;

struct Workload {
   std::size_t count;
   std::size_t addresses;
   bool fragmentation;

   std::size_t ingressRows() const { return 2 * count + twins(); }
   std::size_t natIds() const { return ingressRows(); }

 private:
   // One per address and direction.
   std::size_t twins() const { return fragmentation ? 2 * std::min( count, addresses ) : 0; }
};

template< class Rules > double add( System & system, Rules const & rules ) {
   Stopwatch const watch;
   system.configure( rules );
   system.settle();
   return watch.ns();
}

template< class Rules > double del( System & system, Rules const & rules ) {
   Stopwatch const watch;
   system.unconfigure( rules );
   system.settle();
   return watch.ns();
}

struct Times {
   double add;
   double del;
};

// Fresh tables each time; deleted in the order of `gone`.
template< class Rules > Times systemRound( Workload const & workload, Rules const & rules, Rules const & gone ) {
   System system;
   system.config().fragmentationEnabledIs( workload.fragmentation );
   auto const added = add( system, rules );
   system.requireProgrammed( rules.size(), workload.ingressRows(), workload.natIds() );
   auto const deleted = del( system, gone );
   system.requireProgrammed( 0, 0, 0 );
   return { added, deleted };
}

// What the collection of configured rules takes by itself, in ns, allocations and bytes for all of them.
struct ConfigurationAlone {
   double ns;
   HeapUse heap;
};

template< class Rules > ConfigurationAlone configurationAlone( Rules const & rules ) {
   auto const config = Orla::make< Pfe::NatProgrammerConfig >();
   HeapWatch const heap;
   Stopwatch const watch;
   configure( *config, rules );
   return { watch.ns(), heap.used() };
}

struct HeapFigures {
   HeapUse added;          // beyond the configuration
   HeapUse deleted;        // allocations of the deletes; bytes still held after them
   long secondCycleBytes;  // held after a second cycle beyond those after the first
};

// To be called before anything else was programmed in this process.
template< class Rules > HeapFigures heapOfFirstRound( Workload const & workload, Rules const & rules ) {
   configurationAlone(
      rules );  // fills the free list of its nodes, from which the system's configuration takes them too
   auto const alone = configurationAlone( rules ).heap;
   System system;
   system.config().fragmentationEnabledIs( workload.fragmentation );
   HeapWatch const heap;
   add( system, rules );
   auto const added = heap.used();
   del( system, rules );
   auto const deleted = heap.used();
   add( system, rules );
   del( system, rules );
   auto const second = heap.used();
   return { { added.allocations - alone.allocations, added.liveBytes - alone.liveBytes },
            { deleted.allocations - added.allocations, deleted.liveBytes },
            second.liveBytes - deleted.liveBytes };
}

inline double perRule( Workload const & workload, long amount ) {
   return static_cast< double >( amount ) / static_cast< double >( workload.count );
}

enum class Operation { add, del, life };  // a life: an add and a delete
inline double timeOf( Operation operation, Times const & times ) {
   return ( operation == Operation::del ? 0 : times.add ) + ( operation == Operation::add ? 0 : times.del );
}

// With twins, as many as can be programmed at once.
inline Workload fragmentedWorkload( std::size_t count ) {
   return { .count = count, .addresses = sharedAddresses * count / connectionCounts.back(), .fragmentation = true };
}

}  // namespace Bench
