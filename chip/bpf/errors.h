// ICMP errors: they quote a packet as it was where it failed, so its sender would not know it again. They are
// translated as an answer to that packet would be, and the quotation the other way round.
#pragma once

#include "kernel.h"

static __always_inline struct Packet answerTo( struct Packet const * quoted ) {
   struct Packet answer = *quoted;
   answer.source = quoted->destination;
   answer.destination = quoted->source;
   answer.sourcePort = quoted->destinationPort;
   answer.destinationPort = quoted->sourcePort;
   answer.idIsSource = quoted->kind == queryOfIcmp && !quoted->idIsSource;
   answer.changesState = 1;
   return answer;
}

static __always_inline int store16( struct __sk_buff * skb, __u32 offset, __u16 value ) {
   return bpf_skb_store_bytes( skb, offset, &value, sizeof value, 0 ) == 0;
}

static __always_inline int store32( struct __sk_buff * skb, __u32 offset, __u32 value ) {
   return bpf_skb_store_bytes( skb, offset, &value, sizeof value, 0 ) == 0;
}

// Replaces one checksum of the quotation; what that changes of the sum around it is added to `change`.
static __always_inline int followChange( struct __sk_buff * skb, __u32 offset, __u64 of, int mayBeUnused,
                                         __u64 * change ) {
   __u16 before = 0;
   if ( bpf_skb_load_bytes( skb, offset, &before, sizeof before ) != 0 ) {
      return 0;
   }
   if ( mayBeUnused && before == 0 ) {
      return 1;
   }
   __u16 after = checksumAfter( before, of );
   if ( mayBeUnused && after == 0 ) {
      after = 0xFFFF;
   }
   *change += (__u16)~before + after;
   return store16( skb, offset, after );
}

static __always_inline int writeQuoted( struct __sk_buff * skb, struct Packet const * quoted, struct Fields const * to,
                                        __u64 * change ) {
   __u32 const ip = quoted->ipOffset & 127;
   __u32 const l4 = quoted->l4Offset & 255;
   __u64 const addresses = addressChange( quoted, to );
   __u64 const ports = portChange( quoted, to );
   *change = addresses + ports;
   if ( !followChange( skb, ip + 10, addresses, 0, change ) || !store32( skb, ip + 12, to->source ) ||
        !store32( skb, ip + 16, to->destination ) ) {
      return 0;
   }
   if ( quoted->kind == portPair ) {
      return store16( skb, l4, to->sourcePort ) && store16( skb, l4 + 2, to->destinationPort ) &&
             ( quoted->checksumOffset == 0 || followChange( skb, l4 + quoted->checksumOffset, addresses + ports,
                                                            quoted->protocol == IPPROTO_UDP, change ) );
   }
   return quoted->kind != queryOfIcmp ||
          ( store16( skb, l4 + 4, quoted->idIsSource ? to->sourcePort : to->destinationPort ) &&
            followChange( skb, l4 + 2, ports, 0, change ) );
}

static __noinline int translateError( struct __sk_buff * skb, struct Packet * error, struct ChipPort const * port,
                                      int leaving ) {
   enum { quotedAt = 8, longestQuotation = 60 + 20 };
   struct ChipSettings const * const settings = chipSettings();
   __u32 const l4 = error->l4Offset & 127;
   __u32 const wanted = l4 + quotedAt + longestQuotation;
   if ( !port || !settings || bpf_skb_pull_data( skb, skb->len < wanted ? skb->len : wanted ) != 0 ) {
      return TC_ACT_UNSPEC;
   }
   struct Packet quoted = {};
   void * const data = (void *)(long)skb->data;
   if ( parse( data, (void *)(long)skb->data_end, l4 + quotedAt, 1, &quoted ) != parsed ||
        quoted.kind == errorOfIcmp ) {
      return TC_ACT_UNSPEC;
   }
   struct Packet const answer = answerTo( &quoted );
   struct Match match = {};
   int const verdict =
      leaving ? find( &answer, port, settings, 1, &match ) : find( &answer, port, settings, 0, &match );
   if ( verdict == isChanging ) {
      return dropped( chipDropChanged, error->length );
   }
   if ( verdict != rewritten ) {
      return TC_ACT_UNSPEC;
   }
   struct Fields const answered = applied( &match.rewrite, &answer );
   struct Fields const quotation = { answered.destination, answered.source, answered.destinationPort,
                                     answered.sourcePort };
   struct Fields const outer = applied( &match.rewrite, error );
   __u64 change = 0;
   if ( !writeQuoted( skb, &quoted, &quotation, &change ) ||
        bpf_l4_csum_replace( skb, l4 + 2, 0, foldedTo32( change ), 0 ) != 0 ||
        !writeAddresses( skb, error, &outer, error->timeToLive ) ) {
      return dropped( chipDropUnwritable, error->length );
   }
   countRewrite( &match, 1, error->length );
   count( chipErrorsPassed, 1, error->length );
   skb->tc_index = translatedMark( skb );
   return TC_ACT_UNSPEC;
}
