// What does a restart cost per connection, when every NAT id is known from the run before: reserve the ids, hand over
// the whole configuration, sweep, settle? fresh_ratio compares it with the same start without any known id.
#include "Floor.h"
#include "Heap.h"
#include "Measure.h"
#include "Questions.h"
#include "System.h"

#include <array>
#include <utility>

namespace Bench {

namespace {

Pfe::NatProgrammerConfig::Ptr configurationOf( StaticRules const & rules ) {
   auto const config = Orla::make< Pfe::NatProgrammerConfig >();
   configure( *config, rules );
   return config;
}

// As the agent fills them from its store.
Pfe::NatIdInfo::Ptr persistedIds( StaticRules const & rules ) {
   auto const ids = Orla::make< Pfe::NatIdInfo >();
   U64 last = 0;
   for ( auto const & rule : rules ) {
      for ( auto const & ingKey : ingKeysOf( rule ) ) {
         ids->matchKeyToNatIdIs( matchKeyOf( ingKey ), Pfe::NatId( ++last ) );
      }
   }
   return ids;
}

// A restarted process begins with empty free lists. Deleting in the order of the replay, and not by clearing the
// tables, brings them back to something like it: blocks that follow one another.
void deleteAsReplayed( System & system ) {
   std::vector< Pfe::NatProgrammerStaticKey > keys;
   system.config().staticEntry().forEach( [ & ]( auto const & key, auto const & ) { keys.push_back( key ); } );
   for ( auto const & key : keys ) {
      system.config().staticEntryDel( key );
   }
   system.settle();
}

double start( StaticRules const & rules, Pfe::NatIdInfo::Ptr ids ) {
   System system( configurationOf( rules ), std::move( ids ) );
   Stopwatch const watch;
   system.start();
   auto const ns = watch.ns();
   system.requireProgrammed( rules.size(), 2 * rules.size(), 2 * rules.size() );
   deleteAsReplayed( system );
   return ns;
}

HeapUse heapOfStart( StaticRules const & rules ) {
   System().settle();  // what every process has once, the ring trace before all
   System system( configurationOf( rules ), persistedIds( rules ) );
   HeapUse used;
   {
      HeapWatch const heap;
      system.start();
      used = heap.used();
   }
   deleteAsReplayed( system );
   return used;
}

Figures restartFigures( std::size_t connections ) {
   auto const rules = staticRules( connections, connections );
   auto const heap = heapOfStart( rules );

   auto const restart = [ & ] { return start( rules, persistedIds( rules ) ); };
   auto figures = pairedRounds( connections, restart, [ & ] {
      Floor floor;
      Stopwatch const watch;
      floor.add( rules );
      return watch.ns();
   } );
   auto const fresh =
      pairedRounds( connections, restart, [ & ] { return start( rules, Orla::make< Pfe::NatIdInfo >() ); } );
   figures[ "fresh_ratio" ] = fresh.at( "ratio" );
   figures[ "allocs" ] = static_cast< double >( heap.allocations ) / static_cast< double >( connections );
   figures[ "bytes" ] = static_cast< double >( heap.liveBytes ) / static_cast< double >( connections );
   figures[ "ids" ] = static_cast< double >( 2 * connections );
   return figures;
}

}  // namespace

void registerRestart() {
   for ( auto const connections : std::array< std::size_t, 2 >{ 15'000, 30'000 } ) {
      caseIs( "restart", connections, [ = ] { return restartFigures( connections ); } );
   }
}

}  // namespace Bench
