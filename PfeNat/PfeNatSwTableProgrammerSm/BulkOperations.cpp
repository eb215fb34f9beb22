#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include "PfeNat/PfeNatSwTableProgrammerSm/RequestTrace.h"

#include <Vexa/Exception.h>

namespace Pfe {

namespace {

// One element that raises does not keep the others from their turn.
template< class Operation > void guarded( Operation && operation ) {
   try {
      operation();
   } catch ( Vexa::RangeException const & error ) {
      TRACE( traceHandle(), 2, "deleteAllConnections", ", range error: ", error.what() );
   }
}

}  // namespace

// Per key the base programmer decides which operation to call.
void NatSwTableProgrammerSm::addAllConnections() {
   Trace::RingTrace::defaultHandle().message( "addAllConnections" );
   TRACE( traceHandle(), 8, "addAllConnections" );
   auto const & config = *natProgrammerConfig();
   config.staticEntry().forEach( [ & ]( auto const & key, auto const & ) { handleProgrammerStaticConfig( key ); } );
   config.twiceEntry().forEach( [ & ]( auto const & key, auto const & ) { handleProgrammerTwiceConfig( key ); } );
   config.dynamicEntry().forEach( [ & ]( auto const & key, auto const & ) { handleProgrammerDynamicConfig( key ); } );
   config.trapEntry().forEach( [ & ]( auto const & key, auto const & ) { handleProgrammerTrapConfig( key ); } );
}

void NatSwTableProgrammerSm::deleteAllConnections() {
   if ( isNoOpDuringCleanup( *this, "deleteAllConnections" ) ) {
      return;
   }
   Trace::RingTrace::defaultHandle().message( "deleteAllConnections", ", start to clean up." );
   TRACE( traceHandle(), 8, "deleteAllConnections", ", start to clean up." );
   auto const & config = *natProgrammerConfig();
   config.staticEntry().forEach(
      [ & ]( auto const & key, auto const & entry ) { guarded( [ & ] { deleteStaticConnection( key, entry ); } ); } );
   config.twiceEntry().forEach(
      [ & ]( auto const & key, auto const & entry ) { guarded( [ & ] { deleteTwiceConnection( key, entry ); } ); } );
   config.dynamicEntry().forEach(
      [ & ]( auto const & key, auto const & entry ) { guarded( [ & ] { deleteDynamicConnection( key, entry ); } ); } );
   config.trapEntry().forEach(
      [ & ]( auto const & key, auto const & entry ) { guarded( [ & ] { deleteTrap( key, entry ); } ); } );
}

}  // namespace Pfe
