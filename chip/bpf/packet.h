// What rows can tell of a packet.
#pragma once

#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/in.h>
#include <linux/ip.h>
#include <linux/tcp.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

enum Part { wholePacket, firstFragment, laterFragment };

enum PortsKind {
   noPorts,      // and no checksum over the addresses
   portPair,     // TCP, UDP and their like
   queryOfIcmp,  // the id stands for the port of the host that asks
   errorOfIcmp,  // speaks of another packet
};

struct Packet {
   __u32 source;
   __u32 destination;
   __u16 sourcePort;
   __u16 destinationPort;
   __u8 protocol;
   __u8 part;
   __u8 kind;        // PortsKind
   __u8 idIsSource;  // of a query
   __u16 ipOffset;
   __u16 l4Offset;
   __u16 length;         // from the IP header on
   __u8 checksumOffset;  // of layer 4, in its header; 0: none over the addresses
   __u8 timeToLive;
   __u8 changesState;  // of a connection: it opens or closes one, or speaks of an error
};

enum Parsed { parsed, notForUs, tooShort };

// <linux/icmp.h> asks for more of a C library than there is here.
struct IcmpHeader {
   __u8 type;
   __u8 code;
   __u16 checksum;
   __u16 id;
   __u16 sequence;
};

enum { udpLiteProtocol = 136, dccpProtocol = 33, fragmentOffsetMask = 0x1FFF, moreFragments = 0x2000 };

// Where the checksum of the protocol stands; 0: it has none over the addresses.
static __always_inline __u8 checksumOffsetOf( __u8 protocol ) {
   switch ( protocol ) {
   case IPPROTO_TCP: return 16;
   case IPPROTO_UDP:
   case udpLiteProtocol:
   case dccpProtocol: return 6;
   default: return 0;
   }
}

static __always_inline int isIcmpError( __u8 type ) {
   enum { unreachable = 3, sourceQuench = 4, redirect = 5, timeExceeded = 11, parameterProblem = 12 };
   return type == unreachable || type == sourceQuench || type == redirect || type == timeExceeded ||
          type == parameterProblem;
}

// 8, 13, 15, 17 ask; 0, 14, 16, 18 answer.
static __always_inline int isIcmpRequest( __u8 type ) { return ( 0x2A100U >> ( type & 31 ) & 1 ) && type < 32; }
static __always_inline int isIcmpReply( __u8 type ) { return ( 0x54001U >> ( type & 31 ) & 1 ) && type < 32; }

// The fields of layer 4 at `l4`, of which `packet->protocol` is known. Of a packet that an ICMP error quotes not more
// than 8 bytes need be there.
static __always_inline enum Parsed parseLayer4( void const * l4, void const * end, int isQuoted,
                                                struct Packet * packet ) {
   if ( packet->protocol == IPPROTO_ICMP ) {
      struct IcmpHeader const * const icmp = l4;
      if ( (void const *)( icmp + 1 ) > end ) {
         return tooShort;
      }
      if ( isIcmpError( icmp->type ) ) {
         packet->kind = errorOfIcmp;
         packet->changesState = 1;
      } else if ( isIcmpRequest( icmp->type ) ) {
         packet->kind = queryOfIcmp;
         packet->idIsSource = 1;
         packet->sourcePort = icmp->id;
      } else if ( isIcmpReply( icmp->type ) ) {
         packet->kind = queryOfIcmp;
         packet->destinationPort = icmp->id;
      }
      return parsed;
   }
   packet->checksumOffset = checksumOffsetOf( packet->protocol );
   if ( packet->checksumOffset ) {
      __u16 const * const ports = l4;
      if ( l4 + 8 > end ) {
         return tooShort;
      }
      if ( packet->protocol == IPPROTO_TCP ) {
         struct tcphdr const * const tcp = l4;
         if ( (void const *)( tcp + 1 ) <= end ) {
            packet->changesState = tcp->syn || tcp->fin || tcp->rst;
         } else if ( isQuoted ) {
            packet->checksumOffset = 0;
         } else {
            return tooShort;
         }
      }
      packet->kind = portPair;
      packet->sourcePort = ports[ 0 ];
      packet->destinationPort = ports[ 1 ];
   }
   return parsed;
}

// The IPv4 packet whose header starts at `ipOffset`.
static __always_inline enum Parsed parse( void const * data, void const * end, __u32 ipOffset, int isQuoted,
                                          struct Packet * packet ) {
   struct iphdr const * const ip = data + ipOffset;
   if ( (void const *)( ip + 1 ) > end ) {
      return tooShort;
   }
   if ( ip->version != 4 || ip->ihl < 5 ) {
      return notForUs;
   }
   __u16 const offset = bpf_ntohs( ip->frag_off );
   *packet = ( struct Packet ){ .source = ip->saddr,
                                .destination = ip->daddr,
                                .protocol = ip->protocol,
                                .part = offset & fragmentOffsetMask ? laterFragment
                                        : offset & moreFragments    ? firstFragment
                                                                    : wholePacket,
                                .ipOffset = ipOffset,
                                .l4Offset = ipOffset + ip->ihl * 4,
                                .length = bpf_ntohs( ip->tot_len ),
                                .timeToLive = ip->ttl };
   if ( packet->part == laterFragment ) {
      return parsed;
   }
   return parseLayer4( data + ipOffset + ip->ihl * 4, end, isQuoted, packet );
}
