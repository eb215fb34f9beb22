// One trap rule of a configuration file.
#pragma once

#include "agent/Configuration.h"
#include "agent/JsonMembers.h"

namespace Agent {

// Throws UnusableInput for what is no trap.
Trap takeTrap( JsonValue value );

}  // namespace Agent
