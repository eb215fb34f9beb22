// How a request leaves its trace when it enters the programmer.
#pragma once

#include "PfeNat/PfeNatSwTableProgrammerSm.h"
#include "PfeNat/PfeNatSwTableProgrammerSm/UnitGlobals.h"

#include <Netix/IntfId.h>
#include <Trace/RingTrace.h>
#include <Trace/Trace.h>

namespace Pfe {

// `operation` is a literal: the ring keeps its address.
template< class Key > void traceRequest( char const * operation, Key const & key ) {
   Netix::ShortName const natIntf{ key.natIntf };
   TRACE( traceHandle(), 6, operation, ", natIntf: ", natIntf, ", key: ", key.key.stringValue() );
   Trace::RingTrace::defaultHandle().message( "NatSwTableProgrammerSm::", operation, ", natIntf: ", natIntf,
                                              ", key: ", key.key );
}

// Traps differ in the form of the interface.
inline void traceTrapRequest( char const * operation, NatProgrammerTrapKey const & key ) {
   TRACE( traceHandle(), 6, operation, ", natIntf: ", key.natIntf, ", key: ", key.key.stringValue() );
   Trace::RingTrace::defaultHandle().message( "NatSwTableProgrammerSm::", operation,
                                              ", natIntf: ", Netix::ShortName{ key.natIntf }, ", key: ", key.key );
}

// Dynamic requests are traced at a level of their own, with what the connection is translated to.
inline void traceDynamicRequest( U8 level, char const * operation, NatProgrammerDynamicKey const & key,
                                 NatProgrammerDynamicEntry const & entry ) {
   TRACE( traceHandle(), level, operation, ", natIntf: ", key.natIntf, ", conn: ", key.conn,
          ", global: ", entry.global(), ", target: ", entry.connection().target );
   Trace::RingTrace::defaultHandle().message( "NatSwTableProgrammerSm::", operation,
                                              ", natIntf: ", Netix::ShortName{ key.natIntf }, ", key: ", key.conn,
                                              ", addr: ", entry.global() );
}

// Whether a clean-up is running, which makes the operation do nothing; traced.
inline bool isNoOpDuringCleanup( NatSwTableProgrammerSm const & programmer, char const * operation ) {
   if ( programmer.cleanupInProgress() ) {
      Trace::RingTrace::defaultHandle().message( operation, ", clean up in progress, no op." );
      TRACE( traceHandle(), 8, operation, ", clean up in progress, no op." );
   }
   return programmer.cleanupInProgress();
}

}  // namespace Pfe
