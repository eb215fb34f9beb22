// Which packets without a row the kernel shall learn a connection from.
#pragma once

#include "maps.h"
#include "packet.h"

static __always_inline int trapMatches( struct ChipTrap const * trap, struct Packet const * packet, __u32 vrfId ) {
   return trap->vrfId == vrfId && ( packet->source & trap->sourceMask ) == trap->source &&
          ( packet->destination & trap->destinationMask ) == trap->destination &&
          ( packet->sourcePort & trap->sourcePortMask ) == trap->sourcePort &&
          ( packet->destinationPort & trap->destinationPortMask ) == trap->destinationPort &&
          ( packet->protocol & trap->protocolMask ) == trap->protocol;
}

struct TrapSearch {
   struct Packet const * packet;
   __u32 vrfId;
   __u32 first;
   int traps;
};

static long tryTrap( __u64 number, struct TrapSearch * search ) {
   __u32 const at = search->first + number;
   struct ChipTrap const * const trap = bpf_map_lookup_elem( &traps, &at );
   if ( !trap || !trapMatches( trap, search->packet, search->vrfId ) ) {
      return 0;
   }
   search->traps = trap->traps;
   return 1;
}

// The first rule that matches decides.
static __noinline int isTrapped( struct Packet const * packet, __u32 vrfId, __u32 trapList ) {
   struct TrapSearch search = { packet, vrfId, trapList >> 31 ? chipTraps : 0, 0 };
   bpf_loop( trapList & 0x7FFFFFFF, tryTrap, &search, 0 );
   return search.traps;
}
