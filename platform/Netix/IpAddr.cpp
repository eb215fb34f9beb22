#include <Netix/IpAddr.h>

#include <algorithm>

namespace [[gnu::visibility( "default" )]] Netix {

namespace {

// Takes one number of a dotted quad from the front; absent when there is none.
std::optional< U32 > takeOctet( Vexa::CharRange & text ) {
   auto const rest = text.rest();
   U32 octet = 0;
   auto const [ end, error ] =
      std::from_chars( rest.data(), rest.data() + std::min< std::size_t >( rest.size(), 3 ), octet );
   auto const length = static_cast< std::size_t >( end - rest.data() );
   if ( error != std::errc{} || octet > 255 || ( length > 1 && rest[ 0 ] == '0' ) ) {
      return std::nullopt;
   }
   text.advance( length );
   return octet;
}

std::optional< IpAddr > takeAddress( Vexa::CharRange & text ) {
   U32 value = 0;
   for ( int i = 0; i < 4; ++i ) {
      if ( i > 0 ) {
         if ( !text.rest().starts_with( '.' ) ) {
            return std::nullopt;
         }
         text.advance( 1 );
      }
      auto const octet = takeOctet( text );
      if ( !octet ) {
         return std::nullopt;
      }
      value = value << 8 | *octet;
   }
   return IpAddr( value );
}

}  // namespace

IpAddr::IpAddr( Vexa::CharRange & text ) {
   auto const start = text.rest();
   auto const address = takeAddress( text );
   if ( !address ) {
      throw Vexa::ParseException( "expected an IPv4 address at \"" + std::string( start.substr( 0, 20 ) ) + "\"" );
   }
   *this = *address;
}

std::optional< IpAddr > IpAddr::fromText( std::string_view text ) {
   Vexa::CharRange range( text );
   auto const address = takeAddress( range );
   return range.empty() ? address : std::nullopt;
}

void IpAddr::appendTo( std::string & text ) const {
   for ( unsigned shift = 32; shift > 0; ) {
      shift -= 8;
      Vexa::append( text, value() >> shift & 0xff );
      text.append( shift > 0 ? "." : "" );
   }
}

std::ostream & operator<<( std::ostream & out, IpAddr address ) {
   std::string text;
   address.appendTo( text );
   return out << text;
}

}  // namespace Netix
