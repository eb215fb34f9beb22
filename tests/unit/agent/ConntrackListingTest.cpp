// Listings of the tool conntrack.
#include "agent/learning/ConntrackListing.h"

#include "agent/basics/UnusableInput.h"
#include "agent/learning/ConntrackEntry.h"

#include <tests/support/Programmer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

using Agent::ConntrackListing;
using Agent::LearnedConnection;
using Agent::NotLearned;
using Agent::RowClaims;
using testing::ElementsAre;
using testing::IsEmpty;

ConntrackListing read( std::string_view text ) {
   RowClaims claims;
   return conntrackListing( "list.txt", text, claims );
}

// "3: 6 10.0.0.11:4000 > 203.0.113.9:80, source 198.51.100.1:4000"
Support::Lines learnedIn( ConntrackListing const & listing, bool withLine = true ) {
   Support::Lines lines;
   for ( auto const & [ line, learned ] : listing.learned ) {
      lines.push_back( ( withLine ? std::to_string( line ) + ": " : "" ) + std::to_string( learned.conn.protocol ) +
                       ' ' + Support::textOf( learned.conn.source ) + " > " +
                       Support::textOf( learned.conn.destination ) +
                       ( learned.connection.target == Ip::Nat::NatTarget::source ? ", source " : ", destination " ) +
                       Support::textOf( learned.global ) );
   }
   return lines;
}

std::string faultsOf( std::string_view text ) {
   try {
      read( text );
   } catch ( Agent::UnusableInput const & fault ) {
      return fault.what();
   }
   return "none";
}

// --- Entries ---------------------------------------------------------------------------------------------------------

TEST( ConntrackListing, TakesEveryFormOfAnEntry ) {
   constexpr std::string_view tcpLearned = "1: 6 10.0.0.11:4000 > 203.0.113.9:80, source 198.51.100.1:1024";
   struct Case {
      char const * name;
      char const * entry;
      std::string_view learned;
   };
   constexpr Case cases[] = {
      { "extended, with counters, times and ids",
        "ipv4     2 tcp      6 431998 ESTABLISHED src=10.0.0.11 dst=203.0.113.9 sport=4000 dport=80 packets=4 bytes=217 "
        "src=203.0.113.9 dst=198.51.100.1 sport=80 dport=1024 packets=3 bytes=165 [ASSURED] mark=0 "
        "[start=Sat Nov 22 22:15:01 2025] delta-time=2 use=1 id=1356848966",
        tcpLearned },
      { "zones, mark and security context",
        "tcp 6 9 TIME_WAIT src=10.0.0.11 dst=203.0.113.9 sport=4000 dport=80 zone-orig=3 src=203.0.113.9 "
        "dst=198.51.100.1 sport=80 dport=1024 zone-reply=4 [ASSURED] mark=4294967295 "
        "secctx=system_u:object_r:unlabeled_t:s0:c1,c2 zone=65535 use=1",
        tcpLearned },
      { "helper, labels and what a later kernel may add",
        "tcp 6 9 CLOSE src=10.0.0.11 dst=203.0.113.9 sport=4000 dport=80 src=203.0.113.9 dst=198.51.100.1 sport=80 "
        "dport=1024 mark=0 secmark=0 use=1 helper=ftp labels=a,b colour=blue",
        tcpLearned },
      // The id belongs to the host that asks, on either side.
      { "query with another id",
        "icmp     1 27 src=10.0.0.12 dst=198.51.100.81 type=8 code=0 id=4660 src=198.51.100.81 dst=198.51.100.1 type=0 "
        "code=0 id=33974 mark=0 use=1",
        "1: 1 10.0.0.12:4660 > 198.51.100.81, source 198.51.100.1:33974" },
      { "forwarded query",
        "icmp     1 27 src=203.0.113.9 dst=198.51.100.1 type=8 code=0 id=77 src=10.0.0.21 dst=203.0.113.9 type=0 code=0 "
        "id=77 mark=0 use=1",
        "1: 1 203.0.113.9:77 > 198.51.100.1, destination 10.0.0.21" },
      { "GRE, with the timeouts that /proc lists",
        "ipv4     2 gre      47 27 timeout=30, stream_timeout=180 src=10.0.0.13 dst=198.51.100.82 srckey=0x0 "
        "dstkey=0x0 [UNREPLIED] src=198.51.100.82 dst=198.51.100.1 srckey=0x0 dstkey=0x0 mark=0 zone=0 use=2",
        "1: 47 10.0.0.13 > 198.51.100.82, source 198.51.100.1" },
   };
   for ( auto const & c : cases ) {
      SCOPED_TRACE( c.name );
      EXPECT_THAT( learnedIn( read( c.entry + std::string( "\n" ) ) ), ElementsAre( c.learned ) );
   }
}

