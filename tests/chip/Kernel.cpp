#include "Kernel.h"

#include "chip/bpf/layout.h"

#include <arpa/inet.h>
#include <bpf/bpf.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>

namespace ChipTest {

// --- Frames ----------------------------------------------------------------------------------------------------------

namespace {

void put16( Bytes & bytes, std::size_t at, unsigned value ) {
   bytes[ at ] = static_cast< U8 >( value >> 8 );
   bytes[ at + 1 ] = static_cast< U8 >( value );
}
void put32( Bytes & bytes, std::size_t at, U32 value ) {
   put16( bytes, at, value >> 16 );
   put16( bytes, at + 2, value & 0xFFFF );
}

unsigned sumOf( Bytes const & bytes, std::size_t from, std::size_t to, unsigned sum = 0 ) {
   for ( auto at = from; at < to; ++at ) {
      sum += ( at - from ) % 2 == 0 ? unsigned{ bytes[ at ] } << 8 : bytes[ at ];
   }
   while ( sum >> 16 ) {
      sum = ( sum & 0xFFFF ) + ( sum >> 16 );
   }
   return sum;
}

Bytes datagramOf( Agent::Packet const & packet, Wrapping const & wrapping );

Bytes layer4Of( Agent::Packet const & packet, Wrapping const & wrapping ) {
   if ( packet.part == Agent::Packet::Part::laterFragment ) {
      return Bytes( wrapping.payload, 0x5A );
   }
   Bytes bytes( 8, 0 );
   std::size_t checksumAt = 0;
   unsigned pseudo = 0;
   if ( wrapping.quoted ) {
      bytes[ 0 ] = 3;  // unreachable
      auto quoted = datagramOf( *wrapping.quoted, {} );
      quoted.resize( std::min( quoted.size(), 20 + wrapping.quotedBytes ) );
      bytes.insert( bytes.end(), quoted.begin(), quoted.end() );
      checksumAt = 2;
   } else if ( packet.protocol == 1 ) {
      bytes[ 0 ] = packet.source.port ? 8 : 0;
      put16( bytes, 4, packet.source.port ? packet.source.port : packet.destination.port );
      checksumAt = 2;
   } else if ( hasPorts( packet.protocol ) ) {
      bool const isTcp = packet.protocol == 6;
      bytes.resize( isTcp ? 20 : 8 );
      put16( bytes, 0, packet.source.port );
      put16( bytes, 2, packet.destination.port );
      if ( isTcp ) {
         bytes[ 12 ] = 0x50;
         bytes[ 13 ] = 0x10;
      } else {
         put16( bytes, 4, static_cast< unsigned >( 8 + wrapping.payload ) );
      }
      checksumAt = isTcp ? 16 : 6;
      auto const words = []( Netix::IpAddr ip ) { return ( ip.value() >> 16 ) + ( ip.value() & 0xFFFF ); };
      pseudo = words( packet.source.ip ) + words( packet.destination.ip ) + packet.protocol +
               static_cast< unsigned >( bytes.size() + wrapping.payload );
   }
   if ( !wrapping.quoted ) {
      bytes.resize( bytes.size() + wrapping.payload, 0x5A );
   }
   if ( checksumAt != 0 && !( wrapping.withoutChecksum && packet.protocol == 17 ) ) {
      auto const checksum = ~sumOf( bytes, 0, bytes.size(), pseudo ) & 0xFFFF;
      put16( bytes, checksumAt, checksum == 0 && packet.protocol == 17 ? 0xFFFF : checksum );
   }
   if ( wrapping.isDamaged ) {
      bytes.back() ^= 0xFF;
   }
   return bytes;
}

Bytes datagramOf( Agent::Packet const & packet, Wrapping const & wrapping ) {
   std::size_t const header = 20 + 4u * wrapping.ipOptions;
   Bytes bytes( header, 1 );  // options: no operation
   std::fill_n( bytes.begin(), 20, 0 );
   auto const content = layer4Of( packet, wrapping );
   bytes[ 0 ] = static_cast< U8 >( 0x40 | header / 4 );
   put16( bytes, 2, static_cast< unsigned >( header + content.size() ) );
   put16( bytes, 6,
          packet.part == Agent::Packet::Part::firstFragment   ? 0x2000
          : packet.part == Agent::Packet::Part::laterFragment ? 0x0010
                                                              : 0 );
   bytes[ 8 ] = wrapping.timeToLive;
   bytes[ 9 ] = wrapping.quoted ? 1 : packet.protocol;
   put32( bytes, 12, packet.source.ip.value() );
   put32( bytes, 16, packet.destination.ip.value() );
   put16( bytes, 10, ~sumOf( bytes, 0, header ) & 0xFFFF );
   bytes.insert( bytes.end(), content.begin(), content.end() );
   return bytes;
}

}  // namespace

bool hasPorts( U8 protocol ) { return protocol == 6 || protocol == 17; }

Bytes frameOf( Agent::Packet const & packet, Wrapping const & wrapping ) {
   Bytes frame{ 2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2, 8, 0 };
   auto const datagram = datagramOf( packet, wrapping );
   frame.insert( frame.end(), datagram.begin(), datagram.end() );
   return frame;
}

void framesAddressesAre( Bytes & frame, Bytes const & destination, Bytes const & source ) {
   std::ranges::copy( destination, frame.begin() );
   std::ranges::copy( source, frame.begin() + 6 );
}

// --- The kernel ------------------------------------------------------------------------------------------------------

namespace {

constexpr char mountPoint[] = "/tmp";  // hidden by the mount, in this process's view alone

constexpr char const * devices = R"(set -e
ip link set lo up
for n in 1 2 7 8; do
   ip link add p$n type veth peer name q$n
   ip link set p$n address 02:00:00:00:0$n:01 up
   ip link set q$n address 02:00:00:00:0$n:02 up
   ip address add 172.31.$n.1/24 dev p$n
   ip neigh add 172.31.$n.2 lladdr 02:00:00:00:0$n:02 dev p$n nud permanent
done
ip route add 10.0.0.0/8 via 172.31.2.2
ip route add 192.0.2.0/24 via 172.31.1.2
ip route add 203.0.113.0/24 via 172.31.1.2
echo 1 >/proc/sys/net/ipv4/ip_forward
for file in /proc/sys/net/ipv4/conf/*/rp_filter; do echo 0 >$file; done
for file in /proc/sys/net/ipv6/conf/*/disable_ipv6; do echo 1 >$file; done
)";

std::string madeKernel() {
   if ( unshare( CLONE_NEWNET | CLONE_NEWNS ) != 0 ) {
      return std::string( "namespaces of its own: " ) + std::strerror( errno );
   }
   if ( mount( "none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr ) != 0 ||
        mount( "bpf", mountPoint, "bpf", 0, nullptr ) != 0 ) {
      return std::string( "a mount of pins: " ) + std::strerror( errno );
   }
   return std::system( devices ) == 0 ? "" : "devices: ip (iproute2) could not make them";
}

}  // namespace

std::string whyNoKernel() {
   static std::string const why = madeKernel();
   return why.empty() ? "" : "this machine does not permit " + why;
}

std::string const & bpffs() {
   static std::string const path = mountPoint;  // asked for by what is made before main()
   return path;
}

std::vector< Ebpf::Port > ports( PortChoice ethernet1, PortChoice vlan10 ) {
   return { { Support::intf( "ethernet1" ), "p1", ethernet1.vrfId, ethernet1.qualifier },
            { Support::intf( "vlan10" ), "p2", vlan10.vrfId, vlan10.qualifier },
            { Support::intf( "ethernet7" ), "p7", 0, {} },
            { Support::intf( "ethernet8" ), "p8", 0, {} } };
}

Ebpf::Settings settings( std::vector< Ebpf::Port > ports ) {
   return { .place = { "test", bpffs() },
            .store = "store",
            .hook = Ebpf::Hook::xdp,
            .rows = 40000,
            .ports = std::move( ports ) };
}

RunResult run( std::string const & program, std::string const & device, Bytes const & frame, unsigned repeat ) {
   auto const path = bpffs() + "/pfe-nat/test/programs/" + program;
   auto const number = bpf_obj_get( path.c_str() );
   if ( number < 0 ) {
      throw std::runtime_error( path + ": " + std::strerror( errno ) );
   }
   RunResult result{ .frame = Bytes( 2048 ) };
   __sk_buff buffer{};
   xdp_md xdp{};
   bpf_test_run_opts options{};
   options.sz = sizeof options;
   options.data_in = frame.data();
   options.data_size_in = static_cast< U32 >( frame.size() );
   options.data_out = result.frame.data();
   options.data_size_out = static_cast< U32 >( result.frame.size() );
   options.repeat = static_cast< int >( repeat );
   auto const index = if_nametoindex( device.c_str() );
   if ( program == "chipForward" ) {
      xdp.ingress_ifindex = index;
      xdp.data_end = options.data_size_in;
      options.ctx_in = &xdp;
      options.ctx_size_in = sizeof xdp;
   } else {
      buffer.ifindex = index;
      options.ctx_in = &buffer;
      options.ctx_size_in = sizeof buffer;
   }
   auto const fault = bpf_prog_test_run_opts( number, &options ) == 0 ? 0 : errno;
   close( number );
   if ( fault != 0 ) {
      throw std::runtime_error( program + " can not be run: " + std::strerror( fault ) );
   }
   result.verdict = static_cast< int >( options.retval );
   result.frame.resize( options.data_size_out );
   result.nanoseconds = options.duration;
   return result;
}

namespace {

// At that device, opened once.
int socketAt( std::string const & device ) {
   static std::map< std::string, int > sockets;
   auto const [ at, isNew ] = sockets.emplace( device, -1 );
   if ( isNew ) {
      at->second = socket( AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, htons( ETH_P_ALL ) );
      sockaddr_ll address{};
      address.sll_family = AF_PACKET;
      address.sll_protocol = htons( ETH_P_ALL );
      address.sll_ifindex = static_cast< int >( if_nametoindex( device.c_str() ) );
      int const on = 1;
      if ( bind( at->second, reinterpret_cast< sockaddr * >( &address ), sizeof address ) != 0 ||
           setsockopt( at->second, SOL_PACKET, PACKET_AUXDATA, &on, sizeof on ) != 0 ||
           setsockopt( at->second, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on ) != 0 ) {
         throw std::runtime_error( device + ": " + std::strerror( errno ) );
      }
   }
   return at->second;
}

// The kernel keeps a tag beside the frame that it stood in.
void putTagBack( Bytes & frame, msghdr & message ) {
   for ( auto * part = CMSG_FIRSTHDR( &message ); part; part = CMSG_NXTHDR( &message, part ) ) {
      tpacket_auxdata beside{};
      std::memcpy( &beside, CMSG_DATA( part ), sizeof beside );
      if ( beside.tp_status & TP_STATUS_VLAN_VALID ) {
         frame.insert( frame.begin() + 12, 4, 0 );
         put16( frame, 12, 0x8100 );
         put16( frame, 14, beside.tp_vlan_tci );
      }
   }
}

}  // namespace

void send( std::string const & otherEnd, Bytes const & frame ) {
   if ( ::send( socketAt( otherEnd ), frame.data(), frame.size(), 0 ) < 0 ) {
      throw std::runtime_error( otherEnd + ": " + std::strerror( errno ) );
   }
}

std::vector< Bytes > framesAt( std::string const & otherEnd, std::size_t atLeast ) {
   std::vector< Bytes > frames;
   for ( ;; ) {
      if ( pollfd waiting{ socketAt( otherEnd ), POLLIN, 0 }; frames.size() < atLeast ) {
         poll( &waiting, 1, 5000 );
      }
      Bytes frame( 2048 );
      alignas( cmsghdr ) char beside[ 128 ];
      iovec where{ frame.data(), frame.size() };
      msghdr message{};
      message.msg_iov = &where;
      message.msg_iovlen = 1;
      message.msg_control = beside;
      message.msg_controllen = sizeof beside;
      auto const size = recvmsg( socketAt( otherEnd ), &message, 0 );
      if ( size < 0 ) {
         return frames;
      }
      frame.resize( static_cast< std::size_t >( size ) );
      putTagBack( frame, message );
      bool const isOurs = frame[ 12 ] == 8 || frame[ 12 ] == 0x81;  // not what the kernel says to itself
      if ( isOurs && frame[ 13 ] == 0 ) {
         frames.push_back( std::move( frame ) );
      }
   }
}

}  // namespace ChipTest
