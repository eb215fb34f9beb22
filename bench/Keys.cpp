// What do the operations of the keys cost: hash, compare, print, parse? There is no floor for them.
#include "Questions.h"
#include "Rules.h"

#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace Bench {

namespace {

// Enough that no branch is learned by heart, and few enough to stay in the nearest cache.
constexpr std::size_t keyCount = 128;

std::vector< Pfe::NatMatchKey > matchKeys() {
   std::vector< Pfe::NatMatchKey > keys;
   for ( auto const & rule : staticRules( keyCount, keyCount ) ) {
      keys.push_back( matchKeyOf( ingKeysOf( rule )[ 0 ] ) );
   }
   return keys;
}

std::vector< Pfe::IngNatTableKey > ingKeys() {
   std::vector< Pfe::IngNatTableKey > keys;
   for ( auto const & rule : staticRules( keyCount, keyCount ) ) {
      keys.push_back( ingKeysOf( rule )[ 0 ] );
   }
   return keys;
}

// Registers a case that calls operation( i ) for i in turn.
template< class Operation > void keyCaseIs( std::string const & name, Operation operation ) {
   auto const measure = [ = ]( benchmark::State & state ) {
      std::size_t i = 0;
      for ( [[maybe_unused]] auto const _ : state ) {
         benchmark::DoNotOptimize( operation( i ) );
         i = ( i + 1 ) % keyCount;
      }
   };
   benchmark::RegisterBenchmark( ( name + "/1" ).c_str(), measure )->Unit( benchmark::kNanosecond )->MinTime( 0.1 );
}

template< class Key > void registerKey( std::string const & name, std::vector< Key > const & keys ) {
   auto const equal = keys;
   std::vector< std::string > texts;
   for ( auto const & key : keys ) {
      texts.push_back( Vexa::stringOf( key ) );
   }
   keyCaseIs( name + "-hash", [ = ]( std::size_t i ) { return Vexa::hash( keys[ i ], 1 ); } );
   keyCaseIs( name + "-equal", [ = ]( std::size_t i ) { return keys[ i ] == equal[ i ]; } );
   keyCaseIs( name + "-order", [ = ]( std::size_t i ) { return keys[ i ] < keys[ ( i + 1 ) % keyCount ]; } );
   keyCaseIs( name + "-print", [ = ]( std::size_t i ) { return Vexa::stringOf( keys[ i ] ); } );
   keyCaseIs( name + "-parse", [ = ]( std::size_t i ) { return Vexa::parseWhole< Key >( texts[ i ] ); } );
}

}  // namespace

void registerKeys() {
   registerKey( "match-key", matchKeys() );
   registerKey( "ingress-key", ingKeys() );
}

}  // namespace Bench
