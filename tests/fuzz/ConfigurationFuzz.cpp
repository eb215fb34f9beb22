// Configurations of any bytes: either they are refused with a text, or every entry of theirs is a rule with rows of its
// own, and every filter of a trap one rule.
#include "agent/basics/UnusableInput.h"
#include "agent/configuration/Configuration.h"

#include <Vexa/Assert.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput( std::uint8_t const * data, std::size_t size ) {
   std::string_view const text( reinterpret_cast< char const * >( data ), size );
   try {
      auto const configuration = Agent::configurationIn( "input", text );
      auto const & rules = *configuration.rules;
      VEXA_ASSERT( configuration.connections.size() ==
                   rules.staticEntry().count() + rules.twiceEntry().count() + rules.dynamicEntry().count() );
      VEXA_ASSERT( configuration.traps.size() == rules.trapEntry().count() );
      for ( auto const & trap : configuration.traps ) {
         for ( auto const & filter : trap.entry->rule().trapFilter ) {
            for ( auto const * const ports : { &filter.sourcePort, &filter.destinationPort } ) {
               U8 count = 0;
               VEXA_ASSERT( Acl::generatePortRange( *ports, count, true ).at( 0 ).size() == 1 && count == 1 );
            }
         }
      }
      std::set< Pfe::IngNatTableKey > rows;
      for ( auto const & connection : configuration.connections ) {
         for ( auto const & row : ingressRowsOf( connection, configuration.settings ) ) {
            VEXA_ASSERT( rows.insert( row ).second );
         }
      }
   } catch ( Agent::UnusableInput const & fault ) {
      VEXA_ASSERT( std::string_view( fault.what() ).starts_with( "input: " ) );
   }
   return 0;
}