TEST( ConntrackListing, NamesWhatItPassesOverAndWhy ) {
   struct Case {
      char const * name;
      char const * entry;
      NotLearned reason;
   };
   constexpr Case cases[] = {
      { "IPv6",
        "tcp      6 431999 ESTABLISHED src=2001:db8:0:1::11 dst=2001:db8:0:2::81 sport=56000 dport=443 "
        "src=2001:db8:0:2::81 dst=2001:db8:0:1::11 sport=443 dport=56000 [ASSURED] mark=0 use=1",
        NotLearned::notIpv4 },
      { "IPv6, translated, extended",
        "ipv6     10 icmpv6   58 28 src=fd00::1 dst=2001:db8::9 type=128 code=0 id=5 src=2001:db8::9 dst=2001:db8::1 "
        "type=129 code=0 id=5 mark=0 use=1",
        NotLearned::notIpv4 },
      { "GRE with keys",
        "gre 47 179 src=10.0.0.13 dst=198.51.100.82 srckey=0x1f dstkey=0xffff src=198.51.100.82 dst=198.51.100.1 "
        "srckey=0xffff dstkey=0x1f [ASSURED] mark=0 use=1",
        NotLearned::greKeys },
   };
   for ( auto const & c : cases ) {
      SCOPED_TRACE( c.name );
      auto const listing = read( std::string( "\n" ) + c.entry + "  \n" );
      EXPECT_THAT( learnedIn( listing ), IsEmpty() );
      ASSERT_EQ( listing.passedOver.size(), 1U );
      EXPECT_EQ( listing.passedOver[ 0 ].line, 2U );
      EXPECT_EQ( textOf( listing.passedOver[ 0 ].reason ), textOf( c.reason ) );
      EXPECT_EQ( listing.passedOver[ 0 ].entry, c.entry );
      EXPECT_EQ( listing.passedOverFor( c.reason ), 1U );
   }
}

// --- Lines -----------------------------------------------------------------------------------------------------------

std::string udpEntry( int sourcePort, int translatedPort, char const * more = "" ) {
   return "udp 17 27 src=10.0.0.11 dst=203.0.113.9 sport=" + std::to_string( sourcePort ) +
          " dport=53 src=203.0.113.9 dst=198.51.100.1 sport=53 dport=" + std::to_string( translatedPort ) + " mark=0 " +
          more + "use=1\n";
}
constexpr std::string_view lastWords = "conntrack v1.4.7 (conntrack-tools): 2 flow entries have been shown.\n";

TEST( ConntrackListing, EmptyLinesAndTheToolsLastWordsAreNoEntries ) {
   auto const first = udpEntry( 4000, 4000 ), second = udpEntry( 4001, 4001 );
   std::string const last( lastWords );
   for ( auto const & text :
         { first + second + last, last + first + second, "\n" + first + "\n  \r\n" + second,
           // Where one file takes the tool's output and its errors, in the middle of a number as well.
           first + second.substr( 0, 30 ) + last + second.substr( 30 ),
           first + second.substr( 0, 47 ) + last + second.substr( 47 ) } ) {
      SCOPED_TRACE( text );
      auto const listing = read( text );
      EXPECT_THAT( learnedIn( listing, false ),
                   ElementsAre( "17 10.0.0.11:4000 > 203.0.113.9:53, source 198.51.100.1:4000",
                                "17 10.0.0.11:4001 > 203.0.113.9:53, source 198.51.100.1:4001" ) );
      EXPECT_THAT( listing.passedOver, IsEmpty() );
   }
   EXPECT_THAT( learnedIn( read( lastWords ) ), IsEmpty() );
   auto const cut = first.substr( 0, first.find( " mark" ) );  // its last port may have been longer
   EXPECT_EQ( faultsOf( cut ),
              "list.txt: line 1, column " + std::to_string( cut.size() + 1 ) +
                 ": the line ends here; allowed: use= or the end of the line, without which the entry may be cut off" );
}

TEST( ConntrackListing, TheSecondEntryOfARowIsNamedWithTheFirst ) {
   auto const listing = read( udpEntry( 4000, 4000 ) + udpEntry( 4001, 4001 ) + udpEntry( 4000, 4000, "zone=7 " ) +
                              udpEntry( 4002, 4001 ) + udpEntry( 4003, 4002 ) );
   EXPECT_THAT( learnedIn( listing ),
                ElementsAre( "1: 17 10.0.0.11:4000 > 203.0.113.9:53, source 198.51.100.1:4000",
                             "2: 17 10.0.0.11:4001 > 203.0.113.9:53, source 198.51.100.1:4001",
                             "5: 17 10.0.0.11:4003 > 203.0.113.9:53, source 198.51.100.1:4002" ) );
   EXPECT_EQ( listing.passedOverFor( NotLearned::rowTaken ), 2U );
   EXPECT_EQ( listing.summary(),
              "list.txt: connections learned: 3, entries passed over: 2\n"
              "   2 deriving the rows of another connection, from which rows tell apart neither zone nor ICMP type: "
              "line 3 (those of line 1), line 4 (those of line 2)\n" );
}

