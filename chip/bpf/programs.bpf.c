// The pipeline: a fast path that forwards what it can translate and route by itself (XDP), and before and behind the
// kernel's own forwarding the programs that translate everything else (tc). A packet without a row passes untouched.
#include "errors.h"
#include "forward.h"
#include "kernel.h"
#include "multicast.h"

// --- Through the kernel ----------------------------------------------------------------------------------------------

static __always_inline int miss( struct Packet const * packet, struct ChipPort const * port,
                                 struct ChipSettings const * settings ) {
   count( chipMissed, 1, packet->length );
   if ( settings->trapList && isTrapped( packet, port->vrfId, settings->trapList ) ) {
      count( chipTrapped, 1, packet->length );
   }
   return TC_ACT_UNSPEC;
}

static __always_inline int translate( struct __sk_buff * skb, struct ChipPort const * port, int leaving ) {
   struct ChipSettings const * const settings = chipSettings();
   struct Packet packet;
   if ( !settings || skb->protocol != bpf_htons( ETH_P_IP ) || parseBuffer( skb, &packet ) != parsed ) {
      return TC_ACT_UNSPEC;
   }
   if ( packet.kind == errorOfIcmp ) {
      return translateError( skb, &packet, port, leaving );
   }
   struct Match match = {};
   switch ( find( &packet, port, settings, leaving, &match ) ) {
   case rewritten: break;
   case copied: return sendCopies( skb, &packet, port, match.row.natId, leaving );
   case isChanging: return dropped( chipDropChanged, packet.length );
   default: return miss( &packet, port, settings );
   }
   struct Fields const to = applied( &match.rewrite, &packet );
   if ( !writeFields( skb, &packet, &to ) ) {
      return dropped( chipDropUnwritable, packet.length );
   }
   countRewrite( &match, skb->gso_segs > 1 ? skb->gso_segs : 1, packet.length );
   skb->tc_index = translatedMark( skb );
   if ( match.row.nextHopId != 0 ) {
      skb->mark = match.row.nextHopId;  // for rules of the routing policy
   }
   return TC_ACT_UNSPEC;
}

SEC( "tc" ) int chipEntering( struct __sk_buff * skb ) {
   skb->tc_index = 0;
   struct ChipPort const * const port = portOf( skb->ifindex, skb->vlan_present ? skb->vlan_tci & 0xFFF : 0 );
   if ( !port || ( port->flags & chipPortPushesTag && !skb->vlan_present ) ) {
      return TC_ACT_UNSPEC;
   }
   if ( port->vlanId != 0 && bpf_skb_vlan_pop( skb ) != 0 ) {
      return dropped( chipDropUnwritable, skb->len );
   }
   return translate( skb, port, 0 );
}

SEC( "tc" ) int chipLeaving( struct __sk_buff * skb ) {
   struct ChipPort const * const port = portOf( skb->ifindex, skb->vlan_present ? skb->vlan_tci & 0xFFF : 0 );
   if ( !port ) {
      return TC_ACT_UNSPEC;
   }
   int verdict = TC_ACT_UNSPEC;
   if ( skb->tc_index != translatedMark( skb ) ) {
      verdict = translate( skb, port, 1 );
   }
   if ( verdict == TC_ACT_UNSPEC && port->flags & chipPortPushesTag &&
        bpf_skb_vlan_push( skb, bpf_htons( ETH_P_8021Q ), port->vlanId ) != 0 ) {
      return dropped( chipDropUnwritable, skb->len );
   }
   return verdict;
}

// --- Past the kernel -------------------------------------------------------------------------------------------------

SEC( "xdp" ) int chipForward( struct xdp_md * frame ) { return forward( frame ); }

// Programs that read packets may be licensed as their authors like; helpers that others may not call are not used.
char const chipLicense[] SEC( "license" ) = "GPL";
