#include "PfeNat/PfeNatSwTableProgrammerSm/EgressRewrite.h"

#include <Vexa/Assert.h>

namespace Pfe {

void egressRewriteIs( NatSwTableProgrammerSm const & programmer, Asic::ReferringEntry & ingEntry,
                      Ip::Nat::NatTarget side, EgrNatUcRewriteKey const & key, EgrNatUcRewriteEntry const & rewrite ) {
   ingEntry.egrHandleIs( side == Ip::Nat::NatTarget::destination
                            ? programmer.egrDestinationNatUcRewriteTable()->entryRef( key, rewrite )
                            : programmer.egrSourceNatUcRewriteTable()->entryRef( key, rewrite ),
                         true );
}

void egressRewritesIs( NatSwTableProgrammerSm const & programmer, Asic::ReferringEntry & ingEntry,
                       EgrMcastEntry const & egrMcastEntry ) {
   VEXA_ASSERT( egrMcastEntry.valid() );
   for ( unsigned int i = 0; i < egrMcastEntry.entrys(); ++i ) {
      auto const & info = egrMcastEntry.entry( i );
      ingEntry.egrHandleIs( programmer.egrNatMcRewriteTable()->entryRef( info.key(), info.entry() ), true );
   }
}

U32 nextHopIdOf( NatNextHopInfo::PtrConst const & nextHop ) {
   auto const * const nextHopId = dynamic_cast< NatNextHopId const * >( nextHop.ptr() );
   return nextHopId ? nextHopId->id() : 0;
}

}  // namespace Pfe
