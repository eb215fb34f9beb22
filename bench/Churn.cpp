// What does it cost to replace one connection of many, turn by turn: one goes, one comes, both settle? sum_ratio
// compares it with a delete and an add out of many that settle together, when the free lists are filled. allocs are
// those of a step.
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
      for ( std::size_t i = 0; i < steps; ++i, ++next_ ) {
         unconfigure( system_.config(), rules_[ next_ % rules_.size() ] );
         configure( system_.config(), rules_[ ( next_ + live_ ) % rules_.size() ] );
         system_.settle();
      }
      auto const ns = watch.ns();
      system_.requireProgrammed( live_, 2 * live_, 2 * live_ );
      return ns;
   }

 private:
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
