// A kernel to try the chip in: namespaces of the test's own, which go with the process however it ends.
#pragma once

#include "agent/packets/PacketWalk.h"
#include "chip/EbpfChip.h"

#include <tests/support/Programmer.h>

#include <optional>
#include <string>
#include <vector>

namespace ChipTest {

// --- Frames ----------------------------------------------------------------------------------------------------------

using Bytes = std::vector< U8 >;

// What a frame has beside the fields that rows look at.
struct Wrapping {
   U8 timeToLive = 64;
   U8 ipOptions = 0;              // words of 32 bits
   bool withoutChecksum = false;  // of UDP
   bool isDamaged = false;        // the checksum of layer 4 is wrong, and has to stay so
   std::size_t payload = 26;
   std::optional< Agent::Packet > quoted = {};  // by an ICMP error, which the packet is then
   std::size_t quotedBytes = 8;                 // of its layer 4
   friend bool operator==( Wrapping const &, Wrapping const & ) = default;
};

// With right checksums, unless it is damaged. An ICMP packet is an echo: a request when it has a source port, which is
// the id, else a reply.
Bytes frameOf( Agent::Packet const & packet, Wrapping const & wrapping = {} );
void framesAddressesAre( Bytes & frame, Bytes const & destination, Bytes const & source );

bool hasPorts( U8 protocol );

// --- The kernel ------------------------------------------------------------------------------------------------------

// Empty when this process may make namespaces and mount pins, and has done so; else why not. Devices: p1, p2, p7 and p8
// for ethernet1, vlan10, ethernet7 and ethernet8, each with its other end q1, q2, q7, q8; 10.0.0.0/8 is routed by p2,
// 192.0.2.0/24 and 203.0.113.0/24 by p1.
std::string whyNoKernel();
std::string const & bpffs();

// The ports of these devices; VRF and qualifier of the first two.
struct PortChoice {
   U32 vrfId = 0;
   U16 qualifier = 5;
};
std::vector< Ebpf::Port > ports( PortChoice ethernet1, PortChoice vlan10 );
Ebpf::Settings settings( std::vector< Ebpf::Port > ports );

struct RunResult {
   int verdict = 0;
   Bytes frame;
   U32 nanoseconds = 0;  // the mean of the repetitions
};
// A frame through a pinned program, as if it passed the device.
RunResult run( std::string const & program, std::string const & device, Bytes const & frame, unsigned repeat = 1 );

// Puts a frame on the wire at the other end of a device. A tag may stand in it.
void send( std::string const & otherEnd, Bytes const & frame );

// Frames that came out at the other end of a device since the last call. Waits for so many, for 5 seconds at most: a
// busy kernel hands them over later.
std::vector< Bytes > framesAt( std::string const & otherEnd, std::size_t atLeast );

}  // namespace ChipTest
