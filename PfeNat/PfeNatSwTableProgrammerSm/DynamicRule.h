// Dynamic rules: what is theirs among the kinds of rules, and how one of their ingress keys is programmed.
#pragma once

#include "PfeNat/PfeNatSwTableProgrammerSm/EgressRewrite.h"
#include "PfeNat/PfeNatSwTableProgrammerSm/EntryResponse.h"

#include <Netix/IpAndPort.h>
#include <Vexa/Assert.h>

#include <utility>

namespace Pfe {

inline IngDynamicSnaptTable & dynamicTableOf( NatSwTableProgrammerSm const & sm, IngDynamicSnaptTable const * ) {
   return *sm.ingDynamicSnaptTable();
}
inline IngDynamicDnaptTable & dynamicTableOf( NatSwTableProgrammerSm const & sm, IngDynamicDnaptTable const * ) {
   return *sm.ingDynamicDnaptTable();
}
inline IngDynamicSnatAddrOnlyTable & dynamicTableOf( NatSwTableProgrammerSm const & sm,
                                                     IngDynamicSnatAddrOnlyTable const * ) {
   return *sm.ingDynamicSnatAddrOnlyTable();
}
inline IngDynamicDnatAddrOnlyTable & dynamicTableOf( NatSwTableProgrammerSm const & sm,
                                                     IngDynamicDnatAddrOnlyTable const * ) {
   return *sm.ingDynamicDnatAddrOnlyTable();
}

// One side of a learned connection; its other side is in another table.
template< class IngTable, class OtherTable > struct DynamicRule {
   using ProgrammerKey = NatProgrammerDynamicKey;
   using ProgrammerEntry = NatProgrammerDynamicEntry;
   using Table = IngTable;
   using DependentTable = OtherTable;

   static constexpr ResponseTexts const & texts = learnedRuleTexts;

   static Table & table( NatSwTableProgrammerSm const & sm ) {
      return dynamicTableOf( sm, static_cast< Table const * >( nullptr ) );
   }
   static DependentTable & dependentTable( NatSwTableProgrammerSm const & sm ) {
      return dynamicTableOf( sm, static_cast< DependentTable const * >( nullptr ) );
   }

   static void addStatus( NatSwTableProgrammerSm & programmer, ProgrammerKey const & key,
                          ProgrammerEntry::PtrConst const & entry, PfeHelper::NatHwResult result ) {
      programmer.addProgrammerDynamicStatusEntry( key, entry, result );
   }
   static void deleteStatus( NatSwTableProgrammerSm & programmer, ProgrammerKey const & key,
                             ProgrammerEntry::PtrConst const & entry ) {
      programmer.deleteProgrammerDynamicStatusEntry( key, entry );
   }
};

// What both kinds of dynamic entries begin with: what their response must know, a NAT id of the match key, and the
// rewrite of this side under it.
template< class Rule >
RuleContext< Rule >
beginDynamicEntry( NatSwTableProgrammerSm & sm, typename Rule::ProgrammerKey const & progKey,
                   typename Rule::ProgrammerEntry::PtrConst const & progEntry, typename Rule::Table::Key const & key,
                   typename Rule::DependentTable::Key const & dependentKey, IngNatTableKey const & ingNatTableKey,
                   DynamicNatMatchKey const & dynamicNatMatchKey, typename Rule::Table::Entry & ingEntry,
                   Ip::Nat::NatTarget target, U16 intfQualifier, Netix::IpAndPort const & ipAndPort ) {
   RuleContext< Rule > rule{ .programmer = NatSwTableProgrammerSm::Ptr( &sm ),
                             .entry = progEntry,
                             .key = progKey,
                             .ingKey = key,
                             .matchKey = dynamicNatMatchKey,
                             .dependentKeys = {} };
   rule.dependentKeys.push( dependentKey );
   auto const natId = sm.natIdManager()->allocateNatId( ingNatTableKey, rule.matchKey );
   EgrNatUcRewriteEntry rewrite;
   if ( target == Ip::Nat::NatTarget::destination ) {
      rewrite.dstIp = ipAndPort.ip;
      rewrite.dstPort = ipAndPort.port;
   } else {
      rewrite.srcIp = ipAndPort.ip;
      rewrite.srcPort = ipAndPort.port;
   }
   egressRewriteIs( sm, ingEntry, target, { natId, intfQualifier }, rewrite );
   ingEntry.natId = natId.value();
   return rule;
}

// Programs one NAPT entry, normal or fragment, of one side (`target`). `entry` comes with its next hop. Returns the
// handle of a fragment entry, else dontCareHandle. `u64` is the platform's and passed through.
template< class Table, class Entry, class Key, class DependentTable, class DependentKey >
Asic::EntryHandle::PtrConst
programDynamicRule( NatSwTableProgrammerSm & sm, Ip::Nat::NatTarget target, U16 intfQualifier, Key const & key,
                    Table & table, Entry entry, DependentTable &, IngNatTableKey const & ingNatTableKey,
                    DynamicNatMatchKey const & dynamicNatMatchKey, DependentKey const & dependentKey, U64 /* u64 */,
                    Netix::IpAndPort const & ipAndPort, NatProgrammerDynamicKey const & progKey,
                    NatProgrammerDynamicEntry::PtrConst const & progEntry,
                    Asic::EntryHandle::PtrConst const & fragHdl ) {
   using Rule = DynamicRule< Table, DependentTable >;
   auto rule = beginDynamicEntry< Rule >( sm, progKey, progEntry, key, dependentKey, ingNatTableKey, dynamicNatMatchKey,
                                          entry, target, intfQualifier, ipAndPort );

   bool const fragmentationEnabled = sm.natProgrammerConfig()->fragmentationEnabled();
   if ( key.fragment ) {
      VEXA_ASSERT( fragmentationEnabled && fragHdl == dontCareHandle );
      entry.fragHdl = dontCareHandle;
      entry.writeResponse = responseOf< FragmentEntryResponse< Rule > >( std::move( rule ) );
      return table.entryRef( key, std::move( entry ) );
   }
   if ( fragmentationEnabled && ( key.firstPort != 0 || key.secondPort != 0 ) ) {
      VEXA_ASSERT( fragHdl != dontCareHandle );
   } else {
      VEXA_ASSERT( fragHdl && fragHdl == dontCareHandle );
   }
   entry.fragHdl = fragHdl;
   entry.writeResponse = responseOf< NormalEntryResponse< Rule > >( std::move( rule ) );
   table.entryCommit( key, std::move( entry ) );
   return dontCareHandle;
}

// The same for an address-only entry, which has no fragment twin.
template< class Table, class Entry, class Key, class DependentTable, class DependentKey >
void programDynamicAoRule( NatSwTableProgrammerSm & sm, Ip::Nat::NatTarget target, U16 intfQualifier, Key const & key,
                           Table & table, Entry entry, DependentTable &, IngNatTableKey const & ingNatTableKey,
                           DynamicNatMatchKey const & dynamicNatMatchKey, DependentKey const & dependentKey,
                           U64 /* u64 */, Netix::IpAndPort const & ipAndPort, NatProgrammerDynamicKey const & progKey,
                           NatProgrammerDynamicEntry::PtrConst const & progEntry ) {
   using Rule = DynamicRule< Table, DependentTable >;
   auto rule = beginDynamicEntry< Rule >( sm, progKey, progEntry, key, dependentKey, ingNatTableKey, dynamicNatMatchKey,
                                          entry, target, intfQualifier, ipAndPort );
   entry.fragHdl = dontCareHandle;
   entry.writeResponse = responseOf< NormalEntryResponse< Rule > >( std::move( rule ) );
   table.entryCommit( key, std::move( entry ) );
}

}  // namespace Pfe
