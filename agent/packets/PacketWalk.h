// How a packet meets the tables.
#pragma once

#include "agent/host/NatTables.h"

#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <Netix/IntfId.h>
#include <Netix/IpAndPort.h>
#include <Vexa/Types.h>

#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Agent {

struct Packet {
   enum class Part : U8 { whole, firstFragment, laterFragment };

   Netix::IntfId in;   // default: unknown; rows of no interface apply
   Netix::IntfId out;  // likewise
   U32 vrfId = 0;
   U8 protocol = 0;
   Netix::IpAndPort source;  // later fragments have no ports
   Netix::IpAndPort destination;
   Part part = Part::whole;

   friend bool operator==( Packet const &, Packet const & ) = default;
};

// The answer to the packet, as its receiver sends it.
Packet replyTo( Packet const & packet );

struct IngressRow {
   std::string_view table;
   Pfe::IngNatTableKey key;
};

// A copy of the packet as it leaves, and the row that wrote it.
struct Copy {
   std::string_view table;
   std::string row;  // in words
   Packet packet;
};

struct Passage {
   // The ingress rows that match best. None: the packet passes as it is. More than one: they match equally well, and
   // what the chip does is not known.
   std::vector< IngressRow > matches;
   // Rows that match, but are not in the hardware since it did not take them.
   std::vector< IngressRow > missing;
   // Whether the match has an access list or filters, which are not looked into.
   bool hasConditions = false;
   // What leaves, when there is one match; several of a multicast packet.
   std::vector< Copy > copies;
};

// What the chip knows of the interfaces beside the tables.
struct Interfaces {
   std::set< std::pair< Netix::IntfId, U16 > > qualifiers;  // an interface without one meets no dynamic rows
   bool vrfLess = false;                                    // twice and dynamic rows apply in every VRF
};

// Walks the packet through the tables as the hardware holds them.
//
// Rows that translate the source apply to packets that leave by the row's interface, rows that translate the
// destination to packets that enter by it, twice rows by their direction; dynamic rows know the interface by its
// qualifier; all in the packet's VRF. Twice rows come before static ones, these before dynamic ones with ports, and
// last those of addresses only; in a table rows with the exact port come before those without. Later fragments match
// the fragment rows, then rows without ports; other packets never match fragment rows.
Passage walk( NatTables const & tables, Packet const & packet, Interfaces const & interfaces = {} );

}  // namespace Agent
