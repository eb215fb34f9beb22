#include "agent/configuration/Configuration.h"

#include <utility>
#include <variant>

namespace Agent {

void add( Configuration & configuration, Connection connection ) {
   auto & rules = *configuration.rules;
   std::visit(
      [ & ]( auto const & rule ) {
         configuration.qualifiers.emplace( rule.key.natIntf, rule.entry->intfQualifier() );
         configure( rules, rule );
      },
      connection.rule );
   if ( auto const * const rule = std::get_if< DynamicRule >( &connection.rule ) ) {
      configuration.placeOfDynamic[ rule->key ] = configuration.connections.size();
   }
   configuration.connections.push_back( std::move( connection ) );
}

void remove( Configuration & configuration, Pfe::NatProgrammerDynamicKey const & key ) {
   auto const found = configuration.placeOfDynamic.find( key );
   if ( found == configuration.placeOfDynamic.end() ) {
      return;
   }
   auto & connections = configuration.connections;
   auto const place = found->second;
   configuration.placeOfDynamic.erase( found );
   if ( place + 1 != connections.size() ) {
      connections[ place ] = std::move( connections.back() );
      configuration.placeOfDynamic[ std::get< DynamicRule >( connections[ place ].rule ).key ] = place;
   }
   connections.pop_back();
   configuration.rules->dynamicEntryDel( key );
}

}  // namespace Agent
