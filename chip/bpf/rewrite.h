// What a rewrite makes of a packet, and how checksums follow.
#pragma once

#include "lookup.h"

// The fields that rewrites change, as they shall be.
struct Fields {
   __u32 source;
   __u32 destination;
   __u16 sourcePort;
   __u16 destinationPort;
};

static __always_inline struct Fields fieldsOf( struct Packet const * packet ) {
   return ( struct Fields ){ packet->source, packet->destination, packet->sourcePort, packet->destinationPort };
}

static __always_inline struct Fields applied( struct ChipRewrite const * rewrite, struct Packet const * packet ) {
   struct Fields fields = fieldsOf( packet );
   fields.source = rewrite->source ? rewrite->source : fields.source;
   fields.destination = rewrite->destination ? rewrite->destination : fields.destination;
   if ( packet->kind == portPair ) {
      fields.sourcePort = rewrite->sourcePort ? rewrite->sourcePort : fields.sourcePort;
      fields.destinationPort = rewrite->destinationPort ? rewrite->destinationPort : fields.destinationPort;
   } else if ( packet->kind == queryOfIcmp ) {
      // A query has the id alone, the other port is none.
      if ( packet->idIsSource ) {
         fields.sourcePort = rewrite->sourcePort ? rewrite->sourcePort : fields.sourcePort;
      } else {
         fields.destinationPort = rewrite->destinationPort ? rewrite->destinationPort : fields.destinationPort;
      }
   }
   return fields;
}

// --- Checksums (RFC 1624): sums of what went, inverted, and of what came ---------------------------------------------

static __always_inline __u64 addressChange( struct Packet const * packet, struct Fields const * to ) {
   return (__u64)(__u32)~packet->source + to->source + (__u32)~packet->destination + to->destination;
}

static __always_inline __u64 portChange( struct Packet const * packet, struct Fields const * to ) {
   return (__u64)(__u16)~packet->sourcePort + to->sourcePort + (__u16)~packet->destinationPort + to->destinationPort;
}

static __always_inline __u32 foldedTo32( __u64 sum ) {
   sum = ( sum & 0xFFFFFFFF ) + ( sum >> 32 );
   return ( sum & 0xFFFFFFFF ) + ( sum >> 32 );
}

static __always_inline __u16 foldedTo16( __u64 sum ) {
   sum = ( sum & 0xFFFFFFFF ) + ( sum >> 32 );
   sum = ( sum & 0xFFFF ) + ( sum >> 16 );
   sum = ( sum & 0xFFFF ) + ( sum >> 16 );
   return ( sum & 0xFFFF ) + ( sum >> 16 );
}

static __always_inline __u16 checksumAfter( __u16 checksum, __u64 change ) {
   return ~foldedTo16( (__u16)~checksum + change );
}

// --- Counting --------------------------------------------------------------------------------------------------------

static __always_inline void countRewrite( struct Match const * match, __u64 packets, __u64 bytes ) {
   struct ChipSlot * const slot = slotOf( &match->row );
   if ( slot ) {
      __sync_fetch_and_add( &slot->packets, packets );
      __sync_fetch_and_add( &slot->bytes, bytes );
      slot->lastPacket = bpf_ktime_get_coarse_ns();
   }
   count( match->table, packets, bytes );
}
