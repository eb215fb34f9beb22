// The system under measurement: the table programmer with its tables, as an agent puts it together.
#pragma once

#include "Rules.h"

#include "PfeNat/PfeNatSwTableProgrammerSm.h"
#include "agent/host/NatTables.h"

#include <cstddef>

namespace Bench {

using Agent::configure;
using Agent::unconfigure;
template< class Rule > void configure( Pfe::NatProgrammerConfig & config, std::vector< Rule > const & rules ) {
   for ( auto const & rule : rules ) {
      configure( config, rule );
   }
}

// Text traces off, ring trace on, base programmer and reactors included; nobody watches the NAT ids, for the agent's
// store is its own matter.
class System {
 public:
   // An empty system that has had its first replay.
   System();
   // One that programs `config` and keeps the ids of `natIdInfo`; not initialised, nothing replayed yet.
   System( Pfe::NatProgrammerConfig::Ptr config, Pfe::NatIdInfo::Ptr natIdInfo );
   ~System();
   System( System const & ) = delete;
   System & operator=( System const & ) = delete;

   // Reserves the persisted ids, hands over the configuration, sweeps, settles.
   void start();

   // Changes the configuration; what has been handed over settles with settle().
   template< class Rules > void configure( Rules const & rules ) { Bench::configure( *config_, rules ); }
   template< class Rules > void unconfigure( Rules const & rules ) {
      for ( auto const & rule : rules ) {
         Bench::unconfigure( *config_, rule );
      }
   }

   // Takes every rule out of the tables, or hands it over again, whatever the configuration holds.
   void deleteAll();
   void addAll();

   // Ends a turn as the agent does: settles everything and tells the base programmer that nothing is outstanding.
   void settle();

   Pfe::NatProgrammerConfig & config() { return *config_; }
   Pfe::NatIdInfo const & natIdInfo() const { return *natIdInfo_; }

   // Ends the process unless `rules` rules are programmed, with that many ingress rows and NAT ids in all, one rewrite
   // for each id, and nothing is outstanding.
   void requireProgrammed( std::size_t rules, std::size_t ingressRows, std::size_t natIds ) const;

 private:
   Pfe::NatProgrammerConfig::Ptr config_;
   Pfe::NatProgrammerStatus::Ptr status_;
   Pfe::NatIdInfo::Ptr natIdInfo_;
   Asic::Hardware::Ptr hardware_;
   Agent::NatTables tables_;
   Pfe::NatSwTableProgrammerSm::Ptr programmer_;
};

// Ends the process with a message when what was measured is not what should have been.
void require( bool condition, char const * what );

}  // namespace Bench
