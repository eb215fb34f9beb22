// Packets through the loaded programs, against the walk of the same packets through the software tables.
#include "Kernel.h"

#include "tests/model/RandomRules.h"

#include <gtest/gtest.h>
#include <linux/pkt_cls.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>

namespace ChipTest {

namespace {

using Agent::Packet;
using Model::Choices;

constexpr int xdpRedirect = 4, xdpPass = 2;

Netix::IntfId const inside = Support::intf( "vlan10" ), outside = Support::intf( "ethernet1" );

// --- The oracle ------------------------------------------------------------------------------------------------------

enum class Expected { untouched, translated, copied, unknown };

struct Answer {
   Expected what = Expected::untouched;
   std::vector< Packet > leaving;
   U32 nextHopId = 0;
};

bool filterMatches( Ip::Nat::NatFilter const & filter, Packet const & packet ) {
   auto const port = []( U16 wanted, U16 found ) { return wanted == 0 || wanted == found; };
   auto const address = []( Netix::IpAddrWithFullMask const & wanted, Netix::IpAddr found ) {
      return ( ( wanted.address.value() ^ found.value() ) & wanted.mask.value() ) == 0;
   };
   return address( filter.source, packet.source.ip ) && address( filter.destination, packet.destination.ip ) &&
          port( filter.sourcePort, packet.source.port ) && port( filter.destinationPort, packet.destination.port );
}

class Oracle {
 public:
   Oracle( Support::Tables const & tables, std::vector< Ebpf::Port > const & ports, bool vrfLess )
      : tables_( tables ), ports_( ports ) {
      interfaces_.vrfLess = vrfLess;
      for ( auto const & port : ports ) {
         if ( port.qualifier ) {
            interfaces_.qualifiers.emplace( port.interface, *port.qualifier );
         }
      }
   }

   // Of a packet that enters by the interface, or leaves by it, and by no other one of the chip's.
   Answer at( Netix::IntfId intf, bool leaving, Packet packet ) const {
      packet.in = leaving ? Netix::IntfId() : intf;
      packet.out = leaving ? intf : Netix::IntfId();
      packet.vrfId = std::ranges::find( ports_, intf, &Ebpf::Port::interface )->vrfId;
      auto const passage = Agent::walk( tables_.all, packet, interfaces_ );
      if ( passage.matches.empty() ) {
         return {};
      }
      if ( passage.matches.size() > 1 || ( !passage.isCertain() && !conditionsHold( passage, packet ) ) ) {
         return { Expected::unknown, {} };  // of a row whose filters do not match the next one applies, or none
      }
      Answer answer{ Expected::translated, {}, nextHopOf( passage.matches[ 0 ].key ) };
      for ( auto const & copy : passage.copies ) {
         answer.leaving.push_back( asItCanBe( copy.packet, packet ) );
         if ( copy.table == Pfe::EgrNatMcRewriteTableTraits::tableName ) {
            answer.what = Expected::copied;
         }
      }
      return answer;
   }

 private:
   bool conditionsHold( Agent::Passage const & passage, Packet const & packet ) const {
      auto const & table = *tables_.all.of< Pfe::IngStaticNatTable >();
      auto const & filters =
         table.hardwareEntry( passage.matches[ 0 ].key.get< Pfe::IngStaticNatTable::Key >() )->filters;
      return filters.empty() ||
             std::ranges::any_of( filters, [ & ]( auto const & filter ) { return filterMatches( filter, packet ); } );
   }

   U32 nextHopOf( Pfe::IngNatTableKey const & key ) const {
      U32 nextHopId = 0;
      tables_.all.forEachIngress( [ & ]( auto const & table ) {
         using Key = typename std::remove_cvref_t< decltype( table ) >::Key;
         if ( key.contains< Key >() ) {
            nextHopId = table.hardwareEntry( key.get< Key >() )->nextHopId;
         }
      } );
      return nextHopId;
   }

