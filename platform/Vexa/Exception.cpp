#include <Vexa/Exception.h>

namespace [[gnu::visibility( "default" )]] Vexa {

void rethrowFromDeserializeAttr( char const * attributeName ) {
   try {
      throw;
   } catch ( RangeException const & e ) {
      throw RangeException( std::string( attributeName ) + ": " + e.what() );
   } catch ( Exception const & e ) {
      throw ParseException( std::string( attributeName ) + ": " + e.what() );
   }
}

}  // namespace Vexa
