// A packet as the command line describes it.
#pragma once

#include "agent/packets/PacketWalk.h"

#include <map>
#include <string>

namespace CLI {
class App;
class Option;
}

namespace Agent {

// Values that are no such thing are refused by the parser, with option, value and what is allowed.
CLI::Option * addInterfaceOption( CLI::App & app, char const * name, char const * what, Netix::IntfId & intf );
void addPacketOptions( CLI::App & app, Packet & packet );

// Throws UnusableInput unless the options go together: a known interface, and ports where there are any.
void requireComplete( Packet const & packet );

// The packet of such options, by their names without dashes. Throws UnusableInput for whatever is wrong with them.
Packet packetFrom( std::map< std::string, std::string > const & options );

}  // namespace Agent
