// The tables. Sizes of 1 are set when they are created.
#pragma once

#include "layout.h"

#include <linux/bpf.h>

#include <bpf/bpf_helpers.h>

struct {
   __uint( type, BPF_MAP_TYPE_HASH );
   __uint( max_entries, 1 );
   __type( key, struct ChipTwiceKey );
   __type( value, struct ChipRow );
} twiceRows SEC( ".maps" );

struct {
   __uint( type, BPF_MAP_TYPE_HASH );
   __uint( max_entries, 1 );
   __type( key, struct ChipStaticKey );
   __type( value, struct ChipRow );
} staticRows SEC( ".maps" );

struct {
   __uint( type, BPF_MAP_TYPE_HASH );
   __uint( max_entries, 1 );
   __type( key, struct ChipNaptKey );
   __type( value, struct ChipRow );
} snaptRows SEC( ".maps" ), dnaptRows SEC( ".maps" );

struct {
   __uint( type, BPF_MAP_TYPE_HASH );
   __uint( max_entries, 1 );
   __type( key, struct ChipAddressKey );
   __type( value, struct ChipRow );
} snatRows SEC( ".maps" ), dnatRows SEC( ".maps" );

struct {
   __uint( type, BPF_MAP_TYPE_ARRAY );
   __uint( max_entries, chipNatIds );
   __uint( map_flags, BPF_F_MMAPABLE );
   __type( key, __u32 );
   __type( value, struct ChipSlot );
} sourceSlots SEC( ".maps" ), targetSlots SEC( ".maps" );

struct {
   __uint( type, BPF_MAP_TYPE_HASH );
   __uint( max_entries, chipSecondSlots );
   __type( key, struct ChipSecondKey );
   __type( value, struct ChipSlot );
} secondSlots SEC( ".maps" );

struct {
   __uint( type, BPF_MAP_TYPE_HASH );
   __uint( max_entries, 1 );
   __type( key, struct ChipCopyKey );
   __type( value, struct ChipCopy );
} copies SEC( ".maps" );

struct {
   __uint( type, BPF_MAP_TYPE_HASH );
   __uint( max_entries, 1 );
   __type( key, __u32 );  // NAT id
   __type( value, struct ChipCopyList );
} copyLists SEC( ".maps" );

struct {
   __uint( type, BPF_MAP_TYPE_ARRAY );
   __uint( max_entries, chipPorts );
   __uint( map_flags, BPF_F_MMAPABLE );
   __type( key, __u32 );
   __type( value, struct ChipPort );
} ports SEC( ".maps" );

struct {
   __uint( type, BPF_MAP_TYPE_HASH );
   __uint( max_entries, chipPorts );
   __type( key, __u32 );    // interface
   __type( value, __u32 );  // place of its port
} placeOfPort SEC( ".maps" );

struct {
   __uint( type, BPF_MAP_TYPE_ARRAY );
   __uint( max_entries, chipFilterBlocks );
   __uint( map_flags, BPF_F_MMAPABLE );
   __type( key, __u32 );
   __type( value, struct ChipFilterBlock );
} filterBlocks SEC( ".maps" );

struct {
   __uint( type, BPF_MAP_TYPE_ARRAY );
   __uint( max_entries, 2 * chipTraps );
   __uint( map_flags, BPF_F_MMAPABLE );
   __type( key, __u32 );
   __type( value, struct ChipTrap );
} traps SEC( ".maps" );

struct {
   __uint( type, BPF_MAP_TYPE_ARRAY );
   __uint( max_entries, 1 );
   __uint( map_flags, BPF_F_MMAPABLE );
   __type( key, __u32 );
   __type( value, struct ChipSettings );
} settings SEC( ".maps" );

struct {
   __uint( type, BPF_MAP_TYPE_PERCPU_ARRAY );
   __uint( max_entries, chipCounters );
   __type( key, __u32 );
   __type( value, struct ChipCount );
} counters SEC( ".maps" );

struct {
   __uint( type, BPF_MAP_TYPE_ARRAY );
   __uint( max_entries, 1 );
   __type( key, __u32 );
   __type( value, struct ChipMarker );
} marker SEC( ".maps" );

static __always_inline void count( __u32 counter, __u64 packets, __u64 bytes ) {
   struct ChipCount * const total = bpf_map_lookup_elem( &counters, &counter );
   if ( total ) {
      total->packets += packets;  // this processor's own
      total->bytes += bytes;
   }
}

static __always_inline struct ChipSettings const * chipSettings( void ) {
   __u32 const first = 0;
   return bpf_map_lookup_elem( &settings, &first );
}

// Null when the device's frames with that tag (0: none) are not the chip's.
static __always_inline struct ChipPort const * portOf( __u32 ifindex, __u32 vlanId ) {
   __u32 const place = chipPortPlace( ifindex, vlanId );
   for ( __u32 i = 0; i < chipPortProbes; ++i ) {
      __u32 const at = ( place + i ) & ( chipPorts - 1 );
      struct ChipPort const * const port = bpf_map_lookup_elem( &ports, &at );
      if ( !port || port->flags == 0 ) {
         return 0;
      }
      __u32 const carried = port->flags & chipPortPushesTag ? 0 : port->vlanId;
      if ( port->ifindex == ifindex && carried == vlanId && port->flags & chipPortIsUsed ) {
         return port;
      }
   }
   return 0;
}
