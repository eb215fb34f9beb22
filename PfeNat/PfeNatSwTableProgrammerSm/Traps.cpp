#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include "PfeNat/PfeNatSwTableProgrammerSm/RequestTrace.h"

#include <Acl/PortSpec.h>
#include <Vexa/Assert.h>

namespace Pfe {

namespace {

constexpr U32 trapAllSequence = 1;
constexpr U32 firstFilterSequence = 2;

using PortEntry = Netix::RangeMaskGen< U16 >::Entry;

NatTrapKey trapKeyOf( NatProgrammerTrapKey const & key, NatProgrammerTrapEntry const & entry ) {
   return { .aclName = key.key.aclName, .poolId = key.key.poolId, .ruleId = entry.rule().ruleId };
}

NatTrapRule trapRuleOf( Ip::Nat::NatTrapFilter const & filter, U32 vrfId, PortEntry const & source,
                        PortEntry const & destination ) {
   return { .sequence = filter.sequence,
            .vrfId = vrfId,
            .source = filter.source,
            .destination = filter.destination,
            .sourcePort = source.value,
            .sourcePortMask = source.mask,
            .destinationPort = destination.value,
            .destinationPortMask = destination.mask,
            .trap = static_cast< U16 >( filter.permit ^ 1 ),
            .protocol = filter.protocol,
            .protocolMask = filter.protocolMask };
}

void writeFilter( NatTrapAcl & acl, Ip::Nat::NatTrapFilter const & filter, U32 vrfId ) {
   U8 srcCount = 0;
   U8 dstCount = 0;
   auto const srcVect = Acl::generatePortRange( filter.sourcePort, srcCount, true );
   auto const dstVect = Acl::generatePortRange( filter.destinationPort, dstCount, false );
   // Every rule of a filter is written under the same sequence number, so the last pair wins. Trap ACLs hold one rule
   // per filter; do not advance the number here.
   auto const ruleSequence = filter.sequence + firstFilterSequence;
   for ( unsigned iSrc = 0; iSrc < srcCount; ++iSrc ) {
      VEXA_ASSERT( srcVect[ iSrc ].size() );
      for ( auto const & source : srcVect[ iSrc ] ) {
         for ( unsigned iDst = 0; iDst < dstCount; ++iDst ) {
            VEXA_ASSERT( dstVect[ iDst ].size() );
            // Paired by the source's index on purpose. A field with fewer ranges than the other's has no list there.
            if ( iSrc >= dstVect.size() ) {
               continue;
            }
            for ( auto const & destination : dstVect[ iSrc ] ) {
               acl.ruleBySequenceIs( ruleSequence, trapRuleOf( filter, vrfId, source, destination ) );
            }
         }
      }
   }
}

}  // namespace

void NatSwTableProgrammerSm::addTrap( NatProgrammerTrapKey const & key,
                                      NatProgrammerTrapEntry::PtrConst const & entry ) {
   traceTrapRequest( "addTrap", key );
   auto const vrfId = natProgrammerConfig()->vrfLess() ? 0 : entry->vrfId();
   auto const & rule = entry->rule();
   NatTrapAcl acl( trapKeyOf( key, *entry ) );
   acl.poolValue = rule.poolValue;
   acl.priority = rule.priority;
   acl.action = rule.action;
   if ( rule.trapAll ) {
      NatTrapRule everything;
      everything.sequence = trapAllSequence;
      everything.vrfId = vrfId;
      everything.trap = 1;
      acl.ruleBySequenceIs( trapAllSequence, everything );
   }
   auto const & filters = rule.trapFilter;
   for ( auto next = filters.begin(); next != filters.end(); ) {
      auto const version = filters.version();
      auto const filter = *next;
      writeFilter( acl, filter, vrfId );
      next = filters.version() == version ? std::next( next ) : filters.findNext( filter );
   }
   natTrapConfig()->trapAclIs( acl );
}

void NatSwTableProgrammerSm::deleteTrap( NatProgrammerTrapKey const & key,
                                         NatProgrammerTrapEntry::PtrConst const & entry ) {
   traceTrapRequest( "deleteTrap", key );
   natTrapConfig()->trapAclDel( trapKeyOf( key, *entry ) );
}

}  // namespace Pfe
