#include "agent/configuration/Connection.h"

#include "agent/basics/Text.h"

#include <Pfe/NatConnections.h>

#include <utility>

namespace Agent {

namespace {

using Ip::Nat::NatTarget;
using Netix::IpAndPort;

U32 nextHopOf( Pfe::NatNextHopInfo::PtrConst const & nextHop ) {
   auto const * const id = dynamic_cast< Pfe::NatNextHopId const * >( nextHop.ptr() );
   return id ? id->id() : 0;
}

template< class AnyRule > bool derivesSame( AnyRule const & a, AnyRule const & b ) {
   return a.entry->derivesSameRows( *b.entry ) && nextHopOf( a.entry->nextHop() ) == nextHopOf( b.entry->nextHop() );
}

template< class Key >
Key naptRow( DynamicRule const & rule, Settings const & settings, IpAndPort const & source,
             IpAndPort const & destination ) {
   return { .vrfId = Netix::VrfId( settings.vrfLess ? 0 : rule.entry->vrfId() ),
            .intfQualifier = rule.entry->intfQualifier(),
            .firstIp = source.ip,
            .firstPort = source.port,
            .secondIp = destination.ip,
            .secondPort = destination.port,
            .protocol = rule.key.conn.protocol,
            .fragment = 0,
            .l4Detected = settings.l4Detected[ rule.key.conn.protocol ] };
}

template< class Key > Key addressRow( DynamicRule const & rule, Settings const & settings, Netix::IpAddr ip ) {
   return { .vrfId = Netix::VrfId( settings.vrfLess ? 0 : rule.entry->vrfId() ),
            .intfQualifier = rule.entry->intfQualifier(),
            .ip = ip };
}

// The inside pair, the public one in its place, and the host that they talk to.
struct Parties {
   IpAndPort const & local;
   IpAndPort const & global;
   IpAndPort const & peer;
};

Parties partiesOf( DynamicRule const & rule ) {
   auto const & [ source, destination, protocol ] = rule.key.conn;
   return rule.entry->connection().target == NatTarget::source ? Parties{ source, rule.entry->global(), destination }
                                                               : Parties{ rule.entry->global(), destination, source };
}

ConnectionText describe( StaticRule const & rule ) {
   auto const inside = ingressRowOf( rule, NatTarget::source );
   return { .kind = "static",
            .intf = rule.key.natIntf,
            .target = targetText( rule.entry->connection().target ),
            .protocol = inside.protocol,
            .local = textOf( inside.ipAndPortOld ),
            .global = textOf( inside.ipAndPortNew ),
            .peer = {} };
}

ConnectionText describe( TwiceRule const & rule ) {
   auto const & connection = rule.entry->connection();
   return { .kind = "twice",
            .intf = rule.key.natIntf,
            .target = {},
            .protocol = 0,
            .local = textOf( connection.source ),
            .global = textOf( connection.translatedSource ),
            .peer = textOf( connection.destination ) + " -> " + textOf( connection.translatedDestination ) };
}

ConnectionText describe( DynamicRule const & rule ) {
   auto const & connection = rule.entry->connection();
   auto const parties = partiesOf( rule );
   return { .kind = connection.addrOnly ? ( connection.fullCone ? "address-only full-cone" : "address-only" )
                                        : ( connection.fullCone ? "full-cone" : "dynamic" ),
            .intf = rule.key.natIntf,
            .target = targetText( connection.target ),
            .protocol = rule.key.conn.protocol,
            .local = textOf( parties.local ),
            .global = textOf( parties.global ),
            .peer = textOf( parties.peer ) };
}

void dropPorts( Pfe::IngStaticNatTable::Key & row ) { row.ipAndPortOld.port = row.ipAndPortNew.port = 0; }
void dropPorts( Pfe::IngTwiceNatTable::Key & row ) {
   row.srcIpAndPortOld.port = row.dstIpAndPortOld.port = row.srcIpAndPortNew.port = row.dstIpAndPortNew.port = 0;
}
template< class Tag > void dropPorts( Pfe::IngDynamicNaptKey< Tag > & row ) { row.firstPort = row.secondPort = 0; }

bool hasPorts( Pfe::IngStaticNatTable::Key const & row ) { return row.ipAndPortOld.port != 0; }
bool hasPorts( Pfe::IngTwiceNatTable::Key const & row ) {
   return row.srcIpAndPortOld.port != 0 || row.dstIpAndPortOld.port != 0;
}
template< class Tag > bool hasPorts( Pfe::IngDynamicNaptKey< Tag > const & row ) {
   return row.firstPort != 0 || row.secondPort != 0;
}
template< class Tag > bool hasPorts( Pfe::IngDynamicAddrOnlyKey< Tag > const & ) { return false; }

}  // namespace

bool isMulticast( StaticRule const & rule ) { return Pfe::staticConnectionIsMulticast( rule.key, rule.entry, true ); }

bool isMulticast( TwiceRule const & rule ) { return Pfe::twiceConnectionIsMulticast( rule.key, rule.entry ); }

bool isTranslatedElsewhere( Connection const & connection, Settings const & settings ) {
   auto const * const rule = std::get_if< DynamicRule >( &connection.rule );
   return rule && rule->entry->connection().fullCone && !settings.fullConeProgrammed;
}

Pfe::IngStaticNatTable::Key ingressRowOf( StaticRule const & rule, NatTarget target ) {
   auto const & connection = rule.entry->connection();
   IpAndPort const inKey{ rule.key.key.ip, rule.key.key.port };
   bool const keyIsMatched = target == connection.target;
   return { .natIntf = rule.key.natIntf.name(),
            .vrfId = rule.entry->vrfId(),
            .ipAndPortOld = keyIsMatched ? inKey : connection.translated,
            .ipAndPortNew = keyIsMatched ? connection.translated : inKey,
            .target = target,
            .protocol = connection.protocol,
            .fragment = false,
            .mcast = isMulticast( rule ) };
}

IngressRows ingressRowsOf( StaticRule const & rule, Settings const & ) {
   IngressRows rows;
   for ( auto const target :
         Ip::Nat::getStaticConnectionTargets( rule.entry->connection().target, isMulticast( rule ) ) ) {
      rows.push( ingressRowOf( rule, target ) );
   }
   return rows;
}

IngressRows ingressRowsOf( TwiceRule const & rule, Settings const & settings ) {
   auto const & connection = rule.entry->connection();
   Pfe::IngTwiceNatTable::Key row{ .natIntf = rule.key.natIntf,
                                   .vrfId = settings.vrfLess ? 0 : rule.entry->vrfId(),
                                   .srcIpAndPortOld = connection.source,
                                   .dstIpAndPortOld = connection.destination,
                                   .srcIpAndPortNew = connection.translatedSource,
                                   .dstIpAndPortNew = connection.translatedDestination,
                                   .forward = true,
                                   .fragment = false,
                                   .mcast = isMulticast( rule ) };
   IngressRows rows;
   rows.push( row );
   if ( !row.mcast ) {
      // As a reply meets it.
      std::swap( row.srcIpAndPortOld, row.dstIpAndPortNew );
      std::swap( row.dstIpAndPortOld, row.srcIpAndPortNew );
      row.forward = false;
      rows.push( row );
   }
   return rows;
}

IngressRows ingressRowsOf( DynamicRule const & rule, Settings const & settings ) {
   auto const & connection = rule.entry->connection();
   auto const [ local, global, peer ] = partiesOf( rule );
   Pfe::IngNatTableKey leaving;
   Pfe::IngNatTableKey entering;
   if ( connection.addrOnly ) {
      leaving = addressRow< Pfe::IngDynamicSnatAddrOnlyTable::Key >( rule, settings, local.ip );
      entering = addressRow< Pfe::IngDynamicDnatAddrOnlyTable::Key >( rule, settings, global.ip );
   } else {
      leaving = naptRow< Pfe::IngDynamicSnaptTable::Key >( rule, settings, local, peer );
      entering = naptRow< Pfe::IngDynamicDnaptTable::Key >( rule, settings, peer, global );
   }
   bool const isSource = connection.target == NatTarget::source;
   IngressRows rows;
   rows.push( isSource ? leaving : entering );
   rows.push( isSource ? entering : leaving );
   return rows;
}

IngressRows ingressRowsOf( Connection const & connection, Settings const & settings ) {
   return std::visit( [ & ]( auto const & rule ) { return ingressRowsOf( rule, settings ); }, connection.rule );
}

Pfe::IngNatTableKey fragmentRowOf( Pfe::IngNatTableKey const & row ) {
   return std::visit(
      []( auto key ) -> Pfe::IngNatTableKey {
         if constexpr ( requires { dropPorts( key ); } ) {
            dropPorts( key );
            key.fragment = true;
         }
         return key;
      },
      row.storage() );
}

bool ignoresPorts( Pfe::IngNatTableKey const & row ) {
   return !std::visit( []( auto const & key ) { return hasPorts( key ); }, row.storage() );
}

bool isSame( StaticRule const & a, StaticRule const & b ) {
   return derivesSame( a, b ) && a.entry->aclName() == b.entry->aclName() &&
          a.entry->filtersDisabled() == b.entry->filtersDisabled() && a.entry->filters() == b.entry->filters();
}
bool isSame( TwiceRule const & a, TwiceRule const & b ) { return derivesSame( a, b ); }
bool isSame( DynamicRule const & a, DynamicRule const & b ) { return derivesSame( a, b ); }

ConnectionText textOf( Connection const & connection ) {
   return std::visit( []( auto const & rule ) { return describe( rule ); }, connection.rule );
}

}  // namespace Agent
