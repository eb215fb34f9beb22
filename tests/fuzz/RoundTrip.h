// What holds for every text that is given to a value's parser.
#pragma once

#include <Vexa/Value.h>

#include <cstdlib>
#include <iostream>
#include <string_view>

namespace Fuzz {

// A text is refused with a reason, or its value prints as a text that reads back as the same value; and what a parser
// leaves over is the end of what it was given. Anything else stops.
template< class Value > void roundTrip( std::string_view text ) {
   Vexa::CharRange range( text );
   try {
      auto const value = Vexa::parse< Value >( range );
      auto const printed = Vexa::stringOf( value );
      if ( !text.ends_with( range.rest() ) || Vexa::parseWhole< Value >( printed ) != value ||
           Vexa::hash( Vexa::parseWhole< Value >( printed ), 1 ) != Vexa::hash( value, 1 ) ) {
         std::cerr << "\"" << text << "\" became " << printed << '\n';
         std::abort();
      }
   } catch ( Vexa::Exception const & e ) {
      if ( *e.what() == '\0' ) {
         std::cerr << "refused without a reason: \"" << text << "\"\n";
         std::abort();
      }
   }
}

}  // namespace Fuzz
