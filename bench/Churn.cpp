// What does it cost to replace one connection of many, turn by turn: one goes, one comes, both settle? sum_ratio
// compares it with connections that go, and others that come, each in a turn of its own, among as many live ones;
// batch_ratio with a tenth of them going in one turn and coming in the next. allocs are those of a step.
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

   // The same steps, but a tenth of the connections goes, turn by turn or all in one, before as many come.
   double nsApart( std::size_t steps, bool inOneTurn ) {
      auto const tenth = rules_.size() - live_;
      auto const each = [ & ]( std::size_t first, auto && change ) {
         for ( auto i = first; i < std::min( first + tenth, steps ); ++i ) {
            change( i );
            if ( !inOneTurn ) {
               system_.settle();
            }
         }
         system_.settle();
      };
      Stopwatch const watch;
      for ( std::size_t first = 0; first < steps; first += tenth ) {
         each( first, [ & ]( std::size_t i ) { unconfigure( system_.config(), going( i ) ); } );
         each( first, [ & ]( std::size_t i ) { configure( system_.config(), coming( i ) ); } );
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
   Churn< Rules > churn( rules, live );
   churn.ns( rules.size() );
   long allocations = 0;
   {
      HeapWatch const watch;
      churn.ns( live );
      allocations = watch.used().allocations;
   }
   auto const stepwise = [ & ] { return churn.ns( live ); };
   auto figures = pairedRounds(
      live, stepwise, [ & ] { return churn.nsApart( live, false ); }, "sum" );
   auto const batched = pairedRounds(
      live, stepwise, [ & ] { return churn.nsApart( live, true ); }, "batch" );
   figures[ "batch_ns" ] = batched.at( "batch_ns" );
   figures[ "batch_ratio" ] = batched.at( "batch_ratio" );
   figures[ "allocs" ] = static_cast< double >( allocations ) / static_cast< double >( live );
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
