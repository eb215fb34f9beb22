// What does it cost to change a connection in place, from the new entry to its status?
#include "Floor.h"
#include "Heap.h"
#include "Measure.h"
#include "Questions.h"
#include "System.h"

namespace Bench {

namespace {

double configureAndSettle( System & system, StaticRules const & rules ) {
   Stopwatch const watch;
   system.configure( rules );
   system.settle();
   return watch.ns();
}

Figures updateFigures( std::size_t count ) {
   auto const rules = staticRules( count, count );
   auto const changed = withNextHop( rules );

   System system;
   configureAndSettle( system, rules );
   HeapUse heap;
   {
      HeapWatch const watch;
      configureAndSettle( system, changed );
      heap = watch.used();
   }
   Floor floor;
   floor.add( rules );

   bool systemIsChanged = true;
   bool floorIsChanged = false;
   auto figures = pairedRounds(
      count,
      [ & ] {
         systemIsChanged = !systemIsChanged;
         auto const ns = configureAndSettle( system, systemIsChanged ? changed : rules );
         system.requireProgrammed( count, 2 * count, 2 * count );
         return ns;
      },
      [ & ] {
         floorIsChanged = !floorIsChanged;
         Stopwatch const watch;
         floor.update( floorIsChanged ? changed : rules );
         return watch.ns();
      } );
   figures[ "allocs" ] = static_cast< double >( heap.allocations ) / static_cast< double >( count );
   figures[ "bytes" ] = static_cast< double >( heap.liveBytes ) / static_cast< double >( count );
   return figures;
}

}  // namespace

void registerUpdates() {
   for ( auto const n : connectionCounts ) {
      caseIs( "static-update", n, [ = ] { return updateFigures( n ); } );
   }
}

}  // namespace Bench