   // A packet without a place for a port does not get one.
   static Packet asItCanBe( Packet translated, Packet const & packet ) {
      bool const isQuery = packet.protocol == 1;
      if ( !hasPorts( packet.protocol ) && !( isQuery && packet.source.port ) ) {
         translated.source.port = packet.source.port;
      }
      if ( !hasPorts( packet.protocol ) && !( isQuery && packet.destination.port ) ) {
         translated.destination.port = packet.destination.port;
      }
      return translated;
   }

   Support::Tables const & tables_;
   std::vector< Ebpf::Port > const & ports_;
   Agent::Interfaces interfaces_;
};

// --- Packets ---------------------------------------------------------------------------------------------------------

Netix::IpAddr anyAddress( Choices & choices ) {
   auto const network = Support::ip(
      choices.of( { "10.0.0.0", "10.0.0.0", "192.0.2.0", "192.0.2.0", "203.0.113.0", "10.9.0.0", "239.0.0.0" } ) );
   return Netix::IpAddr( network.value() + 1 + choices.below( choices.oneIn( 20 ) ? 9 : 3 ) );
}

Packet anyPacket( Choices & choices ) {
   Packet packet{ .protocol = choices.of< U8 >( { 6, 6, 6, 17, 17, 1, 47 } ),
                  .source = { anyAddress( choices ), 0 },
                  .destination = { anyAddress( choices ), 0 },
                  .part = choices.oneIn( 6 )   ? Packet::Part::laterFragment
                          : choices.oneIn( 8 ) ? Packet::Part::firstFragment
                                               : Packet::Part::whole };
   auto const port = [ & ] { return choices.of< U16 >( { 80, 80, 81, 1, 2, 8080 } ); };
   if ( packet.part != Packet::Part::laterFragment ) {
      if ( packet.protocol == 1 ) {
         ( choices.oneIn( 2 ) ? packet.source : packet.destination ).port = port();
      } else if ( hasPorts( packet.protocol ) ) {
         packet.source.port = port();
         packet.destination.port = port();
      }
   }
   return packet;
}

// One that meets the row, or nearly.
template< class Key > Packet packetFor( Key const & key, Choices & choices ) {
   auto packet = anyPacket( choices );
   if constexpr ( requires { key.ipAndPortOld; } ) {
      ( key.target == Ip::Nat::NatTarget::source ? packet.source : packet.destination ) = key.ipAndPortOld;
   } else if constexpr ( requires { key.forward; } ) {
      packet.source = key.srcIpAndPortOld;
      packet.destination = key.dstIpAndPortOld;
   } else if constexpr ( requires { key.firstIp; } ) {
      packet.source = { key.firstIp, key.firstPort };
      packet.destination = { key.secondIp, key.secondPort };
   } else {
      ( choices.oneIn( 2 ) ? packet.source : packet.destination ).ip = key.ip;
   }
   if constexpr ( requires { key.protocol; } ) {
      packet.protocol = key.protocol == 0 ? packet.protocol : key.protocol;
   }
   if ( choices.oneIn( 4 ) ) {
      ( choices.oneIn( 2 ) ? packet.source : packet.destination ).ip = anyAddress( choices );
   }
   bool const isQuery = packet.protocol == 1 && packet.part != Packet::Part::laterFragment;
   bool const hasPairs = hasPorts( packet.protocol ) && packet.part != Packet::Part::laterFragment;
   if ( isQuery && ( packet.source.port == 0 || choices.oneIn( 2 ) ) ) {
      packet.source.port = 0;
      packet.destination.port = packet.destination.port == 0 ? 80 : packet.destination.port;
   } else if ( isQuery ) {
      packet.destination.port = 0;
   }
   for ( auto * const pair : { &packet.source, &packet.destination } ) {
      if ( !hasPairs && !isQuery ) {
         pair->port = 0;
      } else if ( hasPairs && ( pair->port == 0 || choices.oneIn( 8 ) ) ) {
         pair->port = choices.of< U16 >( { 80, 81, 1, 2, 8080 } );
      }
   }
   return packet;
}

Wrapping anyWrapping( Choices & choices ) {
   return { .timeToLive = choices.of< U8 >( { 64, 64, 64, 2, 1 } ),
            .ipOptions = static_cast< U8 >( choices.oneIn( 5 ) ? 1 + choices.below( 10 ) : 0 ),
            .withoutChecksum = choices.oneIn( 4 ),
            .isDamaged = choices.oneIn( 8 ),
            .payload = 1 + choices.below( 60 ) };
}

// --- One world of rules ----------------------------------------------------------------------------------------------

struct Tally {
   std::map< std::string, U64 > packets;
   U64 total = 0;
};

class World {
 public:
   World( std::shared_ptr< Ebpf::Chip > const & chip, Choices & choices, Tally & tally )
      : choices_( choices ),
        tally_( tally ),
        ports_( ports( anyPort(), anyPort() ) ),
        vrfLess_( choices.oneIn( 3 ) ),
        oracle_( programmer_.tables, ports_, vrfLess_ ) {
      programmer_.config->fragmentationEnabledIs( !choices.oneIn( 3 ) );
      programmer_.config->vrfLessIs( vrfLess_ );
      for ( auto rules = 4 + choices.below( 30 ); rules > 0; --rules ) {
         Support::configure( *programmer_.config, Model::anyRule( choices ) );
      }
      chip->portsAre( ports_ );
      chip->vrfLessIs( vrfLess_ );
      programmer_.tables.hardware->chipIs( chip );
      programmer_->replay();
      EXPECT_TRUE( programmer_.settleToRest() );
      EXPECT_EQ( programmer_.tables.failedRowCount(), 0U );
      chip->sweep();
      programmer_.tables.all.forEachIngress( [ & ]( auto const & table ) {
         table.forEach( [ & ]( auto const & key, auto const &, auto const & ) {
            rows_.push_back( [ this, key ] { return packetFor( key, choices_ ); } );
         } );
      } );
   }

