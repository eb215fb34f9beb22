// What the pipeline and the side that writes its tables have in common: keys, values and counters of the maps. C, and
// C++ too. Addresses and ports stand as in packets, most significant byte first; everything else as the machine has it.
//
// A change here, or in what a field means, is a new chipLayoutVersion: pinned tables of another one are not read.
#pragma once

#include <linux/types.h>

enum {
   chipLayoutVersion = 1,
   chipNatIds = 65536,       // slots of a rewrite table, one per NAT id
   chipPorts = 1024,         // places of the port table, a power of two
   chipPortProbes = 8,       // places in a row at which a port may stand
   chipFilterBlocks = 4096,  // the first is not used
   chipFiltersInBlock = 15,
   chipBlocksInChain = 8,
   chipTraps = 1024,        // of each of two lists: one in use, one being written
   chipCopies = 64,         // of one multicast packet
   chipSecondSlots = 4096,  // rewrites of ids that have one under another qualifier
};

// --- Ingress rows ----------------------------------------------------------------------------------------------------

// A row of a packet's own fields. Interfaces are numbered as Netix::IntfId numbers them. `leaving`: applies to packets
// that leave by the interface, else to those that enter by it. Keys have no gaps and fill whole words of 64 bits.

struct ChipTwiceKey {
   __u32 intf;
   __u32 vrfId;  // 0 in tables that do not tell VRFs apart
   __u32 source;
   __u32 destination;
   __u16 sourcePort;  // 0: any, here and below
   __u16 destinationPort;
   __u8 leaving;
   __u8 fragment;  // matches later fragments alone
   __u16 zero;
};

struct ChipStaticKey {
   __u32 intf;
   __u32 vrfId;
   __u32 ip;  // of the source when leaving, else of the destination
   __u16 port;
   __u8 protocol;  // 0: any
   __u8 leaving : 1;
   __u8 fragment : 1;
   __u8 zero : 6;
};

struct ChipNaptKey {
   __u32 vrfId;
   __u32 source;
   __u32 destination;
   __u16 sourcePort;
   __u16 destinationPort;
   __u16 qualifier;
   __u8 protocol;
   __u8 fragment;
   __u32 zero;
};

struct ChipAddressKey {
   __u32 vrfId;
   __u32 ip;
   __u32 qualifier;
   __u32 zero;
};

enum ChipRewriteTable { chipSourceRewrite, chipDestinationRewrite, chipCopyRewrite };

// Which translation the key stands for. `check` binds key, row and the rewrite's generation together: what a reader
// puts together out of a row that is being replaced, or finds after the id was given to another translation, fails it.
struct ChipRow {
   __u32 check;
   __u16 natId;
   __u16 qualifier;
   __u32 nextHopId;
   __u16 filters;       // first block; 0: none
   __u8 rewriteTable;   // ChipRewriteTable
   __u8 inSecondTable;  // its id has a slot under another qualifier
};

// Which shapes of wildcards a port's rows have: one bit per look-up, best first. A packet meets one look-up per bit.
enum ChipShape {
   chipTwiceExact,
   chipTwiceAnyDestinationPort,
   chipTwiceAnySourcePort,
   chipTwiceAnyPorts,
   chipTwiceFragment,
   chipStaticExact,
   chipStaticAnyProtocol,
   chipStaticAnyPort,
   chipStaticAnyPortAnyProtocol,
   chipStaticFragment,
   chipStaticFragmentAnyProtocol,
   chipNaptExact,
   chipNaptAnyProtocol,  // the even shapes' twins
   chipNaptAnyDestinationPort,
   chipNaptAnyDestinationPortAnyProtocol,
   chipNaptAnySourcePort,
   chipNaptAnySourcePortAnyProtocol,
   chipNaptAnyPorts,
   chipNaptAnyPortsAnyProtocol,
   chipNaptFragment,
   chipNaptFragmentAnyProtocol,
   chipAddressOnly,
   chipShapes
};

// --- Rewrites --------------------------------------------------------------------------------------------------------

// What is written into the packet; a field of 0 leaves the packet's own.
struct ChipRewrite {
   __u32 source;
   __u32 destination;
   __u16 sourcePort;
   __u16 destinationPort;
   __u16 qualifier;
   __u16 generation;  // odd while the slot is in use; one more with each rewrite that comes or goes
};

// One NAT id's rewrite and what was counted of it: one line of the cache. Of the two versions the one numbered by the
// lowest bit of `sequence` holds; the writer fills the other, then adds one. A reader whose sequence has changed
// meanwhile reads again. A writer that dies leaves a rewrite whole.
struct ChipSlot {
   __u32 sequence;
   __u32 zero;
   struct ChipRewrite version[ 2 ];
   __u64 packets;
   __u64 bytes;
   __u64 lastPacket;  // nanoseconds since boot; 0: none yet
};

// Of the slots beside the rewrite tables.
struct ChipSecondKey {
   __u16 natId;
   __u16 qualifier;
   __u32 rewriteTable;
};

struct ChipCopyKey {
   __u16 natId;
   __u16 replication;
};

struct ChipCopy {
   __u32 check;  // binds key and value
   __u32 source;
   __u32 destination;
   __u32 intf;  // that the copy leaves by; 0: the packet's own
};

// The replications of a NAT id, in order.
struct ChipCopyList {
   __u32 check;  // binds id, count and numbers
   __u16 count;
   __u16 replication[ chipCopies + 1 ];
};

// --- Beside the tables -----------------------------------------------------------------------------------------------

