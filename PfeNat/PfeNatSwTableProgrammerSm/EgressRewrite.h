// The egress rows that an ingress entry refers to.
#pragma once

#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <Asic/Entry.h>
#include <IpNat/NatStatic.h>

namespace Pfe {

// Writes the rewrite of unicast packets on one side into that side's table, and makes `ingEntry` hold it.
void egressRewriteIs( NatSwTableProgrammerSm const & programmer, Asic::ReferringEntry & ingEntry,
                      Ip::Nat::NatTarget side, EgrNatUcRewriteKey const & key, EgrNatUcRewriteEntry const & rewrite );

// Writes the rewrite of every replication, and makes `ingEntry` hold them in order. The list must be valid.
void egressRewritesIs( NatSwTableProgrammerSm const & programmer, Asic::ReferringEntry & ingEntry,
                       EgrMcastEntry const & egrMcastEntry );

// The id of a next hop that the hardware knows by id; 0 for all others and for none.
U32 nextHopIdOf( NatNextHopInfo::PtrConst const & nextHop );

}  // namespace Pfe
