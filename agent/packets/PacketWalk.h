// How a packet meets the tables.
#pragma once

#include "agent/configuration/Configuration.h"
#include "agent/host/NatTables.h"

#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <Netix/IntfId.h>
#include <Netix/IpAndPort.h>
#include <Vexa/Types.h>
#include <Vexa/Value.h>

#include <memory>
#include <optional>
#include <set>
#include <sstream>
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

// Whether a packet passes what a rule has beside its row: access list and filters.
enum class Permission : U8 { given, refused, unknown };

struct IngressRow {
   std::string_view table;
   Pfe::IngNatTableKey key;
   Permission permission = Permission::given;
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
   // Rows that match, but whose filters do not permit the packet.
   std::vector< IngressRow > refused;
   // What leaves, when there is one match; several of a multicast packet.
   std::vector< Copy > copies;

   // Whether one row matches, or none, and nothing beside the tables decides about it.
   bool isCertain() const {
      return matches.empty() || ( matches.size() == 1 && matches[ 0 ].permission == Permission::given );
   }
};

// What the chip knows of the interfaces beside the tables.
struct Interfaces {
   std::set< std::pair< Netix::IntfId, U16 > > qualifiers;  // an interface without one meets no dynamic rows
   bool vrfLess = false;                                    // twice and dynamic rows apply in every VRF
};

// Walks packets through the tables as the hardware holds them. All rows are looked at once, at the construction; from
// then on what a packet shows finds them. To be made anew when the tables, or the configuration, have changed.
//
// Rows that translate the source apply to packets that leave by the row's interface, rows that translate the
// destination to packets that enter by it, twice rows by their direction; dynamic rows know the interface by its
// qualifier; all in the packet's VRF. Twice rows come before static ones, these before dynamic ones with ports, and
// last those of addresses only; in a table rows with the exact port come before those without. Later fragments match
// the fragment rows, then rows without ports; other packets never match fragment rows.
//
// A static row with filters applies to packets that one of them permits. They are written for packets that the rule's
// own target translates; an answer is held against them as the packet that it answers. What an access list permits is
// not known, nor are the ports of a later fragment.
class PacketWalk {
 public:
   // Of tables alone: what filters permit is not known. The tables must outlive the walk.
   PacketWalk( NatTables const & tables, Interfaces interfaces );
   // Of a configuration's tables. Both must outlive the walk.
   PacketWalk( NatTables const & tables, Configuration const & configuration );
   ~PacketWalk();
   PacketWalk( PacketWalk && ) noexcept;
   PacketWalk & operator=( PacketWalk && ) noexcept;

   Passage passageOf( Packet const & packet ) const;

   // Null when no connection derives the row, as for rows of fragments, which connections share.
   Connection const * connectionOf( Pfe::IngNatTableKey const & row ) const;

 private:
   class Impl;
   std::unique_ptr< Impl const > impl_;
};

// The key of the row whose handle it is; none when the table has no such row.
template< class Table >
std::optional< typename Table::Key > keyOf( Table const & table, Asic::EntryHandle const & handle ) {
   using Key = typename Table::Key;
   std::ostringstream description;
   handle.describe( description );
   auto const text = std::move( description ).str();
   if ( !text.starts_with( "Value('" + std::string( Key::typeName ) + '\'' ) ) {
      return std::nullopt;
   }
   auto const key = Vexa::parseWhole< Key >( text );
   return table.entryHandle( key ) == &handle ? std::optional( key ) : std::nullopt;
}

// Of one packet.
inline Passage walk( NatTables const & tables, Packet const & packet, Interfaces const & interfaces = {} ) {
   return PacketWalk( tables, interfaces ).passageOf( packet );
}

}  // namespace Agent
