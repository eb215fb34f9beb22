// Which row applies to a packet, and what its rewrite says.
#pragma once

#include "maps.h"
#include "packet.h"

enum Verdict {
   noRow,
   rewritten,   // by the match's `rewrite`
   copied,      // `row.natId` names the copies
   isChanging,  // the row is being replaced: what was read does not belong together
};

struct Match {
   struct ChipRow row;
   struct ChipRewrite rewrite;
   __u32 table;  // as a counter
   __u32 zero;
};

// --- From row to rewrite ---------------------------------------------------------------------------------------------

static __always_inline struct ChipSlot * slotOf( struct ChipRow const * row ) {
   if ( row->inSecondTable ) {
      struct ChipSecondKey const key = { row->natId, row->qualifier, row->rewriteTable };
      return bpf_map_lookup_elem( &secondSlots, &key );
   }
   __u32 const natId = row->natId;
   return row->rewriteTable == chipSourceRewrite ? bpf_map_lookup_elem( &sourceSlots, &natId )
                                                 : bpf_map_lookup_elem( &targetSlots, &natId );
}

// Loads before it come before loads after it. x86 keeps them in order itself, and so does the translator of BPF; other
// machines need more.
static __always_inline void loadsInOrder( void ) { asm volatile( "" ::: "memory" ); }

// The version that holds; 0: it was replaced again and again while it was read.
static __always_inline int readSlot( struct ChipSlot const * slot, struct ChipRewrite * rewrite ) {
   for ( int i = 0; i < 4; ++i ) {
      __u32 const before = *(__u32 const volatile *)&slot->sequence;
      loadsInOrder();
      __u64 const * const words = (__u64 const *)&slot->version[ before & 1 ];
      ( (__u64 *)rewrite )[ 0 ] = words[ 0 ];
      ( (__u64 *)rewrite )[ 1 ] = words[ 1 ];
      loadsInOrder();
      if ( *(__u32 const volatile *)&slot->sequence == before ) {
         return 1;
      }
   }
   return 0;
}

static __always_inline enum Verdict resolve( struct ChipRow const * row, __u64 keyHash, struct Match * match ) {
   ( (__u64 *)&match->row )[ 0 ] = ( (__u64 const *)row )[ 0 ];
   ( (__u64 *)&match->row )[ 1 ] = ( (__u64 const *)row )[ 1 ];
   if ( match->row.rewriteTable == chipCopyRewrite ) {
      return chipCheckOf( keyHash, &match->row, 0 ) == match->row.check ? copied : isChanging;
   }
   struct ChipSlot const * const slot = slotOf( &match->row );
   if ( !slot || !readSlot( slot, &match->rewrite ) ) {
      return isChanging;
   }
   return chipCheckOf( keyHash, &match->row, match->rewrite.generation ) == match->row.check ? rewritten : isChanging;
}

// --- One look-up -----------------------------------------------------------------------------------------------------

// Each looks again when the row is being replaced: the second look finds what replaced it. They are not static, so that
// the kernel checks each of them once, and not once for every way that leads there.

int twiceRow( struct ChipTwiceKey const * key, struct Match * match );
__noinline int twiceRow( struct ChipTwiceKey const * key, struct Match * match ) {
   enum Verdict verdict = noRow;
   if ( !key || !match ) {
      return verdict;
   }
   __u64 const hash = chipHashOf( key, sizeof *key / 8 );
   for ( int i = 0; i < 2; ++i ) {
      struct ChipRow const * const row = bpf_map_lookup_elem( &twiceRows, key );
      verdict = row ? resolve( row, hash, match ) : noRow;
      if ( verdict != isChanging ) {
         break;
      }
   }
   return verdict;
}

int staticRow( struct ChipStaticKey const * key, struct Match * match );
__noinline int staticRow( struct ChipStaticKey const * key, struct Match * match ) {
   enum Verdict verdict = noRow;
   if ( !key || !match ) {
      return verdict;
   }
   __u64 const hash = chipHashOf( key, sizeof *key / 8 );
   for ( int i = 0; i < 2; ++i ) {
      struct ChipRow const * const row = bpf_map_lookup_elem( &staticRows, key );
      verdict = row ? resolve( row, hash, match ) : noRow;
      if ( verdict != isChanging ) {
         break;
      }
   }
   return verdict;
}

