// Listings of any bytes: either they are refused with a text, or every line of theirs is accounted for.
#include "agent/learning/ConntrackListing.h"

#include "agent/basics/UnusableInput.h"

#include <Vexa/Assert.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput( std::uint8_t const * data, std::size_t size ) {
   std::string_view const text( reinterpret_cast< char const * >( data ), size );
   Agent::RowClaims claims;
   try {
      auto const listing = Agent::conntrackListing( "input", text, claims );
      std::vector< U32 > lines;
      for ( auto const & learned : listing.learned ) {
         lines.push_back( learned.line );
         // What was learned is claimed, so that nothing can be learned over it.
         VEXA_ASSERT( claims.claim( learned.connection, 1 ) == learned.line );
      }
      for ( auto const & entry : listing.passedOver ) {
         lines.push_back( entry.line );
         VEXA_ASSERT( entry.other < entry.line );
      }
      auto const lineCount = 1 + std::ranges::count( text, '\n' );
      std::ranges::sort( lines );
      VEXA_ASSERT( std::ranges::adjacent_find( lines ) == lines.end() );
      VEXA_ASSERT( lines.empty() || ( lines.front() >= 1 && lines.back() <= lineCount ) );
      VEXA_ASSERT( !listing.summary().empty() );
   } catch ( Agent::UnusableInput const & fault ) {
      VEXA_ASSERT( std::string_view( fault.what() ).starts_with( "input: line " ) );
   }
   return 0;
}
