// What does a static unicast connection cost, from its entry into the configuration to its status, and from its
// removal to its last trace? Plain; scattered, that is deleted in any order, so that the next ones find the free lists
// out of order as well; and with an entry for later fragments beside each of its two.
#include "Floor.h"
#include "Heap.h"
#include "Measure.h"
#include "Questions.h"
#include "System.h"

#include <algorithm>
#include <random>

namespace Bench {

namespace {

// Twins take a NAT id per address and side beside the two of each connection, so many rules must share addresses.
constexpr std::size_t sharedAddresses = 2000;

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

double add( System & system, StaticRules const & rules ) {
   Stopwatch const watch;
   system.configure( rules );
   system.settle();
   return watch.ns();
}

double del( System & system, StaticRules const & rules ) {
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
Times systemRound( Workload const & workload, StaticRules const & rules, StaticRules const & gone ) {
   System system;
   system.config().fragmentationEnabledIs( workload.fragmentation );
   auto const added = add( system, rules );
   system.requireProgrammed( rules.size(), workload.ingressRows(), workload.natIds() );
   auto const deleted = del( system, gone );
   system.requireProgrammed( 0, 0, 0 );
   return { added, deleted };
}

Times floorRound( StaticRules const & rules, StaticRules const & gone ) {
   constexpr std::size_t rowsOfOne = 11;
   Floor floor;
   Stopwatch const adding;
   floor.add( rules );
   auto const added = adding.ns();
   require( floor.rows() == rowsOfOne * rules.size(), "the floor holds its rows" );
   Stopwatch const deleting;
   floor.del( gone );
   auto const deleted = deleting.ns();
   require( floor.rows() == 0, "the floor is empty" );
   return { added, deleted };
}

// What the collection of configured rules takes by itself, in ns, allocations and bytes for all of them.
struct ConfigurationAlone {
   double ns;
   HeapUse heap;
};

ConfigurationAlone configurationAlone( StaticRules const & rules ) {
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
HeapFigures heapOfFirstRound( Workload const & workload, StaticRules const & rules ) {
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

double perRule( Workload const & workload, long amount ) {
   return static_cast< double >( amount ) / static_cast< double >( workload.count );
}

enum class Operation { add, del };
double timeOf( Operation operation, Times const & times ) {
   return operation == Operation::add ? times.add : times.del;
}

Figures connectionFigures( Workload const & workload, Operation operation, bool scattered ) {
   auto const rules = staticRules( workload.count, workload.addresses );
   auto gone = rules;
   if ( scattered ) {
      std::ranges::shuffle( gone, std::mt19937( 1 ) );
   }
   auto const heap = heapOfFirstRound( workload, rules );
   auto const system = [ & ] { return timeOf( operation, systemRound( workload, rules, gone ) ); };
   auto figures =
      pairedRounds( workload.count, system, [ & ] { return timeOf( operation, floorRound( rules, gone ) ); } );
   auto const & use = operation == Operation::add ? heap.added : heap.deleted;
   figures[ "allocs" ] = perRule( workload, use.allocations );
   figures[ "bytes" ] = perRule( workload, use.liveBytes );
   if ( operation == Operation::add ) {
      figures[ "config_ns" ] = configurationAlone( rules ).ns / static_cast< double >( workload.count );
   } else {
      figures[ "second_cycle_bytes" ] = static_cast< double >( heap.secondCycleBytes );
   }
   if ( workload.fragmentation ) {
      auto plain = workload;
      plain.fragmentation = false;
      auto const paired = pairedRounds( workload.count, system,
                                        [ & ] { return timeOf( operation, systemRound( plain, rules, gone ) ); } );
      figures[ "plain_ns" ] = paired.at( "floor_ns" );
      figures[ "plain_ratio" ] = paired.at( "ratio" );
   }
   return figures;
}

}  // namespace

void registerStaticConnections() {
   for ( auto const n : connectionCounts ) {
      Workload const plain{ .count = n, .addresses = n, .fragmentation = false };
      caseIs( "static-add", n, [ = ] { return connectionFigures( plain, Operation::add, false ); } );
      caseIs( "static-delete", n, [ = ] { return connectionFigures( plain, Operation::del, false ); } );
      caseIs( "static-add-scattered", n, [ = ] { return connectionFigures( plain, Operation::add, true ); } );
      caseIs( "static-delete-scattered", n, [ = ] { return connectionFigures( plain, Operation::del, true ); } );
   }
   for ( auto const n : connectionCounts ) {
      Workload const fragmented{
         .count = n, .addresses = sharedAddresses * n / connectionCounts.back(), .fragmentation = true };
      caseIs( "static-fragment-add", n, [ = ] { return connectionFigures( fragmented, Operation::add, false ); } );
      caseIs( "static-fragment-delete", n, [ = ] { return connectionFigures( fragmented, Operation::del, false ); } );
   }
}

}  // namespace Bench