   void removeAll() {
      programmer_->deleteAllConnections();
      EXPECT_TRUE( programmer_.settleToRest() );
   }

   void tryPacket() {
      auto const packet = packetHere();
      auto const wrapping = anyWrapping( choices_ );
      switch ( choices_.below( 3 ) ) {
      case 0: return tryAtHook( false, packet, wrapping );
      case 1: return tryAtHook( true, packet, wrapping );
      case 2: return tryFastPath( packet, wrapping );
      }
   }

   // An error about a packet that the world saw, at the side where it would be translated back.
   void tryError() {
      bool const leaving = choices_.oneIn( 2 );
      auto const quoted = replyTo( packetHere() );
      auto const intf = choices_.oneIn( 2 ) ? inside : outside;
      auto answer = oracle_.at( intf, leaving, replyTo( quoted ) );
      Packet const error{ .source = { anyAddress( choices_ ), 0 }, .destination = quoted.source };
      auto const bytes = choices_.of< std::size_t >( { 8, 20, 40 } );
      Wrapping const wrapping{ .quoted = quoted, .quotedBytes = bytes };
      auto const frame = frameOf( error, wrapping );
      auto const result = run( leaving ? "chipLeaving" : "chipEntering", deviceOf( intf ), frame );
      if ( answer.what == Expected::unknown ) {
         return count( "error unknown" );
      }
      auto expected = frame;
      if ( answer.what == Expected::translated ) {
         auto const back = answer.leaving[ 0 ];
         auto const before = replyTo( quoted );
         Packet outer = error;
         outer.source.ip = back.source.ip == before.source.ip ? error.source.ip : back.source.ip;
         outer.destination.ip =
            back.destination.ip == before.destination.ip ? error.destination.ip : back.destination.ip;
         Packet inner = replyTo( back );
         expected = frameOf( outer, { .quoted = inner, .quotedBytes = bytes } );
      }
      count( answer.what == Expected::translated ? "error translated" : "error untouched" );
      expectFrame( expected, result.frame, quoted );
      EXPECT_EQ( result.verdict, TC_ACT_UNSPEC );
   }

