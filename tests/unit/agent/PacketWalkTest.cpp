#include "agent/PacketWalk.h"
#include "agent/SimulatedHardware.h"
#include "agent/Text.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using namespace Agent;
using Ip::Nat::NatTarget;

Netix::IntfId intf( char const * name ) { return Netix::IntfId::fromName( name ).value(); }

Netix::IpAndPort pair( char const * ip, U16 port = 0 ) { return { Netix::IpAddr::fromText( ip ).value(), port }; }

constexpr U8 tcp = 6;

// Tables whose rows are written by hand, each with a rewrite of its own that puts the row's number into the port, so
// that what comes out tells which row it was.
class PacketWalk : public testing::Test {
 protected:
   using StaticKey = Pfe::IngStaticNatTable::Key;
   using TwiceKey = Pfe::IngTwiceNatTable::Key;

   ~PacketWalk() override {
      tables.forEach( []( auto & table ) { table.clear(); } );
   }

   Asic::EntryHandle::PtrConst rewrite( U16 number ) {
      Pfe::EgrNatUcRewriteEntry entry;
      entry.srcIp = Netix::IpAddr( number );
      return tables.of< Pfe::EgrSourceNatUcRewriteTable >()->entryRef(
         { .natId = Pfe::NatId( number ), .qualifier = 0 }, entry );
   }

   void add( U16 number, StaticKey const & key ) {
      Pfe::IngStaticNatEntry entry;
      entry.egrHandleIs( rewrite( number ), true );
      tables.of< Pfe::IngStaticNatTable >()->entryCommit( key, std::move( entry ) );
   }

   void add( U16 number, TwiceKey const & key ) {
      Pfe::IngTwiceNatEntry entry;
      entry.egrHandleIs( rewrite( number ), true );
      tables.of< Pfe::IngTwiceNatTable >()->entryCommit( key, std::move( entry ) );
   }

   // A row that translates the source of what leaves by ethernet1.
   static StaticKey leaving( Netix::IpAndPort old, U8 protocol = tcp, bool fragment = false ) {
      return { .natIntf = "ethernet1",
               .vrfId = 0,
               .ipAndPortOld = old,
               .ipAndPortNew = pair( "192.0.2.1" ),
               .target = NatTarget::source,
               .protocol = protocol,
               .fragment = fragment,
               .mcast = false };
   }

   static Packet packet( Packet::Part part = Packet::Part::whole ) {
      bool const hasPorts = part != Packet::Part::laterFragment;
      return { .in = intf( "vlan20" ),
               .out = intf( "ethernet1" ),
               .vrfId = 0,
               .protocol = tcp,
               .source = pair( "10.0.0.1", hasPorts ? 80 : 0 ),
               .destination = pair( "203.0.113.9", hasPorts ? 4000 : 0 ),
               .part = part };
   }

   // The numbers of the rows that the packet ends up with: of the copies, or of the equal matches behind "?".
   std::string rowsMet( Packet const & walked ) {
      hardware->settle();
      auto const passage = walk( tables, walked );
      std::string numbers = passage.matches.size() > 1 ? "?" + std::to_string( passage.matches.size() ) : "";
      for ( auto const & copy : passage.copies ) {
         numbers += ( numbers.empty() ? "" : " " ) + std::to_string( copy.packet.source.ip.value() );
      }
      return numbers;
   }

   Asic::Hardware::Ptr hardware = Orla::make< Asic::Hardware >();
   NatTables tables{ hardware };
};

struct RowCase {
   char const * name;
   std::vector< Netix::IpAndPort > rows;  // of target source; numbered from 1
   std::vector< U8 > protocols;           // of the same rows
   std::vector< bool > fragments;         // likewise
   Packet::Part part;
   char const * met;
};

TEST_F( PacketWalk, TakesTheRowThatMatchesBestAndNamesThoseThatMatchEquallyWell ) {
   using enum Packet::Part;
   auto const exact = pair( "10.0.0.1", 80 );
   auto const address = pair( "10.0.0.1" );
   RowCase const cases[] = {
      { "no row", {}, {}, {}, whole, "" },
      { "exact port before port 0", { address, exact }, { tcp, tcp }, { false, false }, whole, "2" },
      { "port 0 matches any port", { address }, { tcp }, { false }, whole, "1" },
      { "another port", { pair( "10.0.0.1", 81 ) }, { tcp }, { false }, whole, "" },
      { "another address", { pair( "10.0.0.2", 80 ) }, { tcp }, { false }, whole, "" },
      { "protocol 0 matches any", { exact }, { 0 }, { false }, whole, "1" },
      { "another protocol", { exact }, { 17 }, { false }, whole, "" },
      { "any protocol is as good as the exact one", { exact, exact }, { tcp, 0 }, { false, false }, whole, "?2" },
      { "a fragment row is for later fragments", { address }, { tcp }, { true }, whole, "" },
      { "not for the first", { address, exact }, { tcp, tcp }, { true, false }, firstFragment, "2" },
      { "fragment row before port 0", { address, address }, { tcp, tcp }, { false, true }, laterFragment, "2" },
      { "later fragment without fragment row", { address }, { tcp }, { false }, laterFragment, "1" },
      { "later fragments show no ports", { exact }, { tcp }, { false }, laterFragment, "" },
   };
   for ( auto const & c : cases ) {
      SCOPED_TRACE( c.name );
      tables.forEach( []( auto & table ) { table.clear(); } );
      for ( std::size_t i = 0; i < c.rows.size(); ++i ) {
         add( static_cast< U16 >( i + 1 ), leaving( c.rows[ i ], c.protocols[ i ], c.fragments[ i ] ) );
      }
      EXPECT_EQ( rowsMet( packet( c.part ) ), c.met );
   }
}

