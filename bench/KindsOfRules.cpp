// What do twice rules and learned connections, NAPT and address-only, cost against as many static rules, to add, to
// delete, and both (their life)? static_ratio compares rounds that take turns in one process.
#include "Questions.h"
#include "Rounds.h"

namespace Bench {

namespace {

// Address-only connections have no twins, and each needs an address of its own.
template< class Rules >
Figures kindFigures( Workload const & workload, Workload const & ofStatic, Rules const & rules, Operation operation ) {
   auto const heap = heapOfFirstRound( workload, rules );
   auto const references = staticRules( ofStatic.count, ofStatic.addresses );
   auto figures = pairedRounds(
      workload.count, [ & ] { return timeOf( operation, systemRound( workload, rules, rules ) ); },
      [ & ] { return timeOf( operation, systemRound( ofStatic, references, references ) ); }, "static" );
   auto const & use = operation == Operation::add ? heap.added : heap.deleted;
   figures[ "allocs" ] = perRule( workload, use.allocations );
   figures[ "bytes" ] = perRule( workload, use.liveBytes );
   if ( operation != Operation::add ) {
      figures[ "second_cycle_bytes" ] = static_cast< double >( heap.secondCycleBytes );
   }
   return figures;
}

void casesOf( Workload const & workload, std::string const & suffix, Operation operation ) {
   auto const n = workload.count;
   caseIs( "twice" + suffix, n,
           [ = ] { return kindFigures( workload, workload, twiceRules( n, workload.addresses ), operation ); } );
   caseIs( "napt" + suffix, n,
           [ = ] { return kindFigures( workload, workload, naptRules( n, workload.addresses ), operation ); } );
   auto addrOnly = workload;
   addrOnly.addresses = 0;
   caseIs( "address-only" + suffix, n,
           [ = ] { return kindFigures( addrOnly, workload, addrOnlyRules( n ), operation ); } );
}

}  // namespace

void registerKindsOfRules() {
   for ( auto const n : connectionCounts ) {
      Workload const plain{ .count = n, .addresses = n, .fragmentation = false };
      casesOf( plain, "-add", Operation::add );
      casesOf( plain, "-delete", Operation::del );
      casesOf( plain, "-life", Operation::life );
   }
   for ( auto const n : connectionCounts ) {
      casesOf( fragmentedWorkload( n ), "-fragment-add", Operation::add );
      casesOf( fragmentedWorkload( n ), "-fragment-delete", Operation::del );
   }
}

}  // namespace Bench
