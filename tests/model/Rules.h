// What each kind of rule means: the ingress rows that it becomes, and what it does to a packet.
#pragma once

#include "agent/packets/PacketWalk.h"

#include <tests/support/Programmer.h>

#include <optional>
#include <string>
#include <vector>

namespace Model {

using Support::AnyKey;
using Support::AnyRule;
using Support::Lines;
using IngressKey = Pfe::IngNatTableKey;

// Whatever changes what rules mean for a whole history.
struct Chip {
   bool vrfLess = false;
   bool fullConeProgrammed = true;
};

// --- Contents of rows ------------------------------------------------------------------------------------------------

enum class RewriteTable : U8 { source, destination, copies };

struct RewriteKey {
   RewriteTable table;
   U32 natId;
   U16 number;  // qualifier or replication
   friend auto operator<=>( RewriteKey const &, RewriteKey const & ) = default;
};

struct Rewrite {
   Netix::IpAndPort source;
   Netix::IpAndPort destination;
   U32 egressIntf = 0;
   friend bool operator==( Rewrite const &, Rewrite const & ) = default;
};

// What an ingress row carries beside its rewrites and its twin.
struct Carried {
   U32 nextHopId = 0;
   U32 aclId = 0;
   std::vector< Ip::Nat::NatFilter > filters;
   friend bool operator==( Carried const &, Carried const & ) = default;
};

// --- Rows ------------------------------------------------------------------------------------------------------------

// One direction of a rule.
struct Direction {
   // A fragment twin may be written without being held; then it goes again.
   enum class Twin : U8 { none, held, unheld };

   IngressKey key;
   Twin twin = Twin::none;  // with fragmentation
   IngressKey twinKey;
   RewriteTable table;
   Rewrite rewrite;  // of multicast: without the egress interface
   Rewrite twinRewrite;
   U16 qualifier = 0;
   Carried carried;
   Orla::String aclName;
};

bool isMulticast( AnyRule const & rule );
// Whether no key can hold the rule.
bool isOutOfRange( AnyRule const & rule, Chip const & chip );
// In the order in which they are programmed; none for a rule that is out of range or programmed elsewhere.
std::vector< Direction > directionsOf( AnyRule const & rule, Chip const & chip );
Pfe::NatMatchKey matchKeyOf( IngressKey const & key );
bool isFragment( IngressKey const & key );
bool isMulticast( IngressKey const & key );

// --- Packets ---------------------------------------------------------------------------------------------------------

// A packet that the rule translates, what becomes of it, and whether its answer comes back whole.
struct Exchange {
   Agent::Packet sent;
   std::vector< Agent::Packet > received;
   Agent::Interfaces interfaces;
   bool portsComeBack = true;
};
Exchange exchangeOf( AnyRule const & rule, Chip const & chip );

}  // namespace Model
