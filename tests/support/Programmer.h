// A table programmer with everything around it, and the words in which tests speak of it.
#pragma once

#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include "agent/host/NatTables.h"

#include <tests/support/AnyRule.h>
#include <tests/support/ScriptedHardware.h>

#include <Asic/Hardware.h>
#include <Trace/Trace.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Support {

using Lines = std::vector< std::string >;

// --- Rules -----------------------------------------------------------------------------------------------------------

using StaticFields = Pfe::NatProgrammerStaticEntry::Fields;
using StaticEntry = Pfe::NatProgrammerStaticEntry::PtrConst;
using StaticKey = Pfe::NatProgrammerStaticKey;

StaticKey staticKey( std::string_view keyPair, std::string_view intfName = "ethernet1", char const * aclName = "" );

// TCP, qualifier 5, target source unless the fields say otherwise; `translated` replaces the one in them.
StaticEntry staticEntry( std::string_view translated,
                         StaticFields fields = { .intfQualifier = 5, .connection = { .protocol = 6 } } );

// A static ingress key of the default interface and protocol.
Pfe::IngStaticNatTable::Key ingressKey( Ip::Nat::NatTarget target, std::string_view matched,
                                        std::string_view translated, bool fragment = false );

// --- Hooks -----------------------------------------------------------------------------------------------------------

// Recognises UDP alone.
class DynamicHook final : public Pfe::DynamicNatProgrammerHelper {
 public:
   bool getL4ProtocolDetected( U8 proto ) override { return proto == 17; }
};

// Rewrites each replication to the translated address, one copy per egress interface.
class McastHook final : public Pfe::NatMcastProgrammerHelper {
 public:
   std::function< bool( AnyRule const & ) > accepts;  // empty: everything
   std::vector< std::string > egressIntfs{ "ethernet7", "ethernet8" };
   bool answersValid = true;
   std::function< void() > whenAsked;  // runs inside getStaticEgrMcastEntry

   std::vector< Pfe::IngNatTableKey > cleaned;
   unsigned startups = 0;

   Pfe::EgrMcastEntry getStaticEgrMcastEntry( StaticKey const & key, StaticEntry const & entry,
                                              Pfe::NatMatchKey const & matchKey, Pfe::NatId natId ) override;
   Pfe::EgrMcastEntry getTwiceEgrMcastEntry( Pfe::NatProgrammerTwiceKey const & key,
                                             Pfe::NatProgrammerTwiceEntry::PtrConst const & entry,
                                             Pfe::NatMatchKey const & matchKey, Pfe::NatId natId ) override;
   bool isValidMcastStaticTranslation( StaticKey const & key, StaticEntry const & entry ) override {
      return !accepts || accepts( StaticRule{ key, entry } );
   }
   bool isValidMcastTwiceTranslation( Pfe::NatProgrammerTwiceKey const & key,
                                      Pfe::NatProgrammerTwiceEntry::PtrConst const & entry ) override {
      return !accepts || accepts( TwiceRule{ key, entry } );
   }
   void cleanupNatEntry( Pfe::IngNatTableKey const & key ) override { cleaned.push_back( key ); }
   void handleStartup() override { ++startups; }

 private:
   Pfe::EgrMcastEntry copiesOf( Pfe::EgrNatMcRewriteEntry rewrite, Pfe::NatId natId ) const;
};

// --- Tables ----------------------------------------------------------------------------------------------------------

// All tables of one chip.
struct Tables {
   Asic::Hardware::Ptr hardware = Orla::make< Asic::Hardware >();
   Agent::NatTables all{ hardware };

   void attachTo( Pfe::NatSwTableProgrammerSm & programmer ) const;
   void clear() const;

   std::size_t rowCount() const;
   std::size_t failedRowCount() const;

   // Every row that look-ups see, with its table, contents and state, one line each, sorted.
   Lines text() const;
};

// --- Programmer ------------------------------------------------------------------------------------------------------

// What outlives a programmer: its configuration, and the persisted NAT ids.
struct Surroundings {
   Pfe::NatProgrammerConfig::Ptr config = Orla::make< Pfe::NatProgrammerConfig >();
   Pfe::NatIdInfo::Ptr natIdInfo = Orla::make< Pfe::NatIdInfo >();
   Orla::Ptr< McastHook > mcast = Orla::make< McastHook >();
   Ip::Nat::HwCapabilities::Ptr capabilities = Orla::make< Ip::Nat::HwCapabilities >();
   Orla::Ptr< Pfe::NatAclNameIdTable > acls = Orla::make< Pfe::NatAclNameIdTable >();
   std::shared_ptr< ScriptedHardware > chip = std::make_shared< ScriptedHardware >();
};

// A programmer in table mode with its tables, hooks and status, as an agent sets it up. Ends as an agent does.
class Programmer : public Surroundings {
 public:
   using Sm = Pfe::NatSwTableProgrammerSm;
   // Creates the programmer out of configuration, status and persisted ids.
   using Make = std::function< Sm::Ptr( Surroundings const &, Pfe::NatProgrammerStatus::Ptr const & ) >;

   // Ready for requests, replay() not yet called.
   explicit Programmer( Surroundings surroundings = {}, Make const & make = {} );
   ~Programmer() { tables.clear(); }
   Programmer( Programmer const & ) = delete;
   Programmer & operator=( Programmer const & ) = delete;

   Sm * operator->() const { return sm.ptr(); }

   void settle() const { tables.hardware->settle(); }
   // Turns until nothing is outstanding, then says so. False when something stays outstanding.
   bool settleToRest() const;

   // Absent while the rule has none.
   std::optional< PfeHelper::NatHwResult > result( AnyKey const & key ) const { return resultOf( *status, key ); }
   std::size_t idsInUse() const { return natIdInfo->matchKeyToNatId().count(); }
   // Of the ids up to `last`, those that are not in use are free from now on, and no other.
   void freeIdsAre( U32 last ) const;
   // Whether nothing is left of any rule.
   bool isEmpty() const;

   Tables tables;
   Pfe::NatProgrammerStatus::Ptr status = Orla::make< Pfe::NatProgrammerStatus >();
   Pfe::NatTrapConfig::Ptr traps = Orla::make< Pfe::NatTrapConfig >();
   Pfe::NatProfileConfig::Ptr profiles = Orla::make< Pfe::NatProfileConfig >();
   Sm::Ptr sm;
};

// --- Traces ----------------------------------------------------------------------------------------------------------

// Collects the text traces up to a level while it lives.
class TraceLines {
 public:
   explicit TraceLines( U8 level );
   ~TraceLines();
   TraceLines( TraceLines const & ) = delete;
   TraceLines & operator=( TraceLines const & ) = delete;

   // "<level> <line>", oldest first, since the last call.
   Lines take() { return std::exchange( lines_, {} ); }

 private:
   Lines lines_;
};

// The messages that the ring got while `action` ran.
Lines ringLinesOf( std::function< void() > const & action );

}  // namespace Support
