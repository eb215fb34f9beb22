// Flows that a kernel's connection tracking translates, and the dynamic connections that translate them in the tables.
#pragma once

#include "agent/configuration/Connection.h"

#include <Netix/IpAndPort.h>
#include <Vexa/HashMap.h>

#include <array>
#include <optional>
#include <string_view>
#include <variant>

namespace Agent {

// An IPv4 flow as connection tracking keeps it: how its packets are addressed before they are translated, and how the
// answers to what comes out of the translation are. Both have the same protocol.
//
// The id of an ICMP query is the port of the host that asks: of the source in `original`, of the destination in
// `reply`. The keys of GRE stand for its ports. Other protocols without ports have port 0.
struct TrackedFlow {
   Netix::ConnTuple original;
   Netix::ConnTuple reply;
};

// What identifies a dynamic connection on its interface, and what it is translated to.
struct LearnedConnection {
   Netix::ConnTuple conn;
   Ip::Nat::DynamicConnection connection;
   Netix::IpAndPort global;

   friend bool operator==( LearnedConnection const &, LearnedConnection const & ) = default;
};

// The host that the connection translates to the world.
Netix::IpAddr insideHostOf( LearnedConnection const & learned );

// Why a flow is no dynamic connection.
enum class NotLearned : U8 {
   notIpv4,
   notTranslated,
   bothSides,      // a dynamic connection translates one
   wildcard,       // a port, ICMP id, address or protocol is 0, which rows take for any, or leave as it is
   greKeys,        // rows have no place for them
   rowTaken,       // another learned connection has its key or one of its rows
   rowConfigured,  // a configured connection has
   hostLimit,      // its inside host has as many as it may
};
inline constexpr std::array< std::string_view, 8 > notLearnedTexts = {
   "not IPv4",
   "not translated",
   "translated on both sides, but a dynamic connection translates one",
   "with a port, ICMP id, address or protocol 0, which rows take for any",
   "GRE with keys, which rows do not hold",
   "deriving the rows of another connection, from which rows tell apart neither zone nor ICMP type",
   "deriving the rows of a configured connection",
   "beyond the limit of learned connections of its inside host" };
constexpr std::string_view textOf( NotLearned reason ) { return notLearnedTexts[ static_cast< U8 >( reason ) ]; }

// The dynamic connection that translates the flow as the kernel does, or why there is none. Whether its rows are free
// is for RowClaims to say.
std::variant< LearnedConnection, NotLearned > learnedFrom( TrackedFlow const & flow );

// The interface that the learned connections are translated on.
struct NatInterface {
   Netix::IntfId intf;
   U32 vrfId = 0;
   U16 qualifier = 0;
};

// Which keys and rows of one interface are in use: no two connections may have one in common.
class RowClaims {
 public:
   static constexpr U32 configured = 0;

   RowClaims() = default;
   // Begins with those of the configured dynamic connections.
   RowClaims( Pfe::NatProgrammerConfig const & rules, NatInterface const & intf );

   // Claims the key and both rows for `owner`. When one of them is taken: claims nothing and returns whose it is.
   std::optional< U32 > claim( LearnedConnection const & learned, U32 owner );
   // Gives back what was claimed for it.
   void release( LearnedConnection const & learned );

 private:
   using Owners = Vexa::HashMap< Netix::ConnTuple, U32, 0x3C6EF372 >;

   Owners keys_;
   Owners leaving_;   // by what the SNAPT row matches
   Owners entering_;  // by what the DNAPT row matches
};

DynamicRule ruleOf( LearnedConnection const & learned, NatInterface const & intf );

}  // namespace Agent
