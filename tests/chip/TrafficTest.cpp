// Packets on their way through the kernel: tags, local senders, traps, and what changes the state of a connection.
#include "Kernel.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/pkt_cls.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace ChipTest {

namespace {

class ChipTraffic : public testing::Test {
 protected:
   void SetUp() override {
      if ( auto const why = whyNoKernel(); !why.empty() ) {
         GTEST_SKIP() << why;
      }
   }
   void TearDown() override {
      programmer_.tables.hardware->chipIs( nullptr );
      chip_.reset();
      if ( whyNoKernel().empty() ) {
         EXPECT_TRUE( Ebpf::remove( { "test", bpffs() } ) );
      }
   }

   void start( std::vector< Support::AnyRule > const & rules, Ebpf::Settings const & settings ) {
      chip_ = std::make_shared< Ebpf::Chip >( settings );
      programmer_.tables.hardware->chipIs( chip_ );
      for ( auto const & rule : rules ) {
         Support::configure( *programmer_.config, rule );
      }
      programmer_->replay();
      EXPECT_TRUE( programmer_.settleToRest() );
   }

   U64 packetsOf( std::string_view what ) const {
      auto const counters = chip_->status().counters;
      return std::ranges::find( counters, what, &Ebpf::Status::Counter::what )->packets;
   }

   std::shared_ptr< Ebpf::Chip > chip_;
   Support::Programmer programmer_;
};

Support::AnyRule const service =
   Support::dynamicRule( "10.0.0.1:4000 > 203.0.113.9:443", "192.0.2.1:5000", { .intfQualifier = 5 } );

Agent::Packet flow( char const * source, char const * destination, U8 protocol = 6 ) {
   return { .protocol = protocol, .source = Support::pair( source ), .destination = Support::pair( destination ) };
}

Bytes between( Bytes frame, U8 receiver, U8 receiversEnd, U8 sender, U8 sendersEnd ) {
   framesAddressesAre( frame, { 2, 0, 0, 0, receiver, receiversEnd }, { 2, 0, 0, 0, sender, sendersEnd } );
   return frame;
}

// As it stands on the wire.
Bytes tagged( Bytes frame, U8 vlanId ) {
   frame.insert( frame.begin() + 12, { 0x81, 0, 0, vlanId } );
   return frame;
}

}  // namespace

TEST_F( ChipTraffic, ATagIsTakenOffWhereAFrameEntersAndPutOnWhereOneLeaves ) {
   auto tags = settings( ports( {}, {} ) );
   tags.ports[ 0 ].device = "p1.20";
   tags.hook = Ebpf::Hook::tc;
   start( { service }, tags );
   framesAt( "q1", 0 );
   framesAt( "q2", 0 );

   send( "q2", between( frameOf( flow( "10.0.0.1:4000", "203.0.113.9:443" ) ), 2, 1, 2, 2 ) );
   auto const out = between( frameOf( flow( "192.0.2.1:5000", "203.0.113.9:443" ), { .timeToLive = 63 } ), 1, 2, 1, 1 );
   EXPECT_THAT( framesAt( "q1", 1 ), testing::Contains( tagged( out, 20 ) ) );

   send( "q1", tagged( between( frameOf( flow( "203.0.113.9:443", "192.0.2.1:5000" ) ), 1, 1, 1, 2 ), 20 ) );
   auto const back = between( frameOf( flow( "203.0.113.9:443", "10.0.0.1:4000" ), { .timeToLive = 63 } ), 2, 2, 2, 1 );
   EXPECT_THAT( framesAt( "q2", 2 ), testing::Contains( back ) );
}

TEST_F( ChipTraffic, ALocalSendersChecksumIsStillTheDevicesToComplete ) {
   start( { Support::dynamicRule( "172.31.1.1:4000 > 203.0.113.9:53", "192.0.2.1:5000", { .intfQualifier = 5 } ),
            Support::dynamicRule( "172.31.1.1:4001 > 203.0.113.9:53", "192.0.2.1:5001", { .intfQualifier = 5 } ) },
          settings( ports( {}, {} ) ) );
   framesAt( "q1", 0 );
   auto const sender = socket( AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 );
   sockaddr_in own{ AF_INET, htons( 4000 ), { htonl( 0xAC1F0101 ) }, {} };
   sockaddr_in const peer{ AF_INET, htons( 53 ), { htonl( 0xCB007109 ) }, {} };
   EXPECT_EQ( bind( sender, reinterpret_cast< sockaddr const * >( &own ), sizeof own ), 0 );
   connect( sender, reinterpret_cast< sockaddr const * >( &peer ), sizeof peer );
   auto const frames = framesAt( "q1", 1 );
   close( sender );
   auto const found = std::ranges::find_if( frames, []( Bytes const & frame ) { return frame[ 23 ] == 6; } );
   ASSERT_NE( found, frames.end() );
   // The sum of addresses, protocol and length, not inverted; the device adds what follows.
   unsigned const length = static_cast< unsigned >( found->size() - 34 );
   unsigned sum = 0xC000 + 0x0201 + 0xCB00 + 0x7109 + 6 + length;
   sum = ( sum & 0xFFFF ) + ( sum >> 16 );
   EXPECT_EQ( unsigned{ ( *found )[ 50 ] } << 8 | ( *found )[ 51 ], sum );
   EXPECT_EQ( unsigned{ ( *found )[ 34 ] } << 8 | ( *found )[ 35 ], 5000U );
}

