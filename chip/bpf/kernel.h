// Packets on their way through the kernel: translated where they enter or leave a device (tc).
#pragma once

#include "rewrite.h"
#include "traps.h"

#include <linux/pkt_cls.h>

// Says that a packet was translated where it entered, and shall not be again where it leaves. Of this machine's device
// alone: a packet that another machine marked comes in by another one, or by one that takes the mark off.
static __always_inline __u16 translatedMark( struct __sk_buff const * skb ) {
   return 0x4E54 ^ ( skb->ingress_ifindex & 0xFFFF );
}

static __always_inline int dropped( __u32 reason, __u64 bytes ) {
   count( reason, 1, bytes );
   return TC_ACT_SHOT;
}

// Parses out of the buffer's linear part, which is made long enough.
static __always_inline enum Parsed parseBuffer( struct __sk_buff * skb, struct Packet * packet ) {
   enum { longestHeaders = ETH_HLEN + 60 + 20 };
   enum Parsed result = parse( (void *)(long)skb->data, (void *)(long)skb->data_end, ETH_HLEN, 0, packet );
   if ( result == tooShort ) {
      __u32 const wanted = skb->len < longestHeaders ? skb->len : longestHeaders;
      if ( bpf_skb_pull_data( skb, wanted ) == 0 ) {
         result = parse( (void *)(long)skb->data, (void *)(long)skb->data_end, ETH_HLEN, 0, packet );
      }
   }
   return result;
}

// Writes the addresses into the outer header. False: the buffer can not be written.
static __always_inline int writeAddresses( struct __sk_buff * skb, struct Packet const * packet,
                                           struct Fields const * to, __u8 timeToLive ) {
   void * const data = (void *)(long)skb->data;
   struct iphdr * const ip = data + ETH_HLEN;
   if ( (void *)( ip + 1 ) > (void *)(long)skb->data_end ) {
      return 0;
   }
   __u64 change = addressChange( packet, to );
   if ( timeToLive != packet->timeToLive ) {
      change += (__u16)~bpf_htons( packet->timeToLive << 8 ) + bpf_htons( timeToLive << 8 );
      ip->ttl = timeToLive;
   }
   ip->check = checksumAfter( ip->check, change );
   ip->saddr = to->source;
   ip->daddr = to->destination;
   return 1;
}

// The helper knows buffers whose checksum the device completes, and those that carry a sum of their contents.
static __always_inline int updateLayer4( struct __sk_buff * skb, struct Packet const * packet,
                                         struct Fields const * to ) {
   __u32 const l4 = packet->l4Offset & 127;
   __u64 const ports = packet->sourcePort != to->sourcePort || packet->destinationPort != to->destinationPort
                          ? foldedTo32( portChange( packet, to ) )
                          : 0;
   long fault = 0;
   if ( packet->kind == portPair ) {
      __u32 const at = l4 + packet->checksumOffset;
      __u64 const ifUsed = packet->protocol == IPPROTO_UDP ? BPF_F_MARK_MANGLED_0 : 0;
      fault = bpf_l4_csum_replace( skb, at, 0, foldedTo32( addressChange( packet, to ) ), BPF_F_PSEUDO_HDR | ifUsed );
      if ( !fault && ports ) {
         fault = bpf_l4_csum_replace( skb, at, 0, ports, ifUsed );
      }
   } else if ( packet->kind == queryOfIcmp && ports ) {
      fault = bpf_l4_csum_replace( skb, l4 + 2, 0, ports, 0 );
   }
   if ( fault || !ports ) {
      return !fault;
   }
   void * const data = (void *)(long)skb->data;
   __u16 * const field = data + l4;
   if ( (void *)( field + 3 ) > (void *)(long)skb->data_end ) {
      return 0;
   }
   if ( packet->kind == portPair ) {
      field[ 0 ] = to->sourcePort;
      field[ 1 ] = to->destinationPort;
   } else {
      field[ 2 ] = packet->idIsSource ? to->sourcePort : to->destinationPort;
   }
   return 1;
}

static __always_inline int writeFields( struct __sk_buff * skb, struct Packet const * packet,
                                        struct Fields const * to ) {
   return updateLayer4( skb, packet, to ) && writeAddresses( skb, packet, to, packet->timeToLive );
}
