// Copies of multicast packets: one for each replication, rewritten and sent out by its own interface.
#pragma once

#include "kernel.h"

// The copy, if it is whole; looks again when it is being replaced.
static __always_inline int readCopy( struct ChipCopyKey const * key, struct ChipCopy * copy ) {
   for ( int i = 0; i < 2; ++i ) {
      struct ChipCopy const * const found = bpf_map_lookup_elem( &copies, key );
      if ( !found ) {
         return 0;
      }
      *copy = *found;
      if ( chipCopyCheckOf( key, copy ) == copy->check ) {
         return 1;
      }
   }
   return 0;
}

// Null while the list is being replaced.
static __always_inline struct ChipCopyList const * listOf( __u32 natId ) {
   for ( int i = 0; i < 2; ++i ) {
      struct ChipCopyList const * const list = bpf_map_lookup_elem( &copyLists, &natId );
      if ( list && chipListCheckOf( natId, list ) == list->check ) {
         return list;
      }
   }
   return 0;
}

// Frames of a group go to the group's own address (RFC 1112).
static __always_inline int writeFrame( struct __sk_buff * skb, struct ChipPort const * out, __u32 group ) {
   struct ethhdr * const frame = (void *)(long)skb->data;
   if ( (void *)( frame + 1 ) > (void *)(long)skb->data_end ) {
      return 0;
   }
   __u32 const address = bpf_ntohl( group );
   frame->h_dest[ 0 ] = 0x01;
   frame->h_dest[ 1 ] = 0x00;
   frame->h_dest[ 2 ] = 0x5E;
   frame->h_dest[ 3 ] = address >> 16 & 0x7F;
   frame->h_dest[ 4 ] = address >> 8;
   frame->h_dest[ 5 ] = address;
   __builtin_memcpy( frame->h_source, out->mac, sizeof out->mac );
   return 1;
}

// What the copies of one packet have in common.
struct Copying {
   struct __sk_buff * skb;
   struct ChipPort const * port;
   struct ChipCopyList const * list;
   __u32 natId;
   __u32 sent;
   struct Packet original;
   struct Packet now;  // as the buffer holds it
   __u8 timeToLive;
};

static __always_inline int sendCopy( struct Copying * of, struct ChipCopy const * copy ) {
   struct __sk_buff * const skb = of->skb;
   struct ChipPort const * out = of->port;
   if ( copy->intf != 0 ) {
      __u32 const intf = copy->intf;
      __u32 const * const place = bpf_map_lookup_elem( &placeOfPort, &intf );
      out = place ? bpf_map_lookup_elem( &ports, place ) : 0;
   }
   if ( !out ) {
      count( chipDropNoPort, 1, of->original.length );
      return 0;
   }
   struct ChipRewrite const rewrite = { .source = copy->source, .destination = copy->destination };
   struct Fields const to = applied( &rewrite, &of->original );
   if ( !updateLayer4( skb, &of->now, &to ) || !writeAddresses( skb, &of->now, &to, of->timeToLive ) ||
        !writeFrame( skb, out, to.destination ) ) {
      count( chipDropUnwritable, 1, of->original.length );
      return 0;
   }
   of->now.source = to.source;
   of->now.destination = to.destination;
   of->now.timeToLive = of->timeToLive;
   return bpf_clone_redirect( skb, out->ifindex, 0 ) == 0;
}

static long sendCopyNumber( __u64 number, struct Copying * of ) {
   if ( number >= chipCopies ) {
      return 1;
   }
   struct ChipCopyKey const key = { of->natId, of->list->replication[ number ] };
   struct ChipCopy copy;
   if ( !readCopy( &key, &copy ) ) {
      count( chipDropChanged, 1, of->original.length );
   } else if ( sendCopy( of, &copy ) ) {
      ++of->sent;
   }
   return 0;
}

static __noinline int sendCopies( struct __sk_buff * skb, struct Packet const * packet, struct ChipPort const * port,
                                  __u32 natId, int leaving ) {
   struct Copying copying = { .skb = skb,
                              .port = port,
                              .list = listOf( natId ),
                              .natId = natId,
                              .original = *packet,
                              .now = *packet,
                              // Where the packet leaves the kernel has counted it down already.
                              .timeToLive = packet->timeToLive - ( leaving ? 0 : 1 ) };
   skb->tc_index = translatedMark( skb );
   if ( port && copying.list && packet->timeToLive > 1 ) {
      bpf_loop( copying.list->count, sendCopyNumber, &copying, 0 );
   }
   if ( copying.sent == 0 ) {
      return dropped( chipDropNoCopies, packet->length );
   }
   count( chipCopiesSent, copying.sent, (__u64)copying.sent * packet->length );
   return TC_ACT_SHOT;
}
