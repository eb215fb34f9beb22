#include "agent/host/SharedRewrites.h"

#include "agent/host/NatIdNeeds.h"

#include <algorithm>

namespace Agent {

namespace {

bool isDynamicTwin( Pfe::IngNatTableKey const & row ) {
   return ( row.containsDynamicSnaptKey() && row.dynamicSnaptKey().fragment ) ||
          ( row.containsDynamicDnaptKey() && row.dynamicDnaptKey().fragment );
}

template< class Function > void forEachTwin( DynamicRule const & rule, Settings const & settings, Function function ) {
   forEachRow( rule, settings, [ & ]( Pfe::IngNatTableKey const & row ) {
      if ( isDynamicTwin( row ) ) {
         function( row );
      }
   } );
}

// What the rule's row on that side translates to.
Netix::IpAddr translationOf( Pfe::NatProgrammerDynamicKey const & key, Pfe::NatProgrammerDynamicEntry const & entry,
                             bool ofSource ) {
   bool const isSource = entry.connection().target == Ip::Nat::NatTarget::source;
   return isSource == ofSource ? entry.global().ip : ofSource ? key.conn.destination.ip : key.conn.source.ip;
}

}  // namespace

SharedRewrites::Rewrite SharedRewrites::rewriteOf( Pfe::IngNatTableKey const & row, Connection const & connection ) {
   auto const qualifier =
      std::visit( []( auto const & rule ) { return rule.entry->intfQualifier(); }, connection.rule );
   return { matchKeyOf( row ), qualifier, row.storage().index() };
}

void SharedRewrites::leave( Connection const & connection, Settings const & settings, Pfe::NatIdManager const & ids ) {
   std::visit(
      [ & ]( auto const & rule ) {
         forEachRow( rule, settings, [ & ]( Pfe::IngNatTableKey const & row ) {
            auto const * const holders = ids.matchKeyToIngKeySet().find( matchKeyOf( row ) );
            if ( holders && ( holders->entrys() > 1 || isDynamicTwin( row ) ) ) {
               left_.insert( rewriteOf( row, connection ) );
            }
         } );
      },
      connection.rule );
}

bool SharedRewrites::takeOver( Connection const & connection, Settings const & settings ) {
   std::size_t taken = 0;
   std::visit(
      [ & ]( auto const & rule ) {
         forEachRow( rule, settings, [ & ]( Pfe::IngNatTableKey const & row ) {
            taken += left_.erase( rewriteOf( row, connection ) );
         } );
      },
      connection.rule );
   return taken != 0;
}

TwinSharers::TwinSharers( Configuration const & configuration ) : settings_( configuration.settings ) {
   for ( auto const & connection : configuration.connections ) {
      if ( auto const * const rule = std::get_if< DynamicRule >( &connection.rule ) ) {
         add( *rule );
      }
   }
}

void TwinSharers::add( DynamicRule const & rule ) {
   forEachTwin( rule, settings_,
                [ & ]( Pfe::IngNatTableKey const & twin ) { sharers_.refOrEmplace( twin ).first.insert( rule.key ); } );
}

void TwinSharers::del( DynamicRule const & rule ) {
   forEachTwin( rule, settings_, [ & ]( Pfe::IngNatTableKey const & twin ) {
      auto * const sharers = sharers_.find( twin );
      if ( sharers && sharers->erase( rule.key ) != 0 && sharers->empty() ) {
         sharers_.del( twin );
      }
   } );
}

std::vector< Pfe::NatProgrammerDynamicKey > TwinSharers::heirsOf( DynamicRule const & rule,
                                                                  Pfe::NatProgrammerConfig const & rules ) const {
   std::vector< Pfe::NatProgrammerDynamicKey > heirs;
   forEachTwin( rule, settings_, [ & ]( Pfe::IngNatTableKey const & twin ) {
      auto const * const sharers = sharers_.find( twin );
      auto const entry = sharers ? rules.dynamicEntry( *sharers->begin() ) : nullptr;
      bool const ofSource = twin.containsDynamicSnaptKey();
      if ( entry &&
           translationOf( *sharers->begin(), *entry, ofSource ) != translationOf( rule.key, *rule.entry, ofSource ) ) {
         heirs.push_back( *sharers->begin() );
      }
   } );
   return heirs;
}

}  // namespace Agent