// --- Faults ----------------------------------------------------------------------------------------------------------

TEST( ConntrackListing, AMalformedEntryIsRefusedWithPlaceAndWhatIsAllowed ) {
   // The good entry with one piece of it replaced.
   struct Case {
      char const * piece;
      char const * replacement;
      char const * fault;
   };
   constexpr std::string_view good =
      "ipv4 2 icmp 1 27 src=10.0.0.2 dst=192.0.2.9 type=8 code=0 id=7 packets=1 [UNREPLIED] src=192.0.2.9 dst=192.0.2.1 "
      "type=0 code=0 id=7 mark=0 zone=7 use=1\n";
   ASSERT_EQ( faultsOf( good ), "none" );
   constexpr char const * sourceAllowed = "src= and an address of the entry's family";
   constexpr char const * destinationAllowed = "dst= and an address of the entry's family";
   constexpr char const * idAllowed = "id= and a number from 0 to 65535";
   constexpr char const * attributeAllowed =
      "a flag in brackets or an attribute, as in mark=0, behind the two directions";
   constexpr char const * flagAllowed = "a flag in capitals, as in [ASSURED], or [start=...]";
   constexpr char const * protocolAllowed = "the number of the protocol named before it";
   Case const cases[] = {
      { "ipv4 2", "ipv4 10", "column 6: \"10\" does not fit; allowed: the family's number: ipv4 2, ipv6 10" },
      { "ipv4 2", "{}",
        "column 1: \"{}\" does not fit; allowed: an entry as conntrack -L lists it, plain or with -o extended, which "
        "begins with a protocol's name and number" },
      { "icmp 1", "icmp x", protocolAllowed },
      { "src=10.0.0.2", "", sourceAllowed },
      { "10.0.0.2", "10.0.0.256", sourceAllowed },
      { "10.0.0.2", "fe80::1", sourceAllowed },
      { "dst=192.0.2.9", "dst=192.0.2.9/32", destinationAllowed },
      { "type=8", "type=256", "type= and a number from 0 to 255" },
      { "code=0", "code=-1", "code= and a number from 0 to 255" },
      { "id=7", "id=65536", idAllowed },
      { "packets=1", "packets=many", "a whole number behind the =" },
      { "[UNREPLIED]", "[unreplied]", flagAllowed },
      { "src=192.0.2.9", "src=2001:db8::9", sourceAllowed },
      { "mark=0", "mark=0x1", "a whole number behind the =" },
      { "zone=7", "zone=65536", "zone= and a number from 0 to 65535" },
      { "use=1", "use=1 src=10.0.0.9", attributeAllowed },
      { "src=192.0.2.9 dst=192.0.2.1 type=0 code=0 id=7 mark=0 zone=7 use=1", "",
        "column 86: the line ends here; allowed: src= and an address of the entry's family" },
   };
   for ( auto const & c : cases ) {
      SCOPED_TRACE( std::string( c.piece ) + " -> " + c.replacement );
      std::string bad( good );
      bad.replace( bad.find( c.piece ), std::string_view( c.piece ).size(), c.replacement );
      auto const faults = faultsOf( std::string( good ) + bad );
      EXPECT_THAT( faults, testing::StartsWith( "list.txt: line 2, column " ) );
      EXPECT_THAT( faults, testing::EndsWith( c.fault ) );
   }
}

TEST( ConntrackListing, EveryMalformedLineIsReportedAtOnceButNotWithoutEnd ) {
   auto const faults = faultsOf( udpEntry( 1, 1 ) + "tcp x\n" + udpEntry( 2, 2 ) + "udp 17 \x1b[2J\n" );
   EXPECT_EQ( faults,
              "list.txt: line 2, column 5: \"x\" does not fit; allowed: the number of the protocol named before it\n"
              "list.txt: line 4, column 8: \"?[2J\" does not fit; allowed: src= and an address of the entry's "
              "family" );
   std::string many;
   for ( int i = 0; i < 25; ++i ) {
      many += "tcp\n";
   }
   EXPECT_EQ( std::ranges::count( faultsOf( many ), '\n' ), 20 );
   EXPECT_THAT( faultsOf( many ), testing::EndsWith( "\nlist.txt: 5 more malformed lines" ) );
   EXPECT_THAT( faultsOf( std::string( 1000, 'a' ) + " 6\n" ),
                testing::Not( testing::HasSubstr( std::string( 61, 'a' ) ) ) );
}

}  // namespace
