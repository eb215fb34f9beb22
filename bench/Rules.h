// The rules that the benchmarks program.
#pragma once

#include "agent/configuration/Connection.h"

#include <Pfe/IngStaticNatTable.h>
#include <Pfe/NatMatchKey.h>

#include <array>
#include <cstddef>
#include <utility>
#include <vector>

namespace Bench {

using Agent::DynamicRule;
using Agent::StaticRule;
using Agent::TwiceRule;

using StaticRules = std::vector< StaticRule >;
using TwiceRules = std::vector< TwiceRule >;
using DynamicRules = std::vector< DynamicRule >;

// `count` unicast rules with ports on four interfaces, every second one with target destination. Rule i is on address
// i % addresses, inside and outside, and on the next free port of it.
StaticRules staticRules( std::size_t count, std::size_t addresses );

// The same translations as twice rules, each of whose flows goes to a host of its address, and as learned connections
// to that host.
TwiceRules twiceRules( std::size_t count, std::size_t addresses );
DynamicRules naptRules( std::size_t count, std::size_t addresses );

// Learned connections of `count` addresses whose ports are left alone.
DynamicRules addrOnlyRules( std::size_t count );

// The same rules with another next hop, which changes rows but derives the same ones.
StaticRules withNextHop( StaticRules const & rules );

// The ingress key of the rule's own target, then that of the replies.
inline std::array< Pfe::IngStaticNatTable::Key, 2 > ingKeysOf( StaticRule const & rule ) {
   auto const & connection = rule.entry->connection();
   Netix::IpAndPort const keyPair{ rule.key.key.ip, rule.key.key.port };
   Pfe::IngStaticNatTable::Key const own{ .natIntf = rule.key.natIntf.name(),
                                          .vrfId = rule.entry->vrfId(),
                                          .ipAndPortOld = keyPair,
                                          .ipAndPortNew = connection.translated,
                                          .target = connection.target,
                                          .protocol = connection.protocol };
   auto reply = own;
   std::swap( reply.ipAndPortOld, reply.ipAndPortNew );
   reply.target =
      own.target == Ip::Nat::NatTarget::source ? Ip::Nat::NatTarget::destination : Ip::Nat::NatTarget::source;
   return { own, reply };
}

inline Pfe::NatMatchKey matchKeyOf( Pfe::IngStaticNatTable::Key const & ingKey ) {
   return Pfe::StaticNatMatchKey{ .natIntf = ingKey.natIntf,
                                  .vrfId = ingKey.vrfId,
                                  .ipAndPortOld = ingKey.ipAndPortOld,
                                  .target = ingKey.target,
                                  .protocol = ingKey.protocol };
}

}  // namespace Bench
