// Twice rules: what is theirs among the kinds of rules.
#pragma once

#include "PfeNat/PfeNatSwTableProgrammerSm/EntryResponse.h"

#include <IpNat/NatStatic.h>

namespace Pfe {

struct TwiceRule {
   using ProgrammerKey = NatProgrammerTwiceKey;
   using ProgrammerEntry = NatProgrammerTwiceEntry;
   using Table = IngTwiceNatTable;
   using DependentTable = IngTwiceNatTable;

   static constexpr ResponseTexts const & texts = configuredRuleTexts;

   static Table & table( NatSwTableProgrammerSm const & programmer ) { return *programmer.ingTwiceNatTable(); }
   static DependentTable & dependentTable( NatSwTableProgrammerSm const & programmer ) { return table( programmer ); }

   static void addStatus( NatSwTableProgrammerSm & programmer, ProgrammerKey const & key,
                          ProgrammerEntry::PtrConst const & entry, PfeHelper::NatHwResult result ) {
      programmer.addProgrammerTwiceStatusEntry( key, entry, result );
   }
   static void deleteStatus( NatSwTableProgrammerSm & programmer, ProgrammerKey const & key,
                             ProgrammerEntry::PtrConst const & entry ) {
      programmer.deleteProgrammerTwiceStatusEntry( key, entry );
   }

   static void traceProgram( Table::Key const & ingKey );
   static NatMatchKey matchKey( NatSwTableProgrammerSm const & programmer, Table::Key const & ingKey ) {
      return programmer.twiceNatMatchKey( ingKey );
   }
   static bool isValidMcast( NatMcastProgrammerHelper & helper, ProgrammerKey const & key,
                             ProgrammerEntry::PtrConst const & entry ) {
      return helper.isValidMcastTwiceTranslation( key, entry );
   }
   static EgrMcastEntry egrMcastEntry( NatMcastProgrammerHelper & helper, ProgrammerKey const & key,
                                       ProgrammerEntry::PtrConst const & entry, NatMatchKey const & matchKey,
                                       NatId natId ) {
      return helper.getTwiceEgrMcastEntry( key, entry, matchKey, natId );
   }

   // Either direction rewrites both sides, yet each through a table of its own: the hardware looks a forward packet up
   // in the source table and a reverse one in the destination table.
   static Ip::Nat::NatTarget rewriteSide( Table::Key const & ingKey ) {
      return ingKey.forward ? Ip::Nat::NatTarget::source : Ip::Nat::NatTarget::destination;
   }
   static EgrNatUcRewriteEntry rewrite( Table::Key const & ingKey );

   // Next hop; twice rows have no access list and no filters.
   static void fillEntry( NatSwTableProgrammerSm const & programmer, ProgrammerEntry const & entry,
                          Table::Entry & ingEntry );

   static bool matchesPort( Table::Key const & ingKey ) {
      return ingKey.srcIpAndPortOld.port != 0 || ingKey.dstIpAndPortOld.port != 0;
   }
   static Table::Key fragmentKey( Table::Key ingKey );
};

// Programs one ingress key of a twice connection; see programRule().
Asic::EntryHandle::PtrConst programTwiceRule( NatSwTableProgrammerSm & programmer, NatProgrammerTwiceKey const & key,
                                              NatProgrammerTwiceEntry::PtrConst const & entry,
                                              IngTwiceNatTable::Key const & ingKey,
                                              DependentKeys< TwiceRule > const & dependentKeys,
                                              Asic::EntryHandle::PtrConst const & fragHdl );

}  // namespace Pfe