int snaptRow( struct ChipNaptKey const * key, struct Match * match );
__noinline int snaptRow( struct ChipNaptKey const * key, struct Match * match ) {
   enum Verdict verdict = noRow;
   if ( !key || !match ) {
      return verdict;
   }
   __u64 const hash = chipHashOf( key, sizeof *key / 8 );
   for ( int i = 0; i < 2; ++i ) {
      struct ChipRow const * const row = bpf_map_lookup_elem( &snaptRows, key );
      verdict = row ? resolve( row, hash, match ) : noRow;
      if ( verdict != isChanging ) {
         break;
      }
   }
   return verdict;
}

int dnaptRow( struct ChipNaptKey const * key, struct Match * match );
__noinline int dnaptRow( struct ChipNaptKey const * key, struct Match * match ) {
   enum Verdict verdict = noRow;
   if ( !key || !match ) {
      return verdict;
   }
   __u64 const hash = chipHashOf( key, sizeof *key / 8 );
   for ( int i = 0; i < 2; ++i ) {
      struct ChipRow const * const row = bpf_map_lookup_elem( &dnaptRows, key );
      verdict = row ? resolve( row, hash, match ) : noRow;
      if ( verdict != isChanging ) {
         break;
      }
   }
   return verdict;
}

int addressRow( struct ChipAddressKey const * key, int leaving, struct Match * match );
__noinline int addressRow( struct ChipAddressKey const * key, int leaving, struct Match * match ) {
   enum Verdict verdict = noRow;
   if ( !key || !match ) {
      return verdict;
   }
   __u64 const hash = chipHashOf( key, sizeof *key / 8 );
   for ( int i = 0; i < 2; ++i ) {
      struct ChipRow const * const row =
         leaving ? bpf_map_lookup_elem( &snatRows, key ) : bpf_map_lookup_elem( &dnatRows, key );
      verdict = row ? resolve( row, hash, match ) : noRow;
      if ( verdict != isChanging ) {
         break;
      }
   }
   return verdict;
}

// --- Filters of static rows ------------------------------------------------------------------------------------------

static __always_inline int filterMatches( struct ChipFilter const * filter, struct Packet const * packet ) {
   if ( ( packet->source & filter->sourceMask ) != filter->source ||
        ( packet->destination & filter->destinationMask ) != filter->destination ) {
      return 0;
   }
   if ( packet->part == laterFragment ) {
      return filter->sourcePort == 0 && filter->destinationPort == 0;
   }
   return ( filter->sourcePort == 0 || filter->sourcePort == packet->sourcePort ) &&
          ( filter->destinationPort == 0 || filter->destinationPort == packet->destinationPort );
}

// Whether one of the filters matches, from that block on. Not static, so that the kernel looks through it once only.
int filtersMatch( __u32 block, struct Packet const * packet );
__noinline int filtersMatch( __u32 block, struct Packet const * packet ) {
   for ( int chain = 0; packet && chain < chipBlocksInChain && block != 0; ++chain ) {
      struct ChipFilterBlock const * const filters = bpf_map_lookup_elem( &filterBlocks, &block );
      if ( !filters ) {
         return 0;
      }
      for ( int i = 0; i < chipFiltersInBlock; ++i ) {
         if ( i >= filters->count ) {
            break;
         }
         if ( filterMatches( &filters->filter[ i ], packet ) ) {
            return 1;
         }
      }
      block = filters->next;
   }
   return 0;
}

// --- A packet's row --------------------------------------------------------------------------------------------------

// Every function below answers the first verdict that is one, in the order of shapes; `shapes` are those of the port's
// rows that apply to this part of a packet.

static __always_inline int has( __u32 shapes, enum ChipShape shape ) { return shapes & 1U << shape; }