TEST_F( ChipTraffic, TrapsAreAskedInTheirOrderAboutPacketsWithoutARowAlone ) {
   start( { service }, settings( ports( {}, {} ) ) );
   Pfe::NatTrapAcl acl( Pfe::NatTrapKey{ .aclName = "a", .poolId = 1, .ruleId = 1 } );
   Netix::IpAddrWithFullMask const insiders{ Support::ip( "10.0.0.0" ), Support::ip( "255.0.0.0" ) };
   acl.ruleBySequenceIs( 1, { .sequence = 1, .source = insiders, .sourcePort = 80, .sourcePortMask = 0xFFFF } );
   acl.ruleBySequenceIs( 2, { .sequence = 2, .source = insiders, .trap = 1, .protocol = 6, .protocolMask = 0xFF } );
   auto const traps = Orla::make< Pfe::NatTrapConfig >();
   traps->trapAclIs( acl );
   EXPECT_EQ( chip_->trapsAre( *traps ), 0U );
   struct Case {
      Agent::Packet packet;
      U64 trapped;
   };
   Case const cases[] = { { flow( "10.0.0.2:81", "203.0.113.9:443" ), 1 },
                          { flow( "10.0.0.2:80", "203.0.113.9:443" ), 0 },
                          { flow( "10.0.0.2:81", "203.0.113.9:443", 17 ), 0 },
                          { flow( "11.0.0.2:81", "203.0.113.9:443" ), 0 },
                          { flow( "10.0.0.1:4000", "203.0.113.9:443" ), 0 } };
   for ( auto const & [ packet, trapped ] : cases ) {
      auto const before = packetsOf( "trapped" );
      run( "chipLeaving", "p1", frameOf( packet ) );
      EXPECT_EQ( packetsOf( "trapped" ) - before, trapped ) << packet.source;
   }
   traps->trapAclDelAll();
   chip_->trapsAre( *traps );
   auto const before = packetsOf( "trapped" );
   run( "chipLeaving", "p1", frameOf( cases[ 0 ].packet ) );
   EXPECT_EQ( packetsOf( "trapped" ), before );
}

TEST_F( ChipTraffic, DynamicRowsCountAndEndAndLeaveStatesToWhoTracksThem ) {
   start( { service }, settings( ports( {}, {} ) ) );
   auto const data = frameOf( flow( "10.0.0.1:4000", "203.0.113.9:443" ) );
   auto const isTranslated = []( Bytes const & frame ) { return run( "chipLeaving", "p1", frame ).frame != frame; };
   auto const hits = [ & ] {
      U64 packets = 0, bytes = 0;
      for ( U32 natId = 1; natId < 10; ++natId ) {
         packets += chip_->hitsOf( natId )->packets;
         bytes += chip_->hitsOf( natId )->bytes;
      }
      return std::pair( packets, bytes );
   };
   EXPECT_EQ( hits(), std::pair( U64{ 0 }, U64{ 0 } ) );
   EXPECT_TRUE( isTranslated( data ) );
   EXPECT_EQ( hits(), std::pair( U64{ 1 }, U64{ data.size() - 14 } ) );

   auto opening = data;
   opening[ 47 ] = 0x02;
   EXPECT_TRUE( isTranslated( opening ) );
   chip_->statesElsewhereIs( true );
   EXPECT_FALSE( isTranslated( opening ) );
   EXPECT_TRUE( isTranslated( data ) );
   chip_->dynamicRowsLastUntil( 1 );
   EXPECT_FALSE( isTranslated( data ) );
   chip_->dynamicRowsLastUntil( ~U64{ 0 } );
   EXPECT_TRUE( isTranslated( data ) );
}

}  // namespace ChipTest
