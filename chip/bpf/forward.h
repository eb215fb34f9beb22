// The fast path: translates, routes and sends out a frame before the kernel makes a buffer of it (XDP). Whatever it
// cannot finish goes to the kernel as it came, and meets the programs there.
#pragma once

#include "rewrite.h"

#include <linux/in.h>

enum { ipv4Family = 2 };

// False: the frame is not for a device of the chip, the kernel has to resolve the neighbour, or to receive the packet.
static __always_inline int route( struct xdp_md * frame, struct Packet const * packet, struct Fields const * to,
                                  struct bpf_fib_lookup * hop ) {
   *hop = ( struct bpf_fib_lookup ){ .family = ipv4Family,
                                     .l4_protocol = packet->protocol,
                                     .sport = to->sourcePort,
                                     .dport = to->destinationPort,
                                     .tot_len = packet->length,
                                     .ifindex = frame->ingress_ifindex,
                                     .ipv4_src = to->source,
                                     .ipv4_dst = to->destination };
   return bpf_fib_lookup( frame, hop, sizeof *hop, 0 ) == BPF_FIB_LKUP_RET_SUCCESS;
}

static __always_inline int writeFrameFields( struct xdp_md * frame, struct Packet const * packet,
                                             struct Fields const * to, struct bpf_fib_lookup const * hop ) {
   void * const data = (void *)(long)frame->data;
   void const * const end = (void *)(long)frame->data_end;
   struct ethhdr * const ethernet = data;
   struct iphdr * const ip = data + ETH_HLEN;
   __u16 * const l4 = data + ETH_HLEN + sizeof *ip;
   if ( (void const *)( ip + 1 ) > end ) {
      return 0;
   }
   __u64 const addresses = addressChange( packet, to );
   __u64 const ports = portChange( packet, to );
   if ( packet->kind == portPair ) {
      if ( (void const *)( l4 + 9 ) > end ) {
         if ( packet->checksumOffset != 6 || (void const *)( l4 + 4 ) > end ) {
            return 0;
         }
      }
      __u16 * const checksum = packet->checksumOffset == 6 ? l4 + 3 : l4 + 8;
      if ( (void const *)( checksum + 1 ) > end ) {
         return 0;
      }
      if ( *checksum != 0 || packet->protocol != IPPROTO_UDP ) {
         __u16 const after = checksumAfter( *checksum, addresses + ports );
         *checksum = after == 0 && packet->protocol == IPPROTO_UDP ? 0xFFFF : after;
      }
      l4[ 0 ] = to->sourcePort;
      l4[ 1 ] = to->destinationPort;
   } else if ( packet->kind == queryOfIcmp ) {
      if ( (void const *)( l4 + 3 ) > end ) {
         return 0;
      }
      l4[ 1 ] = checksumAfter( l4[ 1 ], ports );
      l4[ 2 ] = packet->idIsSource ? to->sourcePort : to->destinationPort;
   }
   ip->check = checksumAfter( ip->check, addresses + (__u16)~bpf_htons( 0x0100 ) );
   ip->ttl -= 1;
   ip->saddr = to->source;
   ip->daddr = to->destination;
   __builtin_memcpy( ethernet->h_dest, hop->dmac, ETH_ALEN );
   __builtin_memcpy( ethernet->h_source, hop->smac, ETH_ALEN );
   return 1;
}

static __always_inline int forward( struct xdp_md * frame ) {
   void const * const data = (void *)(long)frame->data;
   void const * const end = (void *)(long)frame->data_end;
   struct ethhdr const * const ethernet = data;
   struct iphdr const * const ip = data + ETH_HLEN;
   if ( (void const *)( ip + 1 ) > end || ethernet->h_proto != bpf_htons( ETH_P_IP ) || ip->ihl != 5 || ip->ttl <= 1 ) {
      return XDP_PASS;
   }
   struct ChipPort const * const in = portOf( frame->ingress_ifindex, 0 );
   struct ChipSettings const * const settings = chipSettings();
   struct Packet packet;
   if ( !in || in->flags & chipPortPushesTag || !settings || !( in->entering | settings->leaving ) ||
        parse( data, end, ETH_HLEN, 0, &packet ) != parsed || packet.kind == errorOfIcmp ) {
      return XDP_PASS;
   }
   struct Match match = {};
   struct Fields to = fieldsOf( &packet );
   int verdict = find( &packet, in, settings, 0, &match );
   if ( verdict == rewritten ) {
      to = applied( &match.rewrite, &packet );
   } else if ( verdict != noRow || !settings->leaving ) {
      return XDP_PASS;
   }
   struct bpf_fib_lookup hop;
   if ( !route( frame, &packet, &to, &hop ) ) {
      return XDP_PASS;
   }
   struct ChipPort const * const out = portOf( hop.ifindex, 0 );
   if ( !out || ( out->flags & ( chipPortTakesFrames | chipPortPushesTag ) ) != chipPortTakesFrames ) {
      return XDP_PASS;
   }
   if ( verdict == noRow ) {
      verdict = find( &packet, out, settings, 1, &match );
      to = applied( &match.rewrite, &packet );
   }
   if ( verdict != rewritten || match.row.nextHopId != 0 || !writeFrameFields( frame, &packet, &to, &hop ) ) {
      return XDP_PASS;
   }
   countRewrite( &match, 1, packet.length );
   count( chipForwarded, 1, packet.length );
   return bpf_redirect( hop.ifindex, 0 );
}
