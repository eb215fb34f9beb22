// What does it cost to replace one connection of many, turn by turn: one goes, one comes, both settle? batch_ratio
// compares it with replacing a tenth of as many live connections in two turns, sum_ratio with adding all of them to
// empty tables and deleting them again, both with filled free lists. allocs are those of a step.
#include "Questions.h"
#include "Rounds.h"

namespace Bench {

namespace {

template< class Rules > class Churn {
 public:
   // `rules` are a few more than live at once.
   Churn( Rules const & rules, std::size_t live ) : rules_( rules ), live_( live ) {
      Rules const first( rules.begin(), rules.begin() + static_cast< std::ptrdiff_t >( live ) );
      add( system_, first );
   }

   double ns( std::size_t steps ) {
      Stopwatch const watch;
      for ( std::size_t i = 0; i < steps; ++i ) {
         unconfigure( system_.config(), going( i ) );
         configure( system_.config(), coming( i ) );
         system_.settle();
      }
      return ended( watch, steps );
   }

   // The same connections, many in a turn.
   double nsInBatches( std::size_t steps ) {
      auto const batch = rules_.size() - live_;
      Stopwatch const watch;
      for ( std::size_t first = 0; first < steps; first += batch ) {
         auto const end = std::min( first + batch, steps );
         for ( auto i = first; i < end; ++i ) {
            unconfigure( system_.config(), going( i ) );
         }
         system_.settle();
         for ( auto i = first; i < end; ++i ) {
            configure( system_.config(), coming( i ) );
         }
         system_.settle();
      }
      return ended( watch, steps );
   }

 private:
   auto const & going( std::size_t step ) const { return rules_[ ( next_ + step ) % rules_.size() ]; }
   auto const & coming( std::size_t step ) const { return rules_[ ( next_ + live_ + step ) % rules_.size() ]; }

   double ended( Stopwatch const & watch, std::size_t steps ) {
      auto const ns = watch.ns();
      next_ += steps;
      system_.requireProgrammed( live_, 2 * live_, 2 * live_ );
      return ns;
   }

   System system_;
   Rules const & rules_;
   std::size_t live_;
   std::size_t next_ = 0;
};

template< class Rules > Figures churnFigures( Rules const & rules, std::size_t live ) {
   Workload const workload{ .count = live, .addresses = live, .fragmentation = false };
   Rules const first( rules.begin(), rules.begin() + static_cast< std::ptrdiff_t >( live ) );
   systemRound( workload, first, first );
   Churn< Rules > churn( rules, live );
   churn.ns( rules.size() );
   long allocations = 0;
   {
      HeapWatch const watch;
      churn.ns( live );
      allocations = watch.used().allocations;
   }
   auto figures = pairedRounds(
      live, [ & ] { return churn.ns( live ); },
      [ & ] {
         auto const times = systemRound( workload, first, first );
         return times.add + times.del;
      },
      "sum" );
   Churn< Rules > batches( rules, live );
   auto const batched = pairedRounds(
      live, [ & ] { return churn.ns( live ); }, [ & ] { return batches.nsInBatches( live ); }, "batch" );
   figures[ "batch_ns" ] = batched.at( "batch_ns" );
   figures[ "batch_ratio" ] = batched.at( "batch_ratio" );
   figures[ "allocs" ] = perRule( workload, allocations );
   return figures;
}

}  // namespace

void registerChurn() {
   for ( auto const n : connectionCounts ) {
      auto const count = n + n / 10;
      caseIs( "static-churn", n, [ = ] { return churnFigures( staticRules( count, count ), n ); } );
      caseIs( "twice-churn", n, [ = ] { return churnFigures( twiceRules( count, count ), n ); } );
      caseIs( "napt-churn", n, [ = ] { return churnFigures( naptRules( count, count ), n ); } );
      caseIs( "address-only-churn", n, [ = ] { return churnFigures( addrOnlyRules( count ), n ); } );
   }
}

}  // namespace Bench