TEST_F( PacketWalk, AppliesRowsByTheInterfaceThatTheirSideBelongsTo ) {
   auto entering = leaving( pair( "203.0.113.9", 4000 ) );
   entering.target = NatTarget::destination;
   entering.natIntf = "vlan20";
   add( 1, entering );
   EXPECT_EQ( rowsMet( packet() ), "1" );
   auto turned = packet();
   std::swap( turned.in, turned.out );
   EXPECT_EQ( rowsMet( turned ), "" ) << "the packet leaves by the interface that the row watches for entering ones";
   auto otherVrf = packet();
   otherVrf.vrfId = 1;
   EXPECT_EQ( rowsMet( otherVrf ), "" );
   auto unknown = packet();
   unknown.in = {};
   EXPECT_EQ( rowsMet( unknown ), "" );
}

TEST_F( PacketWalk, MeetsTwiceRowsBeforeStaticOnes ) {
   TwiceKey forward{ .natIntf = intf( "ethernet1" ),
                     .vrfId = 0,
                     .srcIpAndPortOld = pair( "10.0.0.1" ),
                     .dstIpAndPortOld = pair( "203.0.113.9" ),
                     .srcIpAndPortNew = {},
                     .dstIpAndPortNew = {},
                     .forward = true,
                     .fragment = false,
                     .mcast = false };
   add( 1, leaving( pair( "10.0.0.1", 80 ) ) );
   add( 2, forward );
   EXPECT_EQ( rowsMet( packet() ), "2" ) << "although the static row has the exact port";
   auto otherDestination = packet();
   otherDestination.destination = pair( "203.0.113.8", 4000 );
   EXPECT_EQ( rowsMet( otherDestination ), "1" );
   auto exact = forward;
   exact.dstIpAndPortOld.port = 4000;
   add( 3, exact );
   EXPECT_EQ( rowsMet( packet() ), "3" );
}

TEST_F( PacketWalk, RewritesOnlyFieldsThatAreSetAndMakesOneCopyPerRewrite ) {
   Pfe::IngStaticNatEntry entry;
   Pfe::EgrNatMcRewriteEntry copy;
   copy.dstIp = pair( "239.9.9.9" ).ip;
   copy.egressIntf = intf( "vlan30" ).value();
   entry.egrHandleIs(
      tables.of< Pfe::EgrNatMcRewriteTable >()->entryRef( { .natId = Pfe::NatId( 7 ), .replication = 1 }, copy ),
      true );
   copy.srcIp = pair( "10.9.9.9" ).ip;
   copy.egressIntf = intf( "vlan40" ).value();
   entry.egrHandleIs(
      tables.of< Pfe::EgrNatMcRewriteTable >()->entryRef( { .natId = Pfe::NatId( 7 ), .replication = 2 }, copy ),
      true );
   auto key = leaving( pair( "203.0.113.9" ) );
   key.target = NatTarget::destination;
   key.natIntf = "vlan20";
   tables.of< Pfe::IngStaticNatTable >()->entryCommit( key, std::move( entry ) );
   hardware->settle();

   auto const passage = walk( tables, packet() );
   ASSERT_EQ( passage.copies.size(), 2U );
   auto expected = packet();
   expected.destination.ip = pair( "239.9.9.9" ).ip;
   expected.out = intf( "vlan30" );
   EXPECT_EQ( passage.copies[ 0 ].packet, expected );
   expected.source.ip = pair( "10.9.9.9" ).ip;
   expected.out = intf( "vlan40" );
   EXPECT_EQ( passage.copies[ 1 ].packet, expected );
}

// The tables show what was asked for, the packet meets what the chip has.
TEST_F( PacketWalk, MeetsWhatTheHardwareHoldsAndNamesWhatItDidNotTake ) {
   add( 1, leaving( pair( "10.0.0.1" ) ) );
   hardware->settle();
   hardware->policyIs( std::make_shared< SimulatedHardware >(
      SimulatedHardware::Settings{ .failEvery = 1, .capacity = {}, .delay = 0 } ) );
   add( 2, leaving( pair( "10.0.0.1", 80 ) ) );
   add( 3, leaving( pair( "10.0.0.1" ) ) );
   EXPECT_EQ( rowsMet( packet() ), "1" ) << "neither the new row nor the new version of the old one is in the hardware";
   auto const passage = walk( tables, packet() );
   ASSERT_EQ( passage.missing.size(), 1U );
   EXPECT_EQ( fieldsOf( passage.missing[ 0 ].key.staticKey() ), "ethernet1 source 10.0.0.1:80 -> 192.0.2.1 tcp" );
}

}  // namespace
