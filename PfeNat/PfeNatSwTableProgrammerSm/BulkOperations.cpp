#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include "PfeNat/PfeNatSwTableProgrammerSm/RequestTrace.h"

#include <Vexa/Exception.h>
#include <Vexa/KeysOf.h>

namespace Pfe {

namespace {

// Calls remove( key, entry ) for every rule. One that raises does not keep the others from their turn, and whoever
// watches the status may take rules away meanwhile.
template< class Entries, class Remove > void deleteEach( Entries const & entries, Remove && remove ) {
   for ( auto const & key : Vexa::keysOf( entries ) ) {
      try {
         if ( auto const entry = entries.valueOr( key ) ) {
            remove( key, entry );
         }
      } catch ( Vexa::RangeException const & error ) {
         TRACE( traceHandle(), 2, "deleteAllConnections", ", range error: ", error.what() );
      }
   }
}

}  // namespace

// Per key the base programmer decides which operation to call.
void NatSwTableProgrammerSm::addAllConnections() {
   Trace::RingTrace::defaultHandle().message( "addAllConnections" );
   TRACE( traceHandle(), 8, "addAllConnections" );
   handleAllConfig();
}

void NatSwTableProgrammerSm::deleteAllConnections() {
   if ( isNoOpDuringCleanup( *this, "deleteAllConnections" ) ) {
      return;
   }
   Trace::RingTrace::defaultHandle().message( "deleteAllConnections", ", start to clean up." );
   TRACE( traceHandle(), 8, "deleteAllConnections", ", start to clean up." );
   auto const & config = *natProgrammerConfig();
   deleteEach( config.staticEntry(),
               [ & ]( auto const & key, auto const & entry ) { deleteStaticConnection( key, entry ); } );
   deleteEach( config.twiceEntry(),
               [ & ]( auto const & key, auto const & entry ) { deleteTwiceConnection( key, entry ); } );
   deleteEach( config.dynamicEntry(),
               [ & ]( auto const & key, auto const & entry ) { deleteDynamicConnection( key, entry ); } );
   deleteEach( config.trapEntry(), [ & ]( auto const & key, auto const & entry ) { deleteTrap( key, entry ); } );
}

}  // namespace Pfe
