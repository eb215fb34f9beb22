// What the agent shows of a programmed configuration.
#pragma once

#include "agent/basics/Report.h"
#include "agent/host/Host.h"
#include "agent/packets/PacketWalk.h"

#include <cstddef>
#include <string_view>

namespace Agent {

struct Sections {
   bool rows = false;
   bool natIds = false;
   std::size_t ringLines = 0;  // the newest lines of the ring trace
};

// One part each: file and instance, with the mode when it is not that of tables; connections with result and NAT ids;
// their results alone; trap rules; profiles; NAT ids with the rows that hold them; the rows of all tables; the newest
// lines of the ring trace; rows that the hardware did not take; these, and how many there are of everything. The host
// must live until the report is written.
void reportHeading( Report & report, Configuration const & configuration, std::string_view mode = {} );
void reportConnections( Report & report, Host const & host, Selection const & selection );
void reportStatuses( Report & report, Host const & host, Selection const & selection );
void reportTraps( Report & report, Host const & host, Selection const & selection );
void reportProfiles( Report & report, Host const & host );
void reportNatIds( Report & report, Host const & host, Selection const & selection );
void reportRows( Report & report, Host const & host, Selection const & selection );
void reportRing( Report & report, std::size_t lines );
void reportFailedRows( Report & report, Host const & host );
void reportSummary( Report & report, Host const & host );

// Connections, traps, profiles and summary, and what was asked for.
void reportProgramming( Report & report, Host const & host, Sections const & sections );

// The packet's way through the tables row by row, and that of the reply to it. Returns whether the way is certain: no
// packet on it matches two rows equally well, or one whose conditions are not known.
bool reportWalk( Report & report, PacketWalk const & walk, Packet const & packet );

}  // namespace Agent
