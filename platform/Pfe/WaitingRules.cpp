#include <Pfe/WaitingRules.h>

#include <algorithm>
#include <utility>

namespace Pfe {

void WaitingRules::poolIs( NatIdInfo::PtrConst pool ) {
   if ( pool_ ) {
      pool_->matchKeyToNatId().watcherDel( *this );
   }
   pool_ = std::move( pool );
   if ( pool_ ) {
      pool_->matchKeyToNatId().watcherIs( *this );
   }
}

std::size_t WaitingRules::lackedOf( MatchKeys const & matchKeys ) const {
   return !pool_ ? 0 : static_cast< std::size_t >( std::ranges::count_if( matchKeys, [ & ]( auto const & key ) {
      return !pool_->matchKeyToNatId().has( key );
   } ) );
}

void WaitingRules::add( U64 number, Key const & key, MatchKeys const * matchKeys ) {
   Rule rule{ .key = key, .matchKeys = {}, .lacked = 1 };
   if ( matchKeys ) {
      rule.matchKeys.assign( matchKeys->begin(), matchKeys->end() );
      rule.lacked = lackedOf( *matchKeys );
   }
   byLacked_[ rule.lacked ].insert( number );
   for ( auto const & matchKey : rule.matchKeys ) {
      waiting_.refOrEmplace( matchKey ).first.is( number );
   }
   rules_.emplace( number, std::move( rule ) );
}

void WaitingRules::del( U64 number ) {
   auto const found = rules_.find( number );
   if ( found == rules_.end() ) {
      return;
   }
   byLacked_[ found->second.lacked ].erase( number );
   for ( auto const & matchKey : found->second.matchKeys ) {
      auto & numbers = *waiting_.find( matchKey );
      numbers.del( number );
      if ( numbers.count() == 0 ) {
         waiting_.del( matchKey );
      }
   }
   rules_.erase( found );
}

std::optional< WaitingRules::Key > WaitingRules::next( U64 last ) const {
   auto const none = last + 1;
   auto lowest = none;
   for ( std::size_t lacked = 0; lacked <= std::min( freeIds(), NatIdDemand::most ); ++lacked ) {
      lowest = std::min( lowest, byLacked_[ lacked ].empty() ? none : *byLacked_[ lacked ].begin() );
   }
   return lowest == none ? std::nullopt : std::optional( rules_.at( lowest ).key );
}

void WaitingRules::onKey( NatMatchKey const & key, NatId const * previous, NatId const * current ) {
   if ( rules_.empty() || bool( previous ) == bool( current ) ) {
      return;
   }
   if ( auto const * const numbers = waiting_.find( key ) ) {
      numbers->forEach( [ & ]( U64 number ) {
         auto & lacked = rules_.at( number ).lacked;
         byLacked_[ lacked ].erase( number );
         lacked += current ? std::size_t( -1 ) : 1;
         byLacked_[ lacked ].insert( number );
      } );
   }
}

}  // namespace Pfe
