// What a tracked flow is learned as, and which of two connections has a row.
#include "agent/learning/ConntrackEntry.h"

#include <tests/support/Programmer.h>

#include <gtest/gtest.h>

namespace {

using Agent::LearnedConnection;
using Agent::NotLearned;
using Agent::RowClaims;
using Ip::Nat::NatTarget;
using Support::intf;
using Support::pair;

constexpr U8 icmp = 1, tcp = 6, udp = 17, gre = 47, esp = 50;

// --- Flows -----------------------------------------------------------------------------------------------------------

struct FlowCase {
   char const * name;
   U8 protocol;
   std::string_view from, to;              // as sent
   std::string_view answerFrom, answerTo;  // as answers are expected
   std::string_view learned;               // target and global
   NotLearned reason = {};                 // when nothing is learned
};

TEST( LearnedConnection, TargetIsTheSideThatTheKernelTranslatedIfItIsOneAndExpressible ) {
   using enum NotLearned;
   constexpr FlowCase cases[] = {
      { "source address", tcp, "10.0.0.11:4000", "203.0.113.9:80", "203.0.113.9:80", "198.51.100.1:4000",
        "source 198.51.100.1:4000" },
      { "source port alone", tcp, "10.0.0.11:4000", "203.0.113.9:80", "203.0.113.9:80", "10.0.0.11:4001",
        "source 10.0.0.11:4001" },
      { "destination address and port", udp, "203.0.113.9:4000", "198.51.100.1:53", "10.0.0.22:5353",
        "203.0.113.9:4000", "destination 10.0.0.22:5353" },
      { "destination port alone", tcp, "203.0.113.9:4000", "198.51.100.1:80", "198.51.100.1:8080", "203.0.113.9:4000",
        "destination 198.51.100.1:8080" },
      { "query with another id", icmp, "10.0.0.11:77", "203.0.113.9", "203.0.113.9", "198.51.100.1:78",
        "source 198.51.100.1:78" },
      { "query to a forward", icmp, "203.0.113.9:77", "198.51.100.1", "10.0.0.21", "203.0.113.9:77",
        "destination 10.0.0.21" },
      { "no ports", esp, "10.0.0.11", "203.0.113.9", "203.0.113.9", "198.51.100.1", "source 198.51.100.1" },
      { "GRE without keys", gre, "203.0.113.9", "198.51.100.1", "10.0.0.21", "203.0.113.9", "destination 10.0.0.21" },
      { "untouched", tcp, "10.0.0.11:4000", "203.0.113.9:80", "203.0.113.9:80", "10.0.0.11:4000", "", notTranslated },
      { "untouched, and port 0", udp, "10.0.0.11", "203.0.113.9:80", "203.0.113.9:80", "10.0.0.11", "", notTranslated },
      { "source address, destination port", tcp, "10.0.0.12:4000", "203.0.113.9:80", "203.0.113.9:8080",
        "10.0.0.1:4000", "", bothSides },
      { "forwarded query with another id", icmp, "203.0.113.9:77", "198.51.100.1", "10.0.0.21", "203.0.113.9:78", "",
        bothSides },
      { "source port 0", udp, "10.0.0.11", "203.0.113.9:53", "203.0.113.9:53", "198.51.100.1:1024", "", wildcard },
      { "translated port 0", tcp, "203.0.113.9:4000", "198.51.100.1:80", "10.0.0.21", "203.0.113.9:4000", "",
        wildcard },
      { "query id 0", icmp, "10.0.0.11", "203.0.113.9", "203.0.113.9", "198.51.100.1", "", wildcard },
      { "address 0", udp, "0.0.0.0:68", "203.0.113.9:67", "203.0.113.9:67", "198.51.100.1:68", "", wildcard },
      { "protocol 0", 0, "10.0.0.11", "203.0.113.9", "203.0.113.9", "198.51.100.1", "", wildcard },
      { "GRE keys", gre, "10.0.0.11:5", "203.0.113.9:6", "203.0.113.9:6", "198.51.100.1:5", "", greKeys },
   };
   for ( auto const & c : cases ) {
      SCOPED_TRACE( c.name );
      Netix::ConnTuple const original{ pair( c.from ), pair( c.to ), c.protocol };
      auto const learned = Agent::learnedFrom( { original, { pair( c.answerFrom ), pair( c.answerTo ), c.protocol } } );
      if ( auto const * const reason = std::get_if< NotLearned >( &learned ) ) {
         EXPECT_EQ( c.learned, "" );
         EXPECT_EQ( textOf( *reason ), textOf( c.reason ) );
      } else {
         auto const & [ conn, connection, global ] = std::get< LearnedConnection >( learned );
         EXPECT_EQ( conn, original );
         EXPECT_EQ( ( connection.target == NatTarget::source ? "source " : "destination " ) + Support::textOf( global ),
                    c.learned );
      }
   }
}

// --- One row, one connection -----------------------------------------------------------------------------------------

LearnedConnection fromInside( std::string_view from, std::string_view to, std::string_view global, U8 protocol = tcp ) {
   return { { pair( from ), pair( to ), protocol }, { .target = NatTarget::source }, pair( global ) };
}
LearnedConnection fromOutside( std::string_view from, std::string_view to, std::string_view global ) {
   return { { pair( from ), pair( to ), tcp }, { .target = NatTarget::destination }, pair( global ) };
}
auto const learned = fromInside( "10.0.0.11:4000", "203.0.113.9:80", "198.51.100.1:4000" );
auto const sameSourceRow = fromInside( "10.0.0.11:4000", "203.0.113.9:80", "198.51.100.2:4000" );
auto const sameDestinationRow = fromInside( "10.0.0.12:4000", "203.0.113.9:80", "198.51.100.1:4000" );

TEST( RowClaims, RefuseTheSecondConnectionThatNeedsARowOrTheKey ) {
   struct {
      char const * name;
      LearnedConnection second;
      bool refused;
   } const cases[] = {
      { "its source row", sameSourceRow, true },
      { "its destination row", sameDestinationRow, true },
      { "its source row by a forward", fromOutside( "203.0.113.9:80", "198.51.100.5:7", "10.0.0.11:4000" ), true },
      { "its destination row by a forward", fromOutside( "203.0.113.9:80", "198.51.100.1:4000", "10.0.0.99:1" ), true },
      { "its key by a forward", fromOutside( "10.0.0.11:4000", "203.0.113.9:80", "10.0.0.99:1" ), true },
      { "another protocol", fromInside( "10.0.0.11:4000", "203.0.113.9:80", "198.51.100.1:4000", udp ), false },
      { "another destination", fromInside( "10.0.0.11:4000", "203.0.113.9:81", "198.51.100.1:4000" ), false },
      // Of two tables, so they are two rows.
      { "its source row's tuple as destination row", fromOutside( "203.0.113.9:4000", "10.0.0.11:4000", "10.0.0.99:1" ),
        false },
   };
   for ( auto const & c : cases ) {
      SCOPED_TRACE( c.name );
      RowClaims claims;
      EXPECT_EQ( claims.claim( learned, 12 ), std::nullopt );
      EXPECT_EQ( claims.claim( c.second, 15 ), c.refused ? std::optional< U32 >( 12 ) : std::nullopt );
      if ( c.refused ) {
         // What of it was free still is.
         auto const other = fromInside( "10.0.0.12:4000", "203.0.113.9:80", "198.51.100.1:4001" );
         EXPECT_EQ( claims.claim( other, 16 ), std::nullopt );
      }
   }
}

TEST( RowClaims, ConfiguredConnectionsComeFirst ) {
   Agent::NatInterface const here{ intf( "ethernet1" ), 3, 9 };
   auto addressOnly = sameDestinationRow;
   addressOnly.connection.addrOnly = true;
   struct {
      char const * name;
      Agent::NatInterface configuredOn;
      LearnedConnection configured;
      bool vrfLess, refused;
   } const cases[] = {
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
