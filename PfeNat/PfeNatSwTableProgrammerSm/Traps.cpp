#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include "PfeNat/PfeNatSwTableProgrammerSm/RequestTrace.h"

namespace Pfe {

void NatSwTableProgrammerSm::addTrap( NatProgrammerTrapKey const & key, NatProgrammerTrapEntry::PtrConst const & ) {
   traceTrapRequest( "addTrap", key );
}

void NatSwTableProgrammerSm::deleteTrap( NatProgrammerTrapKey const & key, NatProgrammerTrapEntry::PtrConst const & ) {
   traceTrapRequest( "deleteTrap", key );
}

}  // namespace Pfe
