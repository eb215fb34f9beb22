// What does a NAT id cost when almost none is left, and when thousands of ingress keys share one? The floor of both: a
// match key with its id, and with its ingress key, in bare flat maps.
#include "Heap.h"
#include "Measure.h"
#include "Questions.h"
#include "Rules.h"

#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/unordered/unordered_flat_set.hpp>

#include <array>

namespace Bench {

namespace {

struct Holder {
   Pfe::IngNatTableKey ingKey;
   Pfe::NatMatchKey matchKey;
};

std::vector< Holder > holders( std::size_t count ) {
   std::vector< Holder > result;
   for ( auto const & rule : staticRules( ( count + 1 ) / 2, count ) ) {
      for ( auto const & ingKey : ingKeysOf( rule ) ) {
         result.push_back( { ingKey, matchKeyOf( ingKey ) } );
      }
   }
   return result;
}

// How long all of the work took, in ns.
struct Times {
   double allocate;
   double free;
};

template< class Allocate, class Free >
Times timesOf( std::vector< Holder > const & work, Allocate && allocate, Free && free ) {
   Stopwatch const allocating;
   for ( auto const & holder : work ) {
      allocate( holder );
   }
   auto const allocated = allocating.ns();
   Stopwatch const freeing;
   for ( auto const & holder : work ) {
      free( holder );
   }
   return { allocated, freeing.ns() };
}

class FloorIds {
 public:
   void allocate( Holder const & holder ) {
      ids_.insert_or_assign( holder.matchKey, Pfe::NatId( 1 ) );
      holders_.insert_or_assign( holder.matchKey, holder.ingKey );
   }
   void free( Holder const & holder ) {
      ids_.erase( holder.matchKey );
      holders_.erase( holder.matchKey );
   }

 private:
   template< class Value, U32 seed >
   using Map = boost::unordered_flat_map< Pfe::NatMatchKey, Value, Vexa::KeyHash< Pfe::NatMatchKey, seed > >;
   Map< Pfe::NatId, 4 > ids_;
   Map< Pfe::IngNatTableKey, 5 > holders_;
};

enum class Operation { allocate, free };
double timeOf( Operation operation, Times const & times ) {
   return operation == Operation::allocate ? times.allocate : times.free;
}

// `spare` ids are free when a round begins, none when all its work is allocated.
Figures almostFullPool( std::size_t spare, Operation operation ) {
   auto const all = holders( Pfe::NatId::max );
   std::vector< Holder > const held( all.begin(), all.end() - static_cast< std::ptrdiff_t >( spare + 1 ) );
   std::vector< Holder > const work( all.begin() + static_cast< std::ptrdiff_t >( held.size() ), all.end() - 1 );

   auto const manager = Orla::make< Pfe::NatIdManager >( Orla::make< Pfe::NatIdInfo >() );
   FloorIds floor;
   for ( auto const & holder : held ) {
      manager->allocateNatId( holder.ingKey, holder.matchKey );
      floor.allocate( holder );
   }
   auto const system = [ & ] {
      return timesOf(
         work, [ & ]( Holder const & holder ) { manager->allocateNatId( holder.ingKey, holder.matchKey ); },
         [ & ]( Holder const & holder ) { manager->freeNatId( holder.ingKey, holder.matchKey ); } );
   };
   HeapUse heap;
   {
      HeapWatch const watch;
      system();
      heap = watch.used();
   }
   auto figures = pairedRounds(
      work.size(), [ & ] { return timeOf( operation, system() ); },
      [ & ] {
         return timeOf( operation, timesOf(
                                      work, [ & ]( Holder const & holder ) { floor.allocate( holder ); },
                                      [ & ]( Holder const & holder ) { floor.free( holder ); } ) );
      } );
   figures[ "allocs" ] = static_cast< double >( heap.allocations ) / static_cast< double >( work.size() );
   figures[ "bytes" ] = static_cast< double >( heap.liveBytes ) / static_cast< double >( work.size() );
   return figures;
}

// All ingress keys under one match key. Floor: one set of the keys.
Figures sharedId( std::size_t count, Operation operation ) {
   auto work = holders( count );
   for ( auto & holder : work ) {
      holder.matchKey = work.front().matchKey;
   }
   using Keys = boost::unordered_flat_set< Pfe::IngNatTableKey, Vexa::KeyHash< Pfe::IngNatTableKey, 5 > >;
   auto const managerRound = [ & ] {
      auto const manager = Orla::make< Pfe::NatIdManager >( Orla::make< Pfe::NatIdInfo >() );
      return timesOf(
         work, [ & ]( Holder const & holder ) { manager->allocateNatId( holder.ingKey, holder.matchKey ); },
         [ & ]( Holder const & holder ) { manager->freeNatId( holder.ingKey, holder.matchKey ); } );
   };
   return pairedRounds(
      work.size(), [ & ] { return timeOf( operation, managerRound() ); },
      [ & ] {
         Keys keys;
         return timeOf( operation, timesOf(
                                      work, [ & ]( Holder const & holder ) { keys.insert( holder.ingKey ); },
                                      [ & ]( Holder const & holder ) { keys.erase( holder.ingKey ); } ) );
      } );
}

}  // namespace

void registerNatIds() {
   constexpr std::size_t spare = 500;
   caseIs( "nat-id-allocate", Pfe::NatId::max, [] { return almostFullPool( spare, Operation::allocate ); } );
   caseIs( "nat-id-free", Pfe::NatId::max, [] { return almostFullPool( spare, Operation::free ); } );
   for ( auto const keys : std::array< std::size_t, 2 >{ 100, 10'000 } ) {
      caseIs( "shared-id-allocate", keys, [ = ] { return sharedId( keys, Operation::allocate ); } );
      caseIs( "shared-id-free", keys, [ = ] { return sharedId( keys, Operation::free ); } );
   }
}

}  // namespace Bench