 private:
   PortChoice anyPort() { return { choices_.of< U32 >( { 0, 0, 0, 7 } ), choices_.of< U16 >( { 5, 5, 5, 6 } ) }; }
   static std::string deviceOf( Netix::IntfId intf ) { return intf == outside ? "p1" : "p2"; }

   Packet packetHere() { return rows_.empty() || choices_.oneIn( 4 ) ? anyPacket( choices_ ) : anyRow()(); }
   std::function< Packet() > const & anyRow() { return rows_[ choices_.below( static_cast< U32 >( rows_.size() ) ) ]; }

   void tryAtHook( bool leaving, Packet const & packet, Wrapping const & wrapping ) {
      auto const intf = choices_.oneIn( 3 ) ? inside : outside;
      auto const answer = oracle_.at( intf, leaving, packet );
      auto const frame = frameOf( packet, wrapping );
      framesAt( "q7", 0 );
      framesAt( "q8", 0 );
      auto const result = run( leaving ? "chipLeaving" : "chipEntering", deviceOf( intf ), frame );
      std::string const hook = leaving ? "leaving " : "entering ";
      switch ( answer.what ) {
      case Expected::unknown: return count( hook + "unknown" );
      case Expected::untouched:
         count( hook + "untouched" );
         EXPECT_EQ( result.verdict, TC_ACT_UNSPEC );
         return expectFrame( frame, result.frame, packet );
      case Expected::translated:
         count( hook + "translated" );
         EXPECT_EQ( result.verdict, TC_ACT_UNSPEC );
         return expectFrame( frameOf( answer.leaving[ 0 ], wrapping ), result.frame, packet );
      case Expected::copied:
         count( hook + "copied" );
         EXPECT_EQ( result.verdict, TC_ACT_SHOT );
         return expectCopies( answer, leaving, wrapping );
      }
   }

   void expectCopies( Answer const & answer, bool leaving, Wrapping wrapping ) {
      std::map< std::string, std::vector< Bytes > > expected{ { "q7", {} }, { "q8", {} } };
      if ( wrapping.timeToLive > 1 ) {
         wrapping.timeToLive = static_cast< U8 >( wrapping.timeToLive - ( leaving ? 0 : 1 ) );
         for ( auto const & copy : answer.leaving ) {
            auto frame = frameOf( copy, wrapping );
            std::string const end = copy.out == Support::intf( "ethernet7" ) ? "q7" : "q8";
            auto const group = copy.destination.ip.value();
            U8 const number = end == "q7" ? 7 : 8;
            framesAddressesAre( frame,
                                { 1, 0, 0x5E, static_cast< U8 >( group >> 16 & 0x7F ), static_cast< U8 >( group >> 8 ),
                                  static_cast< U8 >( group ) },
                                { 2, 0, 0, 0, number, 1 } );
            expected[ end ].push_back( frame );
         }
      }
      for ( auto const & [ end, frames ] : expected ) {
         EXPECT_EQ( framesAt( end, frames.size() ), frames ) << end;
      }
   }

