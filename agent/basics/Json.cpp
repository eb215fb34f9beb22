#include "agent/basics/Json.h"

#include <boost/json/serialize.hpp>
#include <boost/json/src.hpp>
#include <boost/locale/utf.hpp>

#include <cstddef>
#include <utility>

namespace Agent {

namespace {

// The texts of a value are the only part of its text that may be something else than UTF-8.
std::string replacedWhereNotUtf8( std::string text ) {
   namespace utf = boost::locale::utf;
   std::string replaced;
   auto const end = text.cend();
   auto copied = text.cbegin();
   for ( auto next = copied; next != end; ) {
      auto const at = next;
      auto const found = utf::utf_traits< char >::decode( next, end );
      if ( found == utf::illegal || found == utf::incomplete ) {
         replaced.append( copied, at ).append( "\xEF\xBF\xBD" );
         copied = next = at + 1;
      }
   }
   return copied == text.cbegin() ? std::move( text ) : replaced.append( copied, end );
}

// `margin`: of the line that the value begins in.
void writeValue( std::ostream & out, Json const & value, std::string const & margin ) {
   auto const writeAll = [ & ]( auto const & all, char open, char close, auto && write ) {
      auto const inner = margin + "  ";
      char const * separator = "\n";
      out << open;
      for ( auto const & one : all ) {
         out << std::exchange( separator, ",\n" ) << inner;
         write( one, inner );
      }
      if ( !all.empty() ) {
         out << '\n' << margin;
      }
      out << close;
   };
   if ( auto const * const object = value.if_object() ) {
      writeAll( *object, '{', '}', [ & ]( auto const & member, std::string const & inner ) {
         out << lineOf( member.key() ) << ": ";
         writeValue( out, member.value(), inner );
      } );
   } else if ( auto const * const array = value.if_array() ) {
      writeAll( *array, '[', ']',
                [ & ]( Json const & element, std::string const & inner ) { writeValue( out, element, inner ); } );
   } else {
      out << lineOf( value );
   }
}

}  // namespace

Json const * memberOf( Json const & object, std::string_view name ) {
   auto const * const members = object.if_object();
   return members ? members->if_contains( name ) : nullptr;
}

std::string lineOf( Json const & value ) { return replacedWhereNotUtf8( boost::json::serialize( value ) ); }

void writeLines( std::ostream & out, Json const & value ) { writeValue( out, value, "" ); }

}  // namespace Agent
