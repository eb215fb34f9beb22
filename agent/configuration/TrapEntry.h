// One trap rule of a configuration file.
#pragma once

#include "agent/configuration/Configuration.h"
#include "agent/configuration/JsonMembers.h"

namespace Agent {

// Throws UnusableInput for what is no trap.
Trap takeTrap( JsonValue value );

}  // namespace Agent
