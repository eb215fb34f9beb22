// How configured rules, static and twice, are programmed: one ingress key with its egress rewrites.
#pragma once

#include "PfeNat/PfeNatSwTableProgrammerSm.h"
#include "PfeNat/PfeNatSwTableProgrammerSm/EgressRewrite.h"
#include "PfeNat/PfeNatSwTableProgrammerSm/EntryResponse.h"
#include "PfeNat/PfeNatSwTableProgrammerSm/UnitGlobals.h"

#include <Asic/EntryHandle.h>
#include <Vexa/Assert.h>

#include <utility>

namespace Pfe {

// Gives the entry what it refers to on the egress side. False for a multicast translation that the chip can not do:
// then nothing was written and no NAT id taken.
template< class Rule > bool takeEgress( RuleContext< Rule > const & rule, typename Rule::Table::Entry & ingEntry ) {
   auto & programmer = *rule.programmer;
   auto const & helper = programmer.mcastProgrammerHelper();
   bool const replicates = rule.mcast && helper;
   if ( replicates && !Rule::isValidMcast( *helper, rule.key, rule.entry ) ) {
      return false;
   }
   auto const natId = programmer.natIdManager()->allocateNatId( rule.ingKey, rule.matchKey );
   if ( replicates ) {
      egressRewritesIs( programmer, ingEntry,
                        Rule::egrMcastEntry( *helper, rule.key, rule.entry, rule.matchKey, natId ) );
   } else {
      egressRewriteIs( programmer, ingEntry, Rule::rewriteSide( rule.ingKey ), { natId, rule.entry->intfQualifier() },
                       Rule::rewrite( rule.ingKey ) );
   }
   return true;
}

// Programs the entry for `ingKey` and returns its handle; `fragHdl` is that of the fragment twin, or dontCareHandle.
// A rejected multicast translation gets result 5 instead, and returns dontCareHandle.
template< class Rule >
Asic::EntryHandle::PtrConst
programRule( NatSwTableProgrammerSm & programmer, typename Rule::ProgrammerKey const & key,
             typename Rule::ProgrammerEntry::PtrConst const & entry, typename Rule::Table::Key const & ingKey,
             DependentKeys< Rule > const & dependentKeys, Asic::EntryHandle::PtrConst const & fragHdl ) {
   Rule::traceProgram( ingKey );
   RuleContext< Rule > rule{ .programmer = NatSwTableProgrammerSm::Ptr( &programmer ),
                             .entry = entry,
                             .key = key,
                             .ingKey = ingKey,
                             .matchKey = Rule::matchKey( programmer, ingKey ),
                             .dependentKeys = dependentKeys,
                             .mcast = ingKey.mcast };
   typename Rule::Table::Entry ingEntry;
   if ( !takeEgress( rule, ingEntry ) ) {
      Rule::addStatus( programmer, key, entry, PfeHelper::NatHwResult::rejectedMulticast );
      return dontCareHandle;
   }
   Rule::fillEntry( programmer, *entry, ingEntry );

   bool const fragmentationEnabled = programmer.natProgrammerConfig()->fragmentationEnabled();
   auto & table = Rule::table( programmer );
   ingEntry.fragHdl = fragHdl;
   if ( ingKey.fragment ) {
      VEXA_ASSERT( fragmentationEnabled && fragHdl == dontCareHandle );
      ingEntry.writeResponse = responseOf< FragmentEntryResponse< Rule > >( std::move( rule ) );
      return table.entryRef( ingKey, std::move( ingEntry ) );
   }
   if ( fragmentationEnabled && Rule::matchesPort( ingKey ) ) {
      VEXA_ASSERT( fragHdl && fragHdl != dontCareHandle );
   } else {
      VEXA_ASSERT( fragHdl == dontCareHandle );
   }
   ingEntry.writeResponse = responseOf< NormalEntryResponse< Rule > >( std::move( rule ) );
   return table.entryCommit( ingKey, std::move( ingEntry ) );
}

// Programs one direction of a connection: its fragment twin first, where later fragments need one, then its entry.
template< class Rule >
void programDirection( NatSwTableProgrammerSm & programmer, typename Rule::ProgrammerKey const & key,
                       typename Rule::ProgrammerEntry::PtrConst const & entry, typename Rule::Table::Key const & ingKey,
                       DependentKeys< Rule > const & dependentKeys ) {
   auto fragHdl = dontCareHandle;
   if ( programmer.natProgrammerConfig()->fragmentationEnabled() && Rule::matchesPort( ingKey ) ) {
      fragHdl =
         programRule< Rule >( programmer, key, entry, Rule::fragmentKey( ingKey ), dependentKeys, dontCareHandle );
   }
   programRule< Rule >( programmer, key, entry, ingKey, dependentKeys, fragHdl );
}

}  // namespace Pfe
