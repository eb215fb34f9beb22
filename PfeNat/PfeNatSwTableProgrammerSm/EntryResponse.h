// What happens when the write of an ingress entry settles.
#pragma once

#include "PfeNat/PfeNatSwTableProgrammerSm.h"
#include "PfeNat/PfeNatSwTableProgrammerSm/UnitGlobals.h"

#include <Asic/EntryState.h>
#include <Asic/WriteResponseFn.h>
#include <PfeHelper/NatHwResult.h>
#include <Trace/Trace.h>
#include <Vexa/Assert.h>
#include <Vexa/InlineList.h>

#include <utility>

namespace Pfe {

// The trace lines of a rule's responses.
struct ResponseTexts {
   char const * normalAdded;
   char const * normalDeleted;
   char const * normalFailed;
   char const * fragmentAdded;
   char const * fragmentDeleted;
   char const * fragmentFailed;
};

inline constexpr ResponseTexts configuredRuleTexts{ .normalAdded = "Add normal entry success response",
                                                    .normalDeleted = "Delete normal entry success response",
                                                    .normalFailed = "Normal entry failure response",
                                                    .fragmentAdded = "Add fragment entry success response",
                                                    .fragmentDeleted = "Delete fragment entry success response",
                                                    .fragmentFailed = "Fragment entry failure response" };
inline constexpr ResponseTexts learnedRuleTexts{ .normalAdded = "Add normal entry response",
                                                 .normalDeleted = "Delete normal entry response",
                                                 .normalFailed = "Normal entry failure response",
                                                 .fragmentAdded = "Add fragment entry response",
                                                 .fragmentDeleted = "Delete fragment entry response",
                                                 .fragmentFailed = "Fragment entry failure response" };

// The other ingress keys of a connection, which must settle too before it counts as programmed.
template< class Rule > using DependentKeys = Vexa::InlineList< typename Rule::DependentTable::Key, 1 >;

// What a response must know of the entry that it belongs to. `Rule` is the kind of rule: it names keys, tables, status
// writers and texts.
template< class Rule > struct RuleContext {
   NatSwTableProgrammerSm::Ptr programmer;
   typename Rule::ProgrammerEntry::PtrConst entry;
   typename Rule::ProgrammerKey key;
   typename Rule::Table::Key ingKey;
   NatMatchKey matchKey;
   DependentKeys< Rule > dependentKeys;
   bool mcast = false;

   // Whether the table holds the entry now. A response tells an add from a removal by this, never by what was written.
   bool isPresent() const { return Rule::table( *programmer ).entry( ingKey ) != nullptr; }

   // The removal of the entry has settled.
   void releaseNatId() const {
      if ( programmer->natIdManager() ) {
         programmer->natIdManager()->freeNatId( ingKey, matchKey );
      }
      if ( mcast && programmer->mcastProgrammerHelper() ) {
         programmer->mcastProgrammerHelper()->cleanupNatEntry( ingKey );
      }
   }
};

// The entry that matches whole packets: its fate is the rule's.
template< class Rule > struct NormalEntryResponse {
   RuleContext< Rule > rule;

   void operator()( Asic::EntryState state ) const {
      switch ( state ) {
      case Asic::EntryState::pending: return;
      case Asic::EntryState::settled: rule.isPresent() ? added() : deleted(); return;
      case Asic::EntryState::failed:
      case Asic::EntryState::full:
         TRACE( traceHandle(), 6, Rule::texts.normalFailed );
         Rule::addStatus( *rule.programmer, rule.key, rule.entry, PfeHelper::NatHwResult::failed );
         return;
      case Asic::EntryState::none: break;
      }
      VEXA_ASSERT( false && "unknown entryState" );
   }

 private:
   // The last of the connection's entries to settle reports for all of them.
   void added() const {
      TRACE( traceHandle(), 6, Rule::texts.normalAdded );
      for ( auto const & dependentKey : rule.dependentKeys ) {
         auto const * const handle = Rule::dependentTable( *rule.programmer ).entryHandle( dependentKey );
         if ( !handle || handle->state() != Asic::EntryState::settled ) {
            return;
         }
      }
      Rule::addStatus( *rule.programmer, rule.key, rule.entry, PfeHelper::NatHwResult::programmed );
   }

   void deleted() const {
      TRACE( traceHandle(), 6, Rule::texts.normalDeleted );
      rule.releaseNatId();
      Rule::deleteStatus( *rule.programmer, rule.key, rule.entry );
   }
};

// The twin that matches later fragments: it never decides the rule's status.
template< class Rule > struct FragmentEntryResponse {
   RuleContext< Rule > rule;

   void operator()( Asic::EntryState state ) const {
      switch ( state ) {
      case Asic::EntryState::pending: return;
      case Asic::EntryState::settled:
         if ( rule.isPresent() ) {
            TRACE( traceHandle(), 6, Rule::texts.fragmentAdded );
         } else {
            TRACE( traceHandle(), 6, Rule::texts.fragmentDeleted );
            rule.releaseNatId();
         }
         return;
      case Asic::EntryState::failed:
      case Asic::EntryState::full: TRACE( traceHandle(), 6, Rule::texts.fragmentFailed ); return;
      case Asic::EntryState::none: break;
      }
      VEXA_ASSERT( false && "unknown entryState" );
   }
};

template< class Response, class Rule > Asic::WriteResponseFn responseOf( RuleContext< Rule > && rule ) {
   return Asic::WriteResponseFn( std::in_place_type< Response >, std::move( rule ) );
}

}  // namespace Pfe
