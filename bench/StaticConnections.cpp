// What does a static unicast connection cost, from its entry into the configuration to its status, and from its
// removal to its last trace? Plain; scattered, that is deleted in any order, so that the next ones find the free lists
// out of order as well; and with an entry for later fragments beside each of its two.
#include "Floor.h"
#include "Questions.h"
#include "Rounds.h"

#include <algorithm>
#include <random>

namespace Bench {

namespace {

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
      auto const fragmented = fragmentedWorkload( n );
      caseIs( "static-fragment-add", n, [ = ] { return connectionFigures( fragmented, Operation::add, false ); } );
      caseIs( "static-fragment-delete", n, [ = ] { return connectionFigures( fragmented, Operation::del, false ); } );
   }
}

}  // namespace Bench
