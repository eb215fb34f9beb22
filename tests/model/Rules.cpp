#include "Rules.h"

#include <Pfe/NatNextHop.h>

#include <utility>

namespace Model {

using Ip::Nat::NatTarget;
using Netix::IpAndPort;
using Support::DynamicRule;
using Support::StaticRule;
using Support::TwiceRule;

namespace {

template< class... Functions > struct Overloaded : Functions... {
   using Functions::operator()...;
};
template< class... Functions > Overloaded( Functions... ) -> Overloaded< Functions... >;

IpAndPort withoutPort( IpAndPort const & pair ) { return { pair.ip, 0 }; }

Rewrite withoutPorts( Rewrite const & rewrite ) {
   return { withoutPort( rewrite.source ), withoutPort( rewrite.destination ), rewrite.egressIntf };
}

U32 nextHopIdOf( Pfe::NatNextHopInfo::PtrConst const & nextHop ) {
   auto const * const withId = dynamic_cast< Pfe::NatNextHopId const * >( nextHop.ptr() );
   return withId ? withId->id() : 0;
}

RewriteTable tableOf( bool multicast, bool isSource ) {
   return multicast ? RewriteTable::copies : isSource ? RewriteTable::source : RewriteTable::destination;
}

// Copies of multicast are rewritten by address alone.
Rewrite rewriteOf( bool multicast, Rewrite const & rewrite ) { return multicast ? withoutPorts( rewrite ) : rewrite; }

std::vector< Direction > directionsOf( StaticRule const & rule, Chip const & ) {
   auto const & connection = rule.entry->connection();
   bool const multicast = isMulticast( AnyRule( rule ) );
   IpAndPort const keyPair{ rule.key.key.ip, rule.key.key.port };
   auto const direction = [ & ]( IpAndPort const & from, IpAndPort const & to, NatTarget target ) {
      bool const isSource = target == NatTarget::source;
      Pfe::IngStaticNatTable::Key const key{ .natIntf = Orla::String( Vexa::stringOf( rule.key.natIntf ) ),
                                             .vrfId = rule.entry->vrfId(),
                                             .ipAndPortOld = from,
                                             .ipAndPortNew = to,
                                             .target = target,
                                             .protocol = connection.protocol,
                                             .mcast = multicast };
      auto twin = key;
      twin.ipAndPortOld.port = twin.ipAndPortNew.port = 0;
      twin.fragment = true;
      auto const rewrite = rewriteOf( multicast, isSource ? Rewrite{ to, {} } : Rewrite{ {}, to } );
      Direction result{ .key = key,
                        .twin = from.port != 0 ? Direction::Twin::held : Direction::Twin::none,
                        .twinKey = twin,
                        .table = tableOf( multicast, isSource ),
                        .rewrite = rewrite,
                        .twinRewrite = withoutPorts( rewrite ),
                        .qualifier = rule.entry->intfQualifier(),
                        .carried = { nextHopIdOf( rule.entry->nextHop() ), 0, {} },
                        .aclName = rule.entry->aclName() };
      if ( !rule.entry->filtersDisabled() ) {
         for ( auto const & [ sequence, filter ] : rule.entry->filters() ) {
            result.carried.filters.push_back( filter );
         }
      }
      return result;
   };
   std::vector< Direction > directions{ direction( keyPair, connection.translated, connection.target ) };
   if ( !multicast ) {
      directions.push_back(
         direction( connection.translated, keyPair,
                    connection.target == NatTarget::source ? NatTarget::destination : NatTarget::source ) );
   }
   return directions;
}

std::vector< Direction > directionsOf( TwiceRule const & rule, Chip const & chip ) {
   auto const & [ source, destination, translatedSource, translatedDestination ] = rule.entry->connection();
   bool const multicast = isMulticast( AnyRule( rule ) );
   auto const direction = [ & ]( Rewrite const & from, Rewrite const & to, bool forward ) {
      Pfe::IngTwiceNatTable::Key const key{ .natIntf = rule.key.natIntf,
                                            .vrfId = chip.vrfLess ? 0 : rule.entry->vrfId(),
                                            .srcIpAndPortOld = from.source,
                                            .dstIpAndPortOld = from.destination,
                                            .srcIpAndPortNew = to.source,
                                            .dstIpAndPortNew = to.destination,
                                            .forward = forward,
                                            .mcast = multicast };
      auto twin = key;
      twin.srcIpAndPortOld.port = twin.dstIpAndPortOld.port = 0;
      twin.srcIpAndPortNew.port = twin.dstIpAndPortNew.port = 0;
      twin.fragment = true;
      bool const hasPort = from.source.port != 0 || from.destination.port != 0;
      return Direction{ .key = key,
                        .twin = hasPort ? Direction::Twin::held : Direction::Twin::none,
                        .twinKey = twin,
                        .table = tableOf( multicast, forward ),
                        .rewrite = rewriteOf( multicast, to ),
                        .twinRewrite = withoutPorts( to ),
                        .qualifier = rule.entry->intfQualifier(),
                        .carried = { nextHopIdOf( rule.entry->nextHop() ), 0, {} },
                        .aclName = {} };
   };
   Rewrite const before{ source, destination }, after{ translatedSource, translatedDestination };
   std::vector< Direction > directions{ direction( before, after, true ) };
   if ( !multicast ) {
      directions.push_back( direction( { after.destination, after.source }, { destination, source }, false ) );
   }
   return directions;
}

// The hosts of a learned connection: who is translated, to what, and whom it talks to.
struct Flow {
   IpAndPort inside, outside, peer;
};

Flow flowOf( DynamicRule const & rule ) {
   auto const & conn = rule.key.conn;
   return rule.entry->connection().target == NatTarget::source
             ? Flow{ conn.source, rule.entry->global(), conn.destination }
             : Flow{ rule.entry->global(), conn.destination, conn.source };
}

std::vector< Direction > directionsOf( DynamicRule const & rule, Chip const & chip ) {
   auto const & connection = rule.entry->connection();
   if ( connection.fullCone && !chip.fullConeProgrammed ) {
      return {};
   }
   auto const [ inside, outside, peer ] = flowOf( rule );
   auto const conn = rule.key.conn;
   Netix::VrfId const vrfId( chip.vrfLess ? 0 : rule.entry->vrfId() );
   auto const qualifier = rule.entry->intfQualifier();
   auto const direction = [ & ]( auto const & key, auto const & twinKey, Direction::Twin twin, bool isSource ) {
      auto const rewrite = isSource ? Rewrite{ outside, {} } : Rewrite{ {}, inside };
      return Direction{ .key = key,
                        .twin = twin,
                        .twinKey = twinKey,
                        .table = tableOf( false, isSource ),
                        .rewrite = rewrite,
                        .twinRewrite = rewrite,
                        .qualifier = qualifier,
                        .carried = { isSource ? 0 : nextHopIdOf( rule.entry->nextHop() ), 0, {} },
                        .aclName = {} };
   };
   if ( connection.addrOnly ) {
      Pfe::IngDynamicSnatAddrOnlyTable::Key const snat{ vrfId, qualifier, inside.ip };
      Pfe::IngDynamicDnatAddrOnlyTable::Key const dnat{ vrfId, qualifier, outside.ip };
      return { direction( snat, snat, Direction::Twin::none, true ),
               direction( dnat, dnat, Direction::Twin::none, false ) };
   }
   auto const napt = [ & ]< class Key >( Key key, IpAndPort const & from, IpAndPort const & to, bool isSource ) {
      bool const l4Detected = conn.protocol == 17;
      key = { vrfId, qualifier, from.ip, from.port, to.ip, to.port, conn.protocol, 0, l4Detected };
      auto twin = key;
      twin.firstPort = twin.secondPort = 0;
      twin.fragment = 1;
      bool const hasPort = from.port != 0 || to.port != 0;
      return direction( key, twin, hasPort ? Direction::Twin::held : Direction::Twin::unheld, isSource );
   };
   return { napt( Pfe::IngDynamicSnaptTable::Key(), inside, peer, true ),
            napt( Pfe::IngDynamicDnaptTable::Key(), peer, outside, false ) };
}

}  // namespace

bool isMulticast( AnyRule const & rule ) {
   return std::visit( Overloaded{ []( StaticRule const & r ) {
                                    return r.key.key.ip.isMulticast() ||
                                           r.entry->connection().translated.ip.isMulticast();
                                 },
                                  []( TwiceRule const & r ) {
                                     auto const & c = r.entry->connection();
                                     return c.source.ip.isMulticast() || c.destination.ip.isMulticast() ||
                                            c.translatedSource.ip.isMulticast() ||
                                            c.translatedDestination.ip.isMulticast();
                                  },
                                  []( DynamicRule const & ) { return false; } },
                      rule );
}

bool isOutOfRange( AnyRule const & rule, Chip const & chip ) {
   auto const * const dynamic = std::get_if< DynamicRule >( &rule );
   bool const programmed = dynamic && ( !dynamic->entry->connection().fullCone || chip.fullConeProgrammed );
   return programmed && !chip.vrfLess && dynamic->entry->vrfId() > 0x00ffffff;
}

std::vector< Direction > directionsOf( AnyRule const & rule, Chip const & chip ) {
   return isOutOfRange( rule, chip ) ? std::vector< Direction >()
                                     : std::visit( [ & ]( auto const & r ) { return directionsOf( r, chip ); }, rule );
}

Pfe::NatMatchKey matchKeyOf( IngressKey const & key ) {
   return std::visit(
      Overloaded{
         []( Pfe::IngStaticNatTable::Key const & k ) -> Pfe::NatMatchKey {
            return Pfe::StaticNatMatchKey{ k.natIntf, k.vrfId, k.ipAndPortOld, k.target, k.protocol };
         },
         []( Pfe::IngTwiceNatTable::Key const & k ) -> Pfe::NatMatchKey {
            return Pfe::TwiceNatMatchKey{ k.natIntf, k.vrfId, k.srcIpAndPortOld, k.dstIpAndPortOld, k.forward };
         },
         []< class Tag >( Pfe::IngDynamicNaptKey< Tag > const & k ) -> Pfe::NatMatchKey {
            return Pfe::DynamicNatMatchKey{
               k.vrfId, { k.firstIp, k.firstPort }, { k.secondIp, k.secondPort }, k.protocol };
         },
         []< class Tag >( Pfe::IngDynamicAddrOnlyKey< Tag > const & k ) -> Pfe::NatMatchKey {
            return Pfe::DynamicNatMatchKey{ k.vrfId, { k.ip, 0 }, {}, 0 };
         } },
      key.storage() );
}

bool isFragment( IngressKey const & key ) {
   return std::visit(
      []( auto const & k ) {
         if constexpr ( requires { k.fragment; } ) {
            return k.fragment != 0;
         } else {
            return false;
         }
      },
      key.storage() );
}

bool isMulticast( IngressKey const & key ) {
   return std::visit(
      []( auto const & k ) {
         if constexpr ( requires { k.mcast; } ) {
            return k.mcast;
         } else {
            return false;
         }
      },
      key.storage() );
}

// --- Packets ---------------------------------------------------------------------------------------------------------

namespace {

// Of a flow before and after: every field that the rule does not name has this.
constexpr U16 anyPort = 4000;

IpAndPort sentAs( IpAndPort const & pair ) { return { pair.ip, pair.port != 0 ? pair.port : anyPort }; }

IpAndPort rewritten( IpAndPort const & sent, IpAndPort const & to ) {
   return { to.ip, to.port != 0 ? to.port : sent.port };
}

Exchange exchange( Netix::IntfId natIntf, U16 qualifier, U32 vrfId, U8 protocol, bool enters, Rewrite const & before,
                   Rewrite const & after ) {
   Exchange result;
   auto & sent = result.sent;
   ( enters ? sent.in : sent.out ) = natIntf;
   ( enters ? sent.out : sent.in ) = Support::intf( "ethernet99" );
   result.interfaces.qualifiers.emplace( natIntf, qualifier );
   sent.vrfId = vrfId;
   sent.protocol = protocol != 0 ? protocol : 6;
   sent.source = sentAs( before.source );
   sent.destination = sentAs( before.destination );
   auto & received = result.received.emplace_back( sent );
   received.source = rewritten( sent.source, after.source );
   received.destination = rewritten( sent.destination, after.destination );
   // With a port only after the translation, replies do not tell which one they are for.
   result.portsComeBack = ( before.source.port != 0 || after.source.port == 0 ) &&
                          ( before.destination.port != 0 || after.destination.port == 0 );
   return result;
}

Exchange exchangeOf( StaticRule const & rule, Chip const & ) {
   auto const & connection = rule.entry->connection();
   IpAndPort const keyPair{ rule.key.key.ip, rule.key.key.port };
   IpAndPort const peer = Support::pair( "203.0.113.99:443" );
   bool const isSource = connection.target == NatTarget::source;
   return exchange( rule.key.natIntf, rule.entry->intfQualifier(), rule.entry->vrfId(), connection.protocol, !isSource,
                    isSource ? Rewrite{ keyPair, peer } : Rewrite{ peer, keyPair },
                    isSource ? Rewrite{ connection.translated, peer } : Rewrite{ peer, connection.translated } );
}

Exchange exchangeOf( TwiceRule const & rule, Chip const & chip ) {
   auto const & [ source, destination, translatedSource, translatedDestination ] = rule.entry->connection();
   return exchange( rule.key.natIntf, rule.entry->intfQualifier(), chip.vrfLess ? 0 : rule.entry->vrfId(), 6, false,
                    { source, destination }, { translatedSource, translatedDestination } );
}

Exchange exchangeOf( DynamicRule const & rule, Chip const & chip ) {
   auto const & conn = rule.key.conn;
   bool const isSource = rule.entry->connection().target == NatTarget::source;
   auto const & global = rule.entry->global();
   return exchange( rule.key.natIntf, rule.entry->intfQualifier(), chip.vrfLess ? 0 : rule.entry->vrfId(),
                    conn.protocol, !isSource, { conn.source, conn.destination },
                    isSource ? Rewrite{ global, conn.destination } : Rewrite{ conn.source, global } );
}

}  // namespace

Exchange exchangeOf( AnyRule const & rule, Chip const & chip ) {
   auto result = std::visit( [ & ]( auto const & r ) { return exchangeOf( r, chip ); }, rule );
   result.interfaces.vrfLess = chip.vrfLess;
   if ( isMulticast( rule ) ) {
      // Every copy leaves by an interface of its own, with its ports as they were.
      auto const translated = result.received[ 0 ];
      result.received.clear();
      for ( auto const & name : Support::McastHook().egressIntfs ) {
         auto & copy = result.received.emplace_back( translated );
         copy.source.port = result.sent.source.port;
         copy.destination.port = result.sent.destination.port;
         copy.out = Support::intf( name );
      }
   }
   return result;
}

}  // namespace Model
