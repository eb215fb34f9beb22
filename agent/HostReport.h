// What the agent shows of a programmed configuration.
#pragma once

#include "agent/Host.h"
#include "agent/PacketWalk.h"
#include "agent/Report.h"

#include <cstddef>

namespace Agent {

struct Sections {
   bool rows = false;
   bool natIds = false;
   std::size_t ringLines = 0;  // the newest lines of the ring trace
};

// Connections with result and NAT ids, what was asked for, rows that the hardware did not take, and a summary.
void reportProgramming( Report & report, Host const & host, Sections const & sections );

// The packet's way through the tables row by row, and that of the reply to it. Returns whether the way is certain: no
// packet on it matches two rows equally well.
bool reportWalk( Report & report, Host const & host, Packet const & packet );

}  // namespace Agent
