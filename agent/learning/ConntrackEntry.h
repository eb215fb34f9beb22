// One line of what the Linux tool conntrack lists.
#pragma once

#include "agent/learning/LearnedConnection.h"

#include <cstddef>
#include <string_view>

namespace Agent {

struct ConntrackEntry {
   bool isIpv4 = true;
   TrackedFlow flow;  // without addresses when it is not IPv4
};

// Where a line ceases to be an entry.
struct ConntrackFault {
   std::size_t position;      // in the line
   std::string_view token;    // there; empty: the line ends
   std::string_view allowed;  // in its place
};

// Throws ConntrackFault; its token is part of `line`.
ConntrackEntry conntrackEntryFrom( std::string_view line );

// Whether the line says how often the kernel refers to the entry, which stands behind everything that decides about
// translation.
bool reachesUseCount( std::string_view line );

}  // namespace Agent
