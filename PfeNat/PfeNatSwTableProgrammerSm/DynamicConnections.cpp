#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include "PfeNat/PfeNatSwTableProgrammerSm/RequestTrace.h"

namespace Pfe {

void NatSwTableProgrammerSm::addDynamicConnection( NatProgrammerDynamicKey const & key,
                                                   NatProgrammerDynamicEntry::PtrConst const & entry ) {
   traceDynamicRequest( 2, "addDynamicConnection", key, *entry );
}

void NatSwTableProgrammerSm::updateDynamicConnection( NatProgrammerDynamicKey const & key,
                                                      NatProgrammerDynamicEntry::PtrConst const & entry ) {
   traceDynamicRequest( 2, "updateDynamicConnection", key, *entry );
   addDynamicConnection( key, entry );
}

void NatSwTableProgrammerSm::deleteDynamicConnection( NatProgrammerDynamicKey const & key,
                                                      NatProgrammerDynamicEntry::PtrConst const & entry ) {
   traceDynamicRequest( 6, "deleteDynamicConnection", key, *entry );
}

}  // namespace Pfe
