// Rows of the software tables as the pipeline looks them up: without what packets do not carry.
#pragma once

#include "chip/bpf/layout.h"

#include <Pfe/IngDynamicNatTables.h>
#include <Pfe/IngStaticNatTable.h>
#include <Pfe/IngTwiceNatTable.h>

#include <arpa/inet.h>

namespace Ebpf {

// Which ports a row concerns, and by which look-up a packet meets it.
struct Shape {
   U64 scope = 0;  // an interface, or a qualifier
   bool leaving = false;
   U8 number = chipShapes;  // ChipShape; chipShapes: no packet meets it
};

inline U64 scopeOfInterface( U32 intf ) { return intf; }
inline U64 scopeOfQualifier( U32 qualifier ) { return U64{ 1 } << 32 | qualifier; }

inline U32 inPacket( Netix::IpAddr ip ) { return htonl( ip.value() ); }

// --- Twice -----------------------------------------------------------------------------------------------------------

inline ChipTwiceKey chipKeyOf( Pfe::IngTwiceNatTable::Key const & key, bool vrfLess ) {
   return { .intf = key.natIntf.value(),
            .vrfId = vrfLess ? 0 : key.vrfId,
            .source = inPacket( key.srcIpAndPortOld.ip ),
            .destination = inPacket( key.dstIpAndPortOld.ip ),
            .sourcePort = htons( key.srcIpAndPortOld.port ),
            .destinationPort = htons( key.dstIpAndPortOld.port ),
            .leaving = key.forward,
            .fragment = key.fragment,
            .zero = 0 };
}

inline Shape shapeOf( ChipTwiceKey const & key ) {
   Shape shape{ scopeOfInterface( key.intf ), key.leaving != 0 };
   bool const anySource = key.sourcePort == 0;
   bool const anyDestination = key.destinationPort == 0;
   if ( key.fragment ) {
      shape.number = anySource && anyDestination ? chipTwiceFragment : chipShapes;
   } else {
      shape.number = static_cast< U8 >( chipTwiceExact + 2 * anySource + anyDestination );
   }
   return shape;
}

// --- Static ----------------------------------------------------------------------------------------------------------

inline ChipStaticKey chipKeyOf( Pfe::IngStaticNatTable::Key const & key, bool /* its VRF is always told apart */ ) {
   // An interface of another kind of name is none of the chip's: the row waits in vain.
   auto const intf = Netix::IntfId::fromName( key.natIntf.text() ).value_or( Netix::IntfId() );
   return { .intf = intf.value(),
            .vrfId = key.vrfId,
            .ip = inPacket( key.ipAndPortOld.ip ),
            .port = htons( key.ipAndPortOld.port ),
            .protocol = key.protocol,
            .leaving = key.target == Ip::Nat::NatTarget::source,
            .fragment = key.fragment,
            .zero = 0 };
}

inline Shape shapeOf( ChipStaticKey const & key ) {
   Shape shape{ scopeOfInterface( key.intf ), key.leaving != 0 };
   bool const anyPort = key.port == 0;
   bool const anyProtocol = key.protocol == 0;
   if ( key.fragment ) {
      shape.number = anyPort ? static_cast< U8 >( chipStaticFragment + anyProtocol ) : U8{ chipShapes };
   } else {
      shape.number = static_cast< U8 >( chipStaticExact + 2 * anyPort + anyProtocol );
   }
   return shape;
}

// --- Dynamic ---------------------------------------------------------------------------------------------------------

template< class Tag > ChipNaptKey chipKeyOf( Pfe::IngDynamicNaptKey< Tag > const & key, bool vrfLess ) {
   return { .vrfId = vrfLess ? 0 : key.vrfId.value(),
            .source = inPacket( key.firstIp ),
            .destination = inPacket( key.secondIp ),
            .sourcePort = htons( key.firstPort ),
            .destinationPort = htons( key.secondPort ),
            .qualifier = key.intfQualifier,
            .protocol = key.protocol,
            .fragment = key.fragment != 0,
            .zero = 0 };
}

inline Shape shapeOf( ChipNaptKey const & key, bool leaving ) {
   Shape shape{ scopeOfQualifier( key.qualifier ), leaving };
   bool const anySource = key.sourcePort == 0;
   bool const anyDestination = key.destinationPort == 0;
   bool const anyProtocol = key.protocol == 0;
   if ( key.fragment ) {
      shape.number =
         anySource && anyDestination ? static_cast< U8 >( chipNaptFragment + anyProtocol ) : U8{ chipShapes };
   } else {
      shape.number = static_cast< U8 >( chipNaptExact + 4 * anySource + 2 * anyDestination + anyProtocol );
   }
   return shape;
}

template< class Tag > ChipAddressKey chipKeyOf( Pfe::IngDynamicAddrOnlyKey< Tag > const & key, bool vrfLess ) {
   return {
      .vrfId = vrfLess ? 0 : key.vrfId.value(), .ip = inPacket( key.ip ), .qualifier = key.intfQualifier, .zero = 0 };
}

inline Shape shapeOf( ChipAddressKey const & key, bool leaving ) {
   return { scopeOfQualifier( key.qualifier ), leaving, chipAddressOnly };
}

// --- Any -------------------------------------------------------------------------------------------------------------

// What the pipeline calls the key and the map of an ingress table.
template< class Table > struct ChipTableOf;
template<> struct ChipTableOf< Pfe::IngTwiceNatTable > {
   using Key = ChipTwiceKey;
   static constexpr char const * map = "twiceRows";
   static constexpr ChipCounter packets = chipTwicePackets;
   static Shape shape( Key const & key ) { return shapeOf( key ); }
};
template<> struct ChipTableOf< Pfe::IngStaticNatTable > {
   using Key = ChipStaticKey;
   static constexpr char const * map = "staticRows";
   static constexpr ChipCounter packets = chipStaticPackets;
   static Shape shape( Key const & key ) { return shapeOf( key ); }
};
template<> struct ChipTableOf< Pfe::IngDynamicSnaptTable > {
   using Key = ChipNaptKey;
   static constexpr char const * map = "snaptRows";
   static constexpr ChipCounter packets = chipSnaptPackets;
   static Shape shape( Key const & key ) { return shapeOf( key, true ); }
};
template<> struct ChipTableOf< Pfe::IngDynamicDnaptTable > {
   using Key = ChipNaptKey;
   static constexpr char const * map = "dnaptRows";
   static constexpr ChipCounter packets = chipDnaptPackets;
   static Shape shape( Key const & key ) { return shapeOf( key, false ); }
};
template<> struct ChipTableOf< Pfe::IngDynamicSnatAddrOnlyTable > {
   using Key = ChipAddressKey;
   static constexpr char const * map = "snatRows";
   static constexpr ChipCounter packets = chipSnatAddressPackets;
   static Shape shape( Key const & key ) { return shapeOf( key, true ); }
};
template<> struct ChipTableOf< Pfe::IngDynamicDnatAddrOnlyTable > {
   using Key = ChipAddressKey;
   static constexpr char const * map = "dnatRows";
   static constexpr ChipCounter packets = chipDnatAddressPackets;
   static Shape shape( Key const & key ) { return shapeOf( key, false ); }
};

template< class Key > U64 hashOf( Key const & key ) {
   static_assert( sizeof( Key ) % sizeof( U64 ) == 0 );
   U64 words[ sizeof( Key ) / sizeof( U64 ) ];
   __builtin_memcpy( words, &key, sizeof key );
   return chipHashOf( words, sizeof( Key ) / sizeof( U64 ) );
}

}  // namespace Ebpf
