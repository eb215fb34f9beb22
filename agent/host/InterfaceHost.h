// What an agent is to the programmer of interface mode: owner of the rules and of the software-table configuration, and
// of the consumer to which a platform would give it.
#pragma once

#include "agent/configuration/Configuration.h"

#include "PfeNat/PfeNatProgrammerIntfModeSm.h"
#include "PfeNat/PfeNatSwTableSm.h"

#include <Pfe/NatSwTableConfig.h>
#include <Pfe/NatSwTableStatus.h>

namespace Agent {

class InterfaceHost {
 public:
   // Hands the whole configuration over. Throws UnusableInput when a static connection has no VLAN, with a line for
   // each.
   explicit InterfaceHost( Configuration configuration );

   // Whether every connection is in the software-table configuration. One that this mode ignores is not.
   bool isComplete() const;

   Configuration const & configuration() const { return configuration_; }
   Pfe::NatSwTableConfig const & swTableConfig() const { return *swTableConfig_; }
   // Which rules feed which entries.
   Pfe::NatProgrammerStaticMap const & staticMap() const { return *programmer_->staticConfigMap(); }

 private:
   Configuration configuration_;
   Pfe::NatSwTableConfig::Ptr swTableConfig_;
   Pfe::NatSwTableStatus::Ptr swTableStatus_;
   Pfe::NatSwTableSm::Ptr consumer_;
   Pfe::NatProgrammerIntfModeSm::Ptr programmer_;
};

}  // namespace Agent
