// Static rules: what is theirs among the kinds of rules.
#pragma once

#include "PfeNat/PfeNatSwTableProgrammerSm/EntryResponse.h"

#include <IpNat/NatStatic.h>

namespace Pfe {

struct StaticRule {
   using ProgrammerKey = NatProgrammerStaticKey;
   using ProgrammerEntry = NatProgrammerStaticEntry;
   using Table = IngStaticNatTable;
   using DependentTable = IngStaticNatTable;

   static constexpr ResponseTexts const & texts = configuredRuleTexts;

   static Table & table( NatSwTableProgrammerSm const & programmer ) { return *programmer.ingStaticNatTable(); }
   static DependentTable & dependentTable( NatSwTableProgrammerSm const & programmer ) { return table( programmer ); }

   static void addStatus( NatSwTableProgrammerSm & programmer, ProgrammerKey const & key,
                          ProgrammerEntry::PtrConst const & entry, PfeHelper::NatHwResult result ) {
      programmer.addProgrammerStaticStatusEntry( key, entry, result );
   }
   static void deleteStatus( NatSwTableProgrammerSm & programmer, ProgrammerKey const & key,
                             ProgrammerEntry::PtrConst const & entry ) {
      programmer.deleteProgrammerStaticStatusEntry( key, entry );
   }

   static void traceProgram( Table::Key const & ingKey );
   static NatMatchKey matchKey( NatSwTableProgrammerSm const & programmer, Table::Key const & ingKey ) {
      return programmer.staticNatMatchKey( ingKey );
   }
   static bool isValidMcast( NatMcastProgrammerHelper & helper, ProgrammerKey const & key,
                             ProgrammerEntry::PtrConst const & entry ) {
      return helper.isValidMcastStaticTranslation( key, entry );
   }
   static EgrMcastEntry egrMcastEntry( NatMcastProgrammerHelper & helper, ProgrammerKey const & key,
                                       ProgrammerEntry::PtrConst const & entry, NatMatchKey const & matchKey,
                                       NatId natId ) {
      return helper.getStaticEgrMcastEntry( key, entry, matchKey, natId );
   }

   // A static rule rewrites the side that it translates and leaves the other.
   static Ip::Nat::NatTarget rewriteSide( Table::Key const & ingKey ) { return ingKey.target; }
   static EgrNatUcRewriteEntry rewrite( Table::Key const & ingKey );

   // Next hop, access list, filters.
   static void fillEntry( NatSwTableProgrammerSm const & programmer, ProgrammerEntry const & entry,
                          Table::Entry & ingEntry );

   static bool matchesPort( Table::Key const & ingKey ) { return ingKey.ipAndPortOld.port != 0; }
   static Table::Key fragmentKey( Table::Key ingKey );
};

// Programs one ingress key of a static connection; see programRule().
Asic::EntryHandle::PtrConst programStaticRule( NatSwTableProgrammerSm & programmer, NatProgrammerStaticKey const & key,
                                               NatProgrammerStaticEntry::PtrConst const & entry,
                                               IngStaticNatTable::Key const & ingKey,
                                               DependentKeys< StaticRule > const & dependentKeys,
                                               Asic::EntryHandle::PtrConst const & fragHdl );

}  // namespace Pfe