enum {
   twiceShapes = ( 1U << ( chipTwiceFragment + 1 ) ) - ( 1U << chipTwiceExact ),
   staticShapes = ( 1U << ( chipStaticFragmentAnyProtocol + 1 ) ) - ( 1U << chipStaticExact ),
   naptShapes = ( 1U << ( chipNaptFragmentAnyProtocol + 1 ) ) - ( 1U << chipNaptExact ),
   fragmentShapes = 1U << chipTwiceFragment | 1U << chipStaticFragment | 1U << chipStaticFragmentAnyProtocol |
                    1U << chipNaptFragment | 1U << chipNaptFragmentAnyProtocol,
   dynamicShapes = naptShapes | 1U << chipAddressOnly,
   withoutPorts = 1U << chipTwiceAnyPorts | 1U << chipStaticAnyPort | 1U << chipStaticAnyPortAnyProtocol |
                  1U << chipNaptAnyPorts | 1U << chipNaptAnyPortsAnyProtocol | 1U << chipAddressOnly,
};

static __always_inline int findTwice( struct Packet const * packet, struct ChipPort const * port, __u32 vrfId,
                                      __u32 shapes, int leaving, struct Match * match ) {
   struct ChipTwiceKey key = { .intf = port->intf,
                               .vrfId = vrfId,
                               .source = packet->source,
                               .destination = packet->destination,
                               .leaving = leaving };
   int verdict = noRow;
   if ( has( shapes, chipTwiceFragment ) ) {
      key.fragment = 1;
      verdict = twiceRow( &key, match );
      key.fragment = 0;
   }
   key.sourcePort = packet->sourcePort;
   key.destinationPort = packet->destinationPort;
   if ( !verdict && has( shapes, chipTwiceExact ) ) {
      verdict = twiceRow( &key, match );
   }
   key.destinationPort = 0;
   if ( !verdict && has( shapes, chipTwiceAnyDestinationPort ) ) {
      verdict = twiceRow( &key, match );
   }
   key.sourcePort = 0;
   key.destinationPort = packet->destinationPort;
   if ( !verdict && has( shapes, chipTwiceAnySourcePort ) ) {
      verdict = twiceRow( &key, match );
   }
   key.destinationPort = 0;
   if ( !verdict && has( shapes, chipTwiceAnyPorts ) ) {
      verdict = twiceRow( &key, match );
   }
   match->table = chipTwicePackets;
   return verdict;
}

static __always_inline int applicable( struct ChipStaticKey const * key, struct Packet const * packet,
                                       struct Match * match ) {
   int const verdict = staticRow( key, match );
   return verdict == noRow || match->row.filters == 0 || filtersMatch( match->row.filters, packet ) ? verdict : noRow;
}

static __always_inline int findStatic( struct Packet const * packet, struct ChipPort const * port, __u32 shapes,
                                       int leaving, struct Match * match ) {
   struct ChipStaticKey key = { .intf = port->intf,
                                .vrfId = port->vrfId,
                                .ip = leaving ? packet->source : packet->destination,
                                .protocol = packet->protocol,
                                .leaving = leaving };
   int verdict = noRow;
   if ( has( shapes, chipStaticFragment ) ) {
      key.fragment = 1;
      verdict = applicable( &key, packet, match );
   }
   if ( !verdict && has( shapes, chipStaticFragmentAnyProtocol ) ) {
      key.fragment = 1;
      key.protocol = 0;
      verdict = applicable( &key, packet, match );
   }
   key.fragment = 0;
   key.protocol = packet->protocol;
   key.port = leaving ? packet->sourcePort : packet->destinationPort;
   if ( !verdict && has( shapes, chipStaticExact ) ) {
      verdict = applicable( &key, packet, match );
   }
   if ( !verdict && has( shapes, chipStaticAnyProtocol ) ) {
      key.protocol = 0;
      verdict = applicable( &key, packet, match );
   }
   key.port = 0;
   key.protocol = packet->protocol;
   if ( !verdict && has( shapes, chipStaticAnyPort ) ) {
      verdict = applicable( &key, packet, match );
   }
   if ( !verdict && has( shapes, chipStaticAnyPortAnyProtocol ) ) {
      key.protocol = 0;
      verdict = applicable( &key, packet, match );
   }
   match->table = chipStaticPackets;
   return verdict;
}

