// Random histories of NAT ids, restarts among them, against a model of a few lines.
#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <map>
#include <optional>
#include <ostream>
#include <set>
#include <vector>

namespace {

enum class Event : U8 { allocate, free, restart, replaySome, sweep };

struct Step {
   Event event;
   unsigned matchKey;
   unsigned ingKey;
};

std::ostream & operator<<( std::ostream & out, Step const & step ) {
   static constexpr char const * names[] = { "allocate", "free", "restart", "replaySome", "sweep" };
   return out << names[ static_cast< std::size_t >( step.event ) ] << ' ' << step.matchKey << '/' << step.ingKey;
}

constexpr unsigned matchKeys = 9;
constexpr unsigned ingKeys = 4;
constexpr U32 poolSize = 6;  // fewer ids than match keys

// Keys of all kinds.
Pfe::NatMatchKey matchKey( unsigned i ) {
   Netix::IpAndPort const pair{ Netix::IpAddr( i ), 1 };
   switch ( i % 3 ) {
   case 0: return Pfe::StaticNatMatchKey{ .natIntf = "ethernet1", .ipAndPortOld = pair };
   case 1: return Pfe::TwiceNatMatchKey{ .srcIpAndPortOld = pair };
   default: return Pfe::DynamicNatMatchKey{ .first = pair };
   }
}

Pfe::IngNatTableKey ingKey( unsigned i ) {
   switch ( i % 3 ) {
   case 0: return Pfe::IngStaticNatTable::Key{ .vrfId = i };
   case 1: return Pfe::IngTwiceNatTable::Key{ .vrfId = i };
   default: return Pfe::IngDynamicSnaptTable::Key{ .firstPort = static_cast< U16 >( i ) };
   }
}

class IdHistory {
 public:
   IdHistory() { restart(); }

   void happens( Step const & step ) {
      switch ( step.event ) {
      case Event::allocate: allocate( step.matchKey, step.ingKey ); break;
      case Event::free:
         // An id that nobody holds can not be freed.
         if ( !ids_.contains( step.matchKey ) || holders_.contains( step.matchKey ) ) {
            free( step.matchKey, step.ingKey );
         }
         break;
      case Event::restart: restart(); break;
      case Event::replaySome:
         for ( auto const & [ key, id ] : std::map( ids_ ) ) {
            if ( key % 2 == step.matchKey % 2 ) {
               allocate( key, step.ingKey );
            }
         }
         break;
      case Event::sweep:
         std::erase_if( ids_, [ & ]( auto const & id ) { return !holders_.contains( id.first ); } );
         manager_->sweepAndCleanupNatIds();
         break;
      }
      check();
   }

 private:
   void allocate( unsigned match, unsigned ing ) {
      std::set< U32 > used;
      for ( auto const & [ key, id ] : ids_ ) {
         used.insert( id );
      }
      U32 lowest = 1;
      while ( used.contains( lowest ) ) {
         ++lowest;
      }
      if ( !ids_.contains( match ) && lowest > poolSize ) {
         RC_ASSERT_THROWS_AS( manager_->allocateNatId( ingKey( ing ), matchKey( match ) ), Vexa::RangeException );
         return;
      }
      auto const id = ids_.try_emplace( match, lowest ).first->second;
      holders_[ match ].insert( ing );
      RC_ASSERT( manager_->allocateNatId( ingKey( ing ), matchKey( match ) ) == id );
   }

   void free( unsigned match, unsigned ing ) {
      manager_->freeNatId( ingKey( ing ), matchKey( match ) );
      auto const holding = holders_.find( match );
      if ( holding != holders_.end() ) {
         holding->second.erase( ing );
         if ( holding->second.empty() ) {
            holders_.erase( holding );
            ids_.erase( match );
         }
      }
   }

   void restart() {
      manager_ = Orla::make< Pfe::NatIdManager >( info_ );
      for ( U32 id = poolSize + 1; id <= Pfe::NatId::max; ++id ) {
         manager_->natIdBitmap()->setBit( id );
      }
      holders_.clear();
   }

   void check() const {
      std::set< U32 > used{ 0 };
      for ( unsigned match = 0; match < matchKeys; ++match ) {
         auto const known = ids_.find( match );
         auto const * const persisted = info_->matchKeyToNatId().find( matchKey( match ) );
         RC_ASSERT( ( persisted != nullptr ) == ( known != ids_.end() ) );
         RC_ASSERT( manager_->getNatId( matchKey( match ) ) == ( persisted ? known->second : 1 ) );
         if ( persisted ) {
            RC_ASSERT( persisted->value() == known->second );
            used.insert( known->second );
         }
         Pfe::IngKeySet expected;
         auto const holding = holders_.find( match );
         for ( auto const ing : holding == holders_.end() ? std::set< unsigned >() : holding->second ) {
            expected.entryIs( ingKey( ing ) );
         }
         RC_ASSERT( manager_->matchKeyToIngKeySet( matchKey( match ) ) == expected );
      }
      RC_ASSERT( manager_->matchKeyToIngKeySet().count() == holders_.size() );
      for ( U32 id = 0; id <= poolSize; ++id ) {
         RC_ASSERT( manager_->natIdBitmap()->bit( id ) == used.contains( id ) );
      }
   }

   Pfe::NatIdInfo::Ptr const info_ = Orla::make< Pfe::NatIdInfo >();
   Pfe::NatIdManager::Ptr manager_;
   std::map< unsigned, U32 > ids_;                       // by match key; they survive
   std::map< unsigned, std::set< unsigned > > holders_;  // of this run
};

RC_GTEST_PROP( NatIdHistory, IdsAreThoseOfTheModelAcrossRestarts, () ) {
   auto const event = rc::gen::weightedElement< Event >( { { 9, Event::allocate },
                                                           { 7, Event::free },
                                                           { 1, Event::restart },
                                                           { 1, Event::replaySome },
                                                           { 1, Event::sweep } } );
   auto const step =
      rc::gen::map( rc::gen::tuple( event, rc::gen::inRange( 0u, matchKeys ), rc::gen::inRange( 0u, ingKeys ) ),
                    []( auto const & t ) {
                       return Step{ std::get< 0 >( t ), std::get< 1 >( t ), std::get< 2 >( t ) };
                    } );
   IdHistory history;
   for ( auto const & happening : *rc::gen::resize( 200, rc::gen::container< std::vector< Step > >( step ) ) ) {
      history.happens( happening );
   }
}

}  // namespace