enum {
   chipPortIsUsed = 1,
   chipPortWasUsed = 8,      // others may stand behind this place
   chipPortPushesTag = 2,    // what leaves untagged gets the port's tag; nothing enters by this entry
   chipPortTakesFrames = 4,  // XDP may send out of the device
};

struct ChipPort {
   __u32 ifindex;
   __u16 vlanId;  // that frames carry; of one that pushes: 0 in the place's key
   __u16 flags;
   __u32 intf;
   __u32 vrfId;
   __u32 qualifier;
   __u32 hasQualifier;  // else dynamic rows do not apply
   __u32 entering;      // shapes of rows, bits by ChipShape
   __u32 leaving;
   __u8 mac[ 6 ];
   __u16 zero;
   __u32 more[ 6 ];
};

struct ChipFilter {
   __u32 source;
   __u32 sourceMask;
   __u32 destination;
   __u32 destinationMask;
   __u16 sourcePort;  // 0: any
   __u16 destinationPort;
};

// A row with filters applies to packets that one of them matches.
struct ChipFilterBlock {
   __u16 count;
   __u16 next;  // 0: none
   struct ChipFilter filter[ chipFiltersInBlock ];
};

struct ChipTrap {
   __u32 vrfId;
   __u32 source;
   __u32 sourceMask;
   __u32 destination;
   __u32 destinationMask;
   __u16 sourcePort;
   __u16 sourcePortMask;
   __u16 destinationPort;
   __u16 destinationPortMask;
   __u8 protocol;
   __u8 protocolMask;
   __u8 traps;  // else the packets are spared
   __u8 zero;
};

struct ChipSettings {
   __u32 vrfLess;   // twice and dynamic rows apply in every VRF
   __u32 trapList;  // count, and in the highest bit which of the two lists
   __u32 leaving;   // shapes of all ports' rows
   // Another one tracks the connections of dynamic rows: what changes their state goes past these rows to the kernel.
   __u32 statesElsewhere;
   __u64 dynamicUntil;  // nanoseconds since boot; dynamic rows do not apply from then on; 0: for ever
   __u64 lastWrite;     // of a row; nanoseconds since the Unix epoch
};

// Who made the pins. Written last when they are made, so that without it they are half made.
struct ChipMarker {
   __u32 layoutVersion;
   __u32 rows;
   __u64 programs;  // hash of their code
   char store[ 240 ];
};

enum ChipCounter {
   chipTwicePackets,
   chipStaticPackets,
   chipSnaptPackets,
   chipDnaptPackets,
   chipSnatAddressPackets,
   chipDnatAddressPackets,
   chipCopiesSent,
   chipMissed,          // no row applies; the packet went on as it was
   chipTrapped,         // of them, those that a trap sends to the kernel to learn from
   chipErrorsPassed,    // ICMP errors about translated packets
   chipForwarded,       // sent out by XDP
   chipDropChanged,     // the row was being replaced, twice
   chipDropUnwritable,  // the kernel did not let the packet be changed
   chipDropNoCopies,    // a multicast row without one that could be sent
   chipDropNoPort,      // a copy for an interface that is no port
   chipCounters
};

struct ChipCount {
   __u64 packets;
   __u64 bytes;
};

// --- Checks ----------------------------------------------------------------------------------------------------------

static inline __attribute__( ( always_inline ) ) __u64 chipMix( __u64 hash, __u64 word ) {
   hash = ( hash ^ word ) * 0x9E3779B97F4A7C15ULL;
   return hash ^ ( hash >> 32 );
}

// Of a key, `words` of 64 bits.
static inline __attribute__( ( always_inline ) ) __u64 chipHashOf( void const * key, unsigned words ) {
   __u64 const * word = (__u64 const *)key;
   __u64 hash = 0;
   for ( unsigned i = 0; i < words; ++i ) {
      hash = chipMix( hash, word[ i ] );
   }
   return hash;
}

static inline __attribute__( ( always_inline ) ) __u32 chipCheckOf( __u64 keyHash, struct ChipRow const * row,
                                                                    __u16 generation ) {
   __u64 hash = chipMix( keyHash, row->natId | (__u64)row->qualifier << 16 | (__u64)row->nextHopId << 32 );
   hash = chipMix( hash, row->filters | (__u64)row->rewriteTable << 16 | (__u64)row->inSecondTable << 24 |
                            (__u64)generation << 32 );
   return (__u32)hash;
}

static inline __attribute__( ( always_inline ) ) __u32 chipCopyCheckOf( struct ChipCopyKey const * key,
                                                                        struct ChipCopy const * copy ) {
   __u64 hash = chipMix( 0, key->natId | (__u64)key->replication << 16 | (__u64)copy->intf << 32 );
   return (__u32)chipMix( hash, copy->source | (__u64)copy->destination << 32 );
}

static inline __attribute__( ( always_inline ) ) __u32 chipListCheckOf( __u32 natId,
                                                                        struct ChipCopyList const * list ) {
   __u64 hash = chipMix( natId, list->count );
   for ( unsigned i = 0; i < chipCopies && i < list->count; ++i ) {
      hash = chipMix( hash, list->replication[ i ] );
   }
   return (__u32)hash;
}

static inline __attribute__( ( always_inline ) ) __u32 chipPortPlace( __u32 ifindex, __u32 vlanId ) {
   return ( ifindex * 0x9E3779B1U + vlanId * 0x85EBCA6BU ) >> 22;  // 10 bits
}
