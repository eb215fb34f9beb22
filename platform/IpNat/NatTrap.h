// Which packets are trapped to learn new dynamic connections.
#pragma once

#include <Acl/PortSpec.h>
#include <Netix/IpAddrWithFullMask.h>
#include <Vexa/OrderedSet.h>
#include <Vexa/Types.h>

namespace [[gnu::visibility( "default" )]] Ip {
namespace Nat {

// One condition under which packets are trapped, or spared. Fields stand in the order in which they are compared.
struct NatTrapFilter {
   U32 sequence = 0;
   Netix::IpAddrWithFullMask source;
   Netix::IpAddrWithFullMask destination;
   U8 protocol = 0;  // IANA protocol number
   U8 protocolMask = 0;
   U16 permit = 0;  // 1: the packets are translated elsewhere and not trapped
   U16 flagMask = 0;
   U8 sourcePortOp = 0;
   Acl::PortSpec sourcePort;
   U8 destinationPortOp = 0;
   Acl::PortSpec destinationPort;

   // The order in which filters are expanded. Some fields descend: the greater value comes first.
   friend bool operator<( NatTrapFilter const & a, NatTrapFilter const & b );
   friend bool operator==( NatTrapFilter const &, NatTrapFilter const & ) = default;
};

// What a dynamic rule traps.
struct NatDynamicTrapRule {
   U16 ruleId = 0;  // tells apart the trap rules of one access list and pool
   U16 poolValue = 0;
   bool trapAll = false;  // every packet, before any filter
   U8 priority = 0;
   U8 action = 0;
   Vexa::OrderedSet< NatTrapFilter > trapFilter;
};

}  // namespace Nat
}  // namespace Ip
