#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include "PfeNat/PfeNatSwTableProgrammerSm/RequestTrace.h"

namespace Pfe {

NatMatchKey NatSwTableProgrammerSm::twiceNatMatchKey( IngTwiceNatTable::Key const & ingKey ) const {
   NatMatchKey const natMatchKey = TwiceNatMatchKey{ .natIntf = ingKey.natIntf,
                                                     .vrfId = ingKey.vrfId,
                                                     .srcIpAndPortOld = ingKey.srcIpAndPortOld,
                                                     .dstIpAndPortOld = ingKey.dstIpAndPortOld,
                                                     .forward = ingKey.forward };
   TRACE( traceHandle(), 6, "twiceNatMatchKey", ", natMatchKey: ", natMatchKey );
   Trace::RingTrace::defaultHandle().message( "NatSwTableProgrammerSm::twiceNatMatchKey", ", forward: ", ingKey.forward,
                                              ", srcIpAndPortOld: ", ingKey.srcIpAndPortOld, ", dstIpAndPortOld: ",
                                              ingKey.dstIpAndPortOld );
   return natMatchKey;
}

void NatSwTableProgrammerSm::addTwiceConnection( NatProgrammerTwiceKey const & key,
                                                 NatProgrammerTwiceEntry::PtrConst const & ) {
   traceRequest( "addTwiceConnection", key );
   if ( isNoOpDuringCleanup( *this, "addTwiceConnection" ) ) {
      return;
   }
}

void NatSwTableProgrammerSm::updateTwiceConnection( NatProgrammerTwiceKey const & key,
                                                    NatProgrammerTwiceEntry::PtrConst const & entry ) {
   traceRequest( "updateTwiceConnection", key );
   addTwiceConnection( key, entry );
}

void NatSwTableProgrammerSm::deleteTwiceConnection( NatProgrammerTwiceKey const & key,
                                                    NatProgrammerTwiceEntry::PtrConst const & ) {
   traceRequest( "deleteTwiceConnection", key );
   if ( isNoOpDuringCleanup( *this, "deleteTwiceConnection" ) ) {
      return;
   }
}

}  // namespace Pfe
