// Flows of a kernel's connection tracking as dynamic connections.
#include "agent/LearnedConnection.h"

#include "agent/ConntrackEntry.h"

#include <tests/support/Programmer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

namespace {

using Agent::LearnedConnection;
using Agent::NotLearned;
using Agent::RowClaims;
using Agent::TrackedFlow;
using Ip::Nat::NatTarget;
using Netix::ConnTuple;
using Support::intf;
using Support::pair;
using testing::Optional;

constexpr U8 icmp = 1, tcp = 6, udp = 17, gre = 47, esp = 50, sctp = 132;

ConnTuple tuple( std::string_view source, std::string_view destination, U8 protocol ) {
   return { pair( source ), pair( destination ), protocol };
}

struct FlowText {
   U8 protocol;
   std::string_view from, to;              // as sent
   std::string_view answerFrom, answerTo;  // as answers are expected
};

TrackedFlow flowOf( FlowText const & text ) {
   return { tuple( text.from, text.to, text.protocol ), tuple( text.answerFrom, text.answerTo, text.protocol ) };
}

// --- What is learned -------------------------------------------------------------------------------------------------

struct TranslatedCase {
   char const * name;
   FlowText flow;
   NatTarget target;
   std::string_view global;
};
constexpr auto source = NatTarget::source;
constexpr auto destination = NatTarget::destination;
constexpr TranslatedCase translatedCases[] = {
   { "source address",
     { tcp, "10.0.0.11:4000", "203.0.113.9:80", "203.0.113.9:80", "198.51.100.1:4000" },
     source,
     "198.51.100.1:4000" },
   { "source address and port",
     { udp, "10.0.0.11:4000", "203.0.113.9:53", "203.0.113.9:53", "198.51.100.1:1024" },
     source,
     "198.51.100.1:1024" },
   { "source port alone",
     { tcp, "10.0.0.11:4000", "203.0.113.9:80", "203.0.113.9:80", "10.0.0.11:4001" },
     source,
     "10.0.0.11:4001" },
   { "destination address",
     { tcp, "203.0.113.9:4000", "198.51.100.1:80", "10.0.0.21:80", "203.0.113.9:4000" },
     destination,
     "10.0.0.21:80" },
   { "destination address and port",
     { udp, "203.0.113.9:4000", "198.51.100.1:53", "10.0.0.22:5353", "203.0.113.9:4000" },
     destination,
     "10.0.0.22:5353" },
   { "destination port alone",
     { tcp, "203.0.113.9:4000", "198.51.100.1:80", "198.51.100.1:8080", "203.0.113.9:4000" },
     destination,
     "198.51.100.1:8080" },
   { "query", { icmp, "10.0.0.11:77", "203.0.113.9", "203.0.113.9", "198.51.100.1:77" }, source, "198.51.100.1:77" },
   { "query with another id",
     { icmp, "10.0.0.11:77", "203.0.113.9", "203.0.113.9", "198.51.100.1:78" },
     source,
     "198.51.100.1:78" },
   { "query to a forward",
     { icmp, "203.0.113.9:77", "198.51.100.1", "10.0.0.21", "203.0.113.9:77" },
     destination,
     "10.0.0.21" },
   { "no ports", { esp, "10.0.0.11", "203.0.113.9", "203.0.113.9", "198.51.100.1" }, source, "198.51.100.1" },
   { "GRE without keys", { gre, "203.0.113.9", "198.51.100.1", "10.0.0.21", "203.0.113.9" }, destination, "10.0.0.21" },
};

TEST( LearnedConnection, TargetIsTheSideThatTheKernelTranslated ) {
   for ( auto const & c : translatedCases ) {
      SCOPED_TRACE( c.name );
      auto const learned = learnedFrom( flowOf( c.flow ) );
      ASSERT_TRUE( std::holds_alternative< LearnedConnection >( learned ) );
      EXPECT_EQ( std::get< LearnedConnection >( learned ),
                 ( LearnedConnection{ tuple( c.flow.from, c.flow.to, c.flow.protocol ),
                                      { .target = c.target, .addrOnly = false, .fullCone = false },
                                      pair( c.global ) } ) );
   }
}

// What is sent out of a translation comes from where its answers go to, and the other way round.
ConnTuple turned( ConnTuple const & tuple ) { return { tuple.destination, tuple.source, tuple.protocol }; }

template< class Ingress, class Egress >
std::optional< ConnTuple > rewritten( Ingress const & ingress, Egress const & egress, ConnTuple packet ) {
   auto const * const row = ingress.entry( { .vrfId = Netix::VrfId( 3 ),
                                             .intfQualifier = 9,
                                             .firstIp = packet.source.ip,
                                             .firstPort = packet.source.port,
                                             .secondIp = packet.destination.ip,
                                             .secondPort = packet.destination.port,
                                             .protocol = packet.protocol,
                                             .l4Detected = packet.protocol == udp } );  // as the hook says
   auto const * const rewrite = row ? egress.entry( { Pfe::NatId( row->natId ), 9 } ) : nullptr;
   if ( !rewrite ) {
      return std::nullopt;
   }
   auto const write = []( Netix::IpAndPort & field, Netix::IpAddr ip, U16 port ) {
      field.ip = ip == Netix::IpAddr() ? field.ip : ip;
      field.port = port == 0 ? field.port : port;
   };
   write( packet.source, rewrite->srcIp, rewrite->srcPort );
   write( packet.destination, rewrite->dstIp, rewrite->dstPort );
   return packet;
}

// Programs what is learned of the flows, all together, and sends a packet of each flow and its answer through the rows.
// Returns how many were learned.
std::size_t expectTranslatedAsByTheKernel( std::vector< TrackedFlow > const & flows, bool fragmentation ) {
   Support::Programmer programmer;
   programmer.config->fragmentationEnabledIs( fragmentation );
   std::vector< std::pair< TrackedFlow, NatTarget > > learnedFlows;
   for ( auto const & flow : flows ) {
      auto const result = learnedFrom( flow );
      if ( auto const * const learned = std::get_if< LearnedConnection >( &result ) ) {
         configure( *programmer.config, ruleOf( *learned, { intf( "ethernet1" ), 3, 9 } ) );
         learnedFlows.emplace_back( flow, learned->connection.target );
      }
   }
   programmer->replay();
   EXPECT_TRUE( programmer.settleToRest() );
   auto const & tables = programmer.tables;
   auto const leaving = [ & ]( ConnTuple const & p ) { return rewritten( *tables.snapt, *tables.source, p ); };
   auto const entering = [ & ]( ConnTuple const & p ) { return rewritten( *tables.dnapt, *tables.destination, p ); };
   for ( auto const & [ flow, target ] : learnedFlows ) {
      SCOPED_TRACE( Vexa::stringOf( flow.original ) );
      // Packets of a flow from inside leave by the interface, answers enter; of a flow from outside it is the reverse.
      bool const fromInside = target == source;
      EXPECT_EQ( fromInside ? leaving( flow.original ) : entering( flow.original ), turned( flow.reply ) );
      EXPECT_EQ( fromInside ? entering( flow.reply ) : leaving( flow.reply ), turned( flow.original ) );
   }
   return learnedFlows.size();
}

TEST( LearnedConnection, RowsTranslateBothDirectionsAsTheKernelDoes ) {
   for ( auto const & c : translatedCases ) {
      SCOPED_TRACE( c.name );
      EXPECT_EQ( expectTranslatedAsByTheKernel( { flowOf( c.flow ) }, false ), 1U );
   }
}

TEST( LearnedConnection, RowsOfAWholeRecordingTranslateAsTheKernelDid ) {
   std::vector< TrackedFlow > flows;
   std::ifstream recording( "examples/conntrack-masquerade.txt" );
   for ( std::string line; std::getline( recording, line ); ) {
      if ( auto const entry = Agent::conntrackEntryFrom( line ); entry.isIpv4 ) {
         flows.push_back( entry.flow );
      }
   }
   for ( bool const fragmentation : { false, true } ) {
      SCOPED_TRACE( fragmentation );
      EXPECT_EQ( expectTranslatedAsByTheKernel( flows, fragmentation ), 113U );
   }
}

// --- What is not -----------------------------------------------------------------------------------------------------

TEST( LearnedConnection, RefusesWhatNoDynamicConnectionExpresses ) {
   struct Case {
      char const * name;
      FlowText flow;
      NotLearned reason;
   };
   constexpr Case cases[] = {
      { "untouched",
        { tcp, "10.0.0.11:4000", "203.0.113.9:80", "203.0.113.9:80", "10.0.0.11:4000" },
        NotLearned::notTranslated },
      { "query untouched",
        { icmp, "10.0.0.11:77", "203.0.113.9", "203.0.113.9", "10.0.0.11:77" },
        NotLearned::notTranslated },
      { "untouched, and port 0",
        { udp, "10.0.0.11", "203.0.113.9:80", "203.0.113.9:80", "10.0.0.11" },
        NotLearned::notTranslated },
      { "both addresses",
        { tcp, "10.0.0.12:4000", "198.51.100.1:80", "10.0.0.21:80", "10.0.0.1:4000" },
        NotLearned::bothSides },
      { "source address, destination port",
        { tcp, "10.0.0.12:4000", "203.0.113.9:80", "203.0.113.9:8080", "10.0.0.1:4000" },
        NotLearned::bothSides },
      { "forwarded query with another id",
        { icmp, "203.0.113.9:77", "198.51.100.1", "10.0.0.21", "203.0.113.9:78" },
        NotLearned::bothSides },
      { "source port 0",
        { udp, "10.0.0.11", "203.0.113.9:53", "203.0.113.9:53", "198.51.100.1:1024" },
        NotLearned::wildcard },
      { "destination port 0",
        { sctp, "10.0.0.11:4000", "203.0.113.9", "203.0.113.9", "198.51.100.1:4000" },
        NotLearned::wildcard },
      { "translated port 0",
        { tcp, "203.0.113.9:4000", "198.51.100.1:80", "10.0.0.21", "203.0.113.9:4000" },
        NotLearned::wildcard },
      { "port 0 translated to another",
        { tcp, "203.0.113.9:4000", "198.51.100.1", "10.0.0.21:8080", "203.0.113.9:4000" },
        NotLearned::wildcard },
      { "source port translated to 0",
        { tcp, "10.0.0.11:4000", "203.0.113.9:80", "203.0.113.9:80", "198.51.100.1" },
        NotLearned::wildcard },
      { "all ports 0", { udp, "10.0.0.11", "203.0.113.9", "203.0.113.9", "198.51.100.1" }, NotLearned::wildcard },
      { "some ports of another protocol 0",
        { esp, "10.0.0.11:5", "203.0.113.9", "203.0.113.9", "198.51.100.1:5" },
        NotLearned::wildcard },
      { "query id 0", { icmp, "10.0.0.11", "203.0.113.9", "203.0.113.9", "198.51.100.1" }, NotLearned::wildcard },
      { "address 0",
        { udp, "0.0.0.0:68", "203.0.113.9:67", "203.0.113.9:67", "198.51.100.1:68" },
        NotLearned::wildcard },
      { "protocol 0", { 0, "10.0.0.11", "203.0.113.9", "203.0.113.9", "198.51.100.1" }, NotLearned::wildcard },
      { "GRE keys", { gre, "10.0.0.11:5", "203.0.113.9:6", "203.0.113.9:6", "198.51.100.1:5" }, NotLearned::greKeys },
   };
   for ( auto const & c : cases ) {
      SCOPED_TRACE( c.name );
      auto const learned = learnedFrom( flowOf( c.flow ) );
      ASSERT_TRUE( std::holds_alternative< NotLearned >( learned ) );
      EXPECT_EQ( textOf( std::get< NotLearned >( learned ) ), textOf( c.reason ) );
   }
}

// --- One row, one connection -----------------------------------------------------------------------------------------

LearnedConnection fromInside( std::string_view from, std::string_view to, std::string_view global, U8 protocol = tcp ) {
   return { tuple( from, to, protocol ), { .target = source }, pair( global ) };
}
LearnedConnection fromOutside( std::string_view from, std::string_view to, std::string_view global ) {
   return { tuple( from, to, tcp ), { .target = destination }, pair( global ) };
}

TEST( RowClaims, RefuseTheSecondConnectionThatNeedsARowOrTheKey ) {
   struct Case {
      char const * name;
      LearnedConnection second;
      bool refused;
   };
   auto const first = fromInside( "10.0.0.11:4000", "203.0.113.9:80", "198.51.100.1:4000" );
   Case const cases[] = {
      { "the same", first, true },
      { "its source row", fromInside( "10.0.0.11:4000", "203.0.113.9:80", "198.51.100.2:4000" ), true },
      { "its destination row", fromInside( "10.0.0.12:4000", "203.0.113.9:80", "198.51.100.1:4000" ), true },
      { "its source row by a forward", fromOutside( "203.0.113.9:80", "198.51.100.5:7", "10.0.0.11:4000" ), true },
      { "its destination row by a forward", fromOutside( "203.0.113.9:80", "198.51.100.1:4000", "10.0.0.99:1" ), true },
      { "its key by a forward", fromOutside( "10.0.0.11:4000", "203.0.113.9:80", "10.0.0.99:1" ), true },
      { "another protocol", fromInside( "10.0.0.11:4000", "203.0.113.9:80", "198.51.100.1:4000", udp ), false },
      { "another source port", fromInside( "10.0.0.11:4001", "203.0.113.9:80", "198.51.100.1:4001" ), false },
      { "another destination", fromInside( "10.0.0.11:4000", "203.0.113.9:81", "198.51.100.1:4000" ), false },
      // Of two tables, so they are two rows.
      { "its source row's tuple as destination row", fromOutside( "203.0.113.9:4000", "10.0.0.11:4000", "10.0.0.99:1" ),
        false },
   };
   for ( auto const & c : cases ) {
      SCOPED_TRACE( c.name );
      RowClaims claims;
      EXPECT_EQ( claims.claim( first, 12 ), std::nullopt );
      EXPECT_EQ( claims.claim( c.second, 15 ), c.refused ? std::optional< U32 >( 12 ) : std::nullopt );
   }
}

TEST( RowClaims, ARefusedClaimLeavesNothingBehind ) {
   RowClaims claims;
   EXPECT_EQ( claims.claim( fromInside( "10.0.0.11:4000", "203.0.113.9:80", "198.51.100.1:4000" ), 1 ), std::nullopt );
   // Key and source row are free, the destination row is not.
   EXPECT_THAT( claims.claim( fromInside( "10.0.0.12:4000", "203.0.113.9:80", "198.51.100.1:4000" ), 2 ),
                Optional( 1U ) );
   EXPECT_EQ( claims.claim( fromInside( "10.0.0.12:4000", "203.0.113.9:80", "198.51.100.1:4001" ), 3 ), std::nullopt );
}

TEST( RowClaims, ConfiguredConnectionsComeFirst ) {
   auto const learned = fromInside( "10.0.0.11:4000", "203.0.113.9:80", "198.51.100.1:4000" );
   auto const sameSourceRow = fromInside( "10.0.0.11:4000", "203.0.113.9:80", "198.51.100.2:4000" );
   auto const sameDestinationRow = fromInside( "10.0.0.12:4000", "203.0.113.9:80", "198.51.100.1:4000" );
   Agent::NatInterface const here{ intf( "ethernet1" ), 3, 9 };
   auto addressOnly = sameDestinationRow;
   addressOnly.connection.addrOnly = true;
   struct Case {
      char const * name;
      Agent::NatInterface configuredOn;
      LearnedConnection configured;
      bool vrfLess;
      bool refused;
   };
   Case const cases[] = {
      { "the same key", here, learned, false, true },
      { "the same row", here, sameDestinationRow, false, true },
      { "the same key in another VRF", { here.intf, 4, 9 }, learned, false, true },
      { "the same row on another interface", { intf( "ethernet2" ), 3, 9 }, sameSourceRow, false, true },
      { "another VRF", { intf( "ethernet2" ), 4, 9 }, sameSourceRow, false, false },
      { "another VRF, but VRFs do not matter", { intf( "ethernet2" ), 4, 9 }, sameSourceRow, true, true },
      { "another qualifier", { intf( "ethernet2" ), 3, 8 }, sameSourceRow, false, false },
      { "addresses only, which has other tables", here, addressOnly, false, false },
   };
   for ( auto const & c : cases ) {
      SCOPED_TRACE( c.name );
      Pfe::NatProgrammerConfig rules;
      rules.vrfLessIs( c.vrfLess );
      configure( rules, ruleOf( c.configured, c.configuredOn ) );
      RowClaims claims( rules, here );
      EXPECT_EQ( claims.claim( learned, 7 ), c.refused ? std::optional( RowClaims::configured ) : std::nullopt );
   }
}

}  // namespace