// The row of the key or, with `anyProtocol`, of the key that names none.
static __always_inline int naptRow( struct ChipNaptKey * key, __u8 protocol, __u32 shapes, enum ChipShape shape,
                                    int leaving, struct Match * match ) {
   int verdict = noRow;
   if ( has( shapes, shape ) ) {
      key->protocol = protocol;
      verdict = leaving ? snaptRow( key, match ) : dnaptRow( key, match );
   }
   if ( !verdict && has( shapes, shape + 1 ) ) {
      key->protocol = 0;
      verdict = leaving ? snaptRow( key, match ) : dnaptRow( key, match );
   }
   return verdict;
}

static __always_inline int findNapt( struct Packet const * packet, struct ChipPort const * port, __u32 vrfId,
                                     __u32 shapes, int leaving, struct Match * match ) {
   struct ChipNaptKey key = {
      .vrfId = vrfId, .source = packet->source, .destination = packet->destination, .qualifier = port->qualifier };
   __u8 const protocol = packet->protocol;
   match->table = leaving ? chipSnaptPackets : chipDnaptPackets;
   int verdict = noRow;
   if ( shapes & fragmentShapes ) {
      key.fragment = 1;
      verdict = naptRow( &key, protocol, shapes, chipNaptFragment, leaving, match );
      key.fragment = 0;
   }
   key.sourcePort = packet->sourcePort;
   key.destinationPort = packet->destinationPort;
   if ( !verdict ) {
      verdict = naptRow( &key, protocol, shapes, chipNaptExact, leaving, match );
   }
   key.destinationPort = 0;
   if ( !verdict ) {
      verdict = naptRow( &key, protocol, shapes, chipNaptAnyDestinationPort, leaving, match );
   }
   key.sourcePort = 0;
   key.destinationPort = packet->destinationPort;
   if ( !verdict ) {
      verdict = naptRow( &key, protocol, shapes, chipNaptAnySourcePort, leaving, match );
   }
   key.destinationPort = 0;
   if ( !verdict ) {
      verdict = naptRow( &key, protocol, shapes, chipNaptAnyPorts, leaving, match );
   }
   return verdict;
}

static __always_inline int passesDynamicRows( struct Packet const * packet, struct ChipSettings const * settings ) {
   return ( settings->statesElsewhere && packet->changesState ) ||
          ( settings->dynamicUntil && settings->dynamicUntil < bpf_ktime_get_ns() );
}

// The row that applies to a packet that leaves or enters by the port. Twice rows come before static ones, these before
// dynamic ones with ports, and last those of addresses only; exact ports before any. Later fragments meet the rows of
// fragments, then those without ports; no other packet meets a row of fragments.
static __always_inline int find( struct Packet const * packet, struct ChipPort const * port,
                                 struct ChipSettings const * settings, int leaving, struct Match * match ) {
   __u32 const all = leaving ? port->leaving : port->entering;
   __u32 shapes = all & ( packet->part == laterFragment ? fragmentShapes | withoutPorts : ~fragmentShapes );
   if ( shapes & dynamicShapes && passesDynamicRows( packet, settings ) ) {
      shapes &= ~dynamicShapes;
   }
   __u32 const vrfId = settings->vrfLess ? 0 : port->vrfId;
   int verdict = noRow;
   if ( shapes & twiceShapes ) {
      verdict = findTwice( packet, port, vrfId, shapes, leaving, match );
   }
   if ( !verdict && shapes & staticShapes ) {
      verdict = findStatic( packet, port, shapes, leaving, match );
   }
   if ( !verdict && shapes & naptShapes ) {
      verdict = findNapt( packet, port, vrfId, shapes, leaving, match );
   }
   if ( !verdict && has( shapes, chipAddressOnly ) ) {
      struct ChipAddressKey const key = { vrfId, leaving ? packet->source : packet->destination, port->qualifier, 0 };
      verdict = addressRow( &key, leaving, match );
      match->table = leaving ? chipSnatAddressPackets : chipDnatAddressPackets;
   }
   return verdict;
}