   // Translated where it enters or, if not there, where the route leads it out; whatever else goes to the kernel as it
   // is.
   void tryFastPath( Packet const & packet, Wrapping const & wrapping ) {
      auto const in = choices_.oneIn( 2 ) ? inside : outside;
      auto const frame = frameOf( packet, wrapping );
      auto const result = run( "chipForward", deviceOf( in ), frame );
      auto answer = oracle_.at( in, false, packet );
      auto const routed = answer.what == Expected::translated ? answer.leaving[ 0 ] : packet;
      bool const isInside = routed.destination.ip.value() >> 24 == 10;
      if ( answer.what == Expected::untouched ) {
         answer = oracle_.at( isInside ? inside : outside, true, packet );
      }
      if ( result.verdict == xdpPass ) {
         bool const mustForward = answer.what == Expected::translated && wrapping.ipOptions == 0 &&
                                  wrapping.timeToLive > 1 && !routed.destination.ip.isMulticast();
         // Next hops are the routing policy's, which the fast path does not read.
         EXPECT_TRUE( !mustForward || answer.nextHopId != 0 );
         count( "fast path to kernel" );
         return expectFrame( frame, result.frame, packet );
      }
      ASSERT_EQ( result.verdict, xdpRedirect );
      if ( answer.what == Expected::unknown ) {
         return count( "fast path unknown" );
      }
      ASSERT_EQ( answer.what, Expected::translated );
      auto sent = wrapping;
      sent.timeToLive = static_cast< U8 >( wrapping.timeToLive - 1 );
      auto expected = frameOf( answer.leaving[ 0 ], sent );
      U8 const number = isInside ? 2 : 1;
      framesAddressesAre( expected, { 2, 0, 0, 0, number, 2 }, { 2, 0, 0, 0, number, 1 } );
      count( "fast path translated" );
      expectFrame( expected, result.frame, packet );
   }

   void expectFrame( Bytes const & expected, Bytes const & found, Packet const & packet ) const {
      EXPECT_EQ( expected, found ) << "of " << unsigned{ packet.protocol } << ' ' << packet.source << " > "
                                   << packet.destination << " part " << unsigned( packet.part );
   }

   void count( std::string const & what ) {
      ++tally_.packets[ what ];
      ++tally_.total;
   }

   Choices & choices_;
   Tally & tally_;
   std::vector< Ebpf::Port > ports_;
   bool vrfLess_;
   Support::Programmer programmer_;
   Oracle oracle_;
   std::vector< std::function< Packet() > > rows_;  // each a packet for its row
};

U64 wantedPackets() {
   auto const * const given = std::getenv( "CHIP_PACKETS" );
   return given ? std::strtoull( given, nullptr, 10 ) : 100'000;
}

U32 seed() {
   auto const * const given = std::getenv( "CHIP_SEED" );
   return given ? static_cast< U32 >( std::strtoul( given, nullptr, 10 ) ) : 1;
}

}  // namespace

TEST( ChipEquality, EveryPacketLeavesTheProgramsAsTheWalkSays ) {
   if ( auto const why = whyNoKernel(); !why.empty() ) {
      GTEST_SKIP() << why;
   }
   Choices choices( seed() );
   Tally tally;
   auto chip = std::make_shared< Ebpf::Chip >( settings( ports( {}, {} ) ) );
   while ( tally.total < wantedPackets() && !HasFailure() ) {
      auto world = std::make_unique< World >( chip, choices, tally );
      for ( int i = 0; i < 400 && !HasFailure(); ++i ) {
         choices.oneIn( 8 ) ? world->tryError() : world->tryPacket();
      }
      // Every other world finds the chip with the rows of the one before.
      if ( choices.oneIn( 2 ) ) {
         world->removeAll();
         auto const status = chip->status();
         for ( auto const & table : status.tables ) {
            EXPECT_EQ( table.rows, 0U ) << table.name;
         }
      }
      world.reset();
      chip.reset();
      chip = std::make_shared< Ebpf::Chip >( settings( ports( {}, {} ) ) );
      EXPECT_EQ( chip->found(), Ebpf::Found::itself );
   }
   chip.reset();
   EXPECT_TRUE( Ebpf::remove( { "test", bpffs() } ) );
   for ( auto const & [ what, packets ] : tally.packets ) {
      RecordProperty( what, static_cast< int >( packets ) );
      std::cout << what << ": " << packets << '\n';
      EXPECT_GT( packets, 0U );
   }
}

}  // namespace ChipTest
