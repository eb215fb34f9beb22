// What the agent shows of interface mode.
#pragma once

#include "agent/basics/Report.h"
#include "agent/host/InterfaceHost.h"

#include <cstddef>

namespace Agent {

// Connections with the entries that they feed, the entries with their VLANs and what feeds them, what this mode
// ignores, the newest lines of the ring trace, and a summary.
void reportInterfaceMode( Report & report, InterfaceHost const & host, std::size_t ringLines );

}  // namespace Agent
