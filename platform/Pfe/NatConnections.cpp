#include <Pfe/NatConnections.h>

namespace [[gnu::visibility( "default" )]] Pfe {

bool staticConnectionIsMulticast( NatProgrammerStaticKey const & key, NatProgrammerStaticEntry::PtrConst const & entry,
                                  bool considerTranslated ) {
   return key.key.ip.isMulticast() || ( considerTranslated && entry->connection().translated.ip.isMulticast() );
}

bool twiceConnectionIsMulticast( NatProgrammerTwiceKey const &, NatProgrammerTwiceEntry::PtrConst const & entry ) {
   auto const & connection = entry->connection();
   return connection.source.ip.isMulticast() || connection.destination.ip.isMulticast() ||
          connection.translatedSource.ip.isMulticast() || connection.translatedDestination.ip.isMulticast();
}

NatDirections getTwiceConnectionDirections( bool isMulticast ) {
   NatDirections directions;
   directions.push( true );
   if ( !isMulticast ) {
      directions.push( false );
   }
   return directions;
}

}  // namespace Pfe
