#include <tests/support/PacketWalker.h>

#include <Asic/SwTableBase.h>

#include <optional>
#include <unordered_map>

namespace Support {

using Ip::Nat::NatTarget;

namespace {

struct Rewrite {
   Netix::IpAndPort source;
   Netix::IpAndPort destination;
   std::optional< Netix::IntfId > egressIntf;
};

using Rewrites = std::unordered_map< Asic::EntryHandle const *, Rewrite >;

void applyNonZero( Netix::IpAndPort const & rewrite, Netix::IpAndPort & field, bool hasPorts ) {
   field.ip = rewrite.ip.value() != 0 ? rewrite.ip : field.ip;
   field.port = hasPorts && rewrite.port != 0 ? rewrite.port : field.port;
}

Rewrites rewritesInHardware( Tables const & tables ) {
   Rewrites rewrites;
   auto const unicast = [ & ]( auto const & table ) {
      table.forEach( [ & ]( auto const & key, auto const &, Asic::EntryHandle const & handle ) {
         if ( auto const * const held = table.hardwareEntry( key ) ) {
            rewrites[ &handle ] = { { held->srcIp, held->srcPort }, { held->dstIp, held->dstPort }, std::nullopt };
         }
      } );
   };
   unicast( *tables.source );
   unicast( *tables.destination );
   tables.multicast->forEach( [ & ]( auto const & key, auto const &, Asic::EntryHandle const & handle ) {
      if ( auto const * const held = tables.multicast->hardwareEntry( key ) ) {
         rewrites[ &handle ] = {
            { held->srcIp, 0 }, { held->dstIp, 0 }, Netix::IntfId::fromValue( held->egressIntf ).value() };
      }
   } );
   return rewrites;
}

// --- How well a row matches; 0: not at all ---------------------------------------------------------------------------

// Where a packet is on its way; there it meets the rows of one side.
struct Place {
   NatTarget side;
   Netix::IntfId intf;
   U16 qualifier;
};

// Of a port that the row names and one that the packet has.
std::optional< int > portQuality( U16 row, U16 packet ) {
   return row == packet && row != 0 ? std::optional( 1 ) : row == 0 ? std::optional( 0 ) : std::nullopt;
}

// `rowPorts` pairs the row's ports with those of the packet.
int qualityOfPorts( bool ofFragments, Packet const & packet, std::initializer_list< std::pair< U16, U16 > > rowPorts ) {
   bool const isLater = packet.part == Packet::Part::laterFragment;
   int quality = 1;
   for ( auto const & [ row, own ] : rowPorts ) {
      auto const one = portQuality( row, isLater ? U16{ 0 } : own );
      if ( !one ) {
         return 0;
      }
      quality += *one;
   }
   return ofFragments ? ( isLater ? 2 : 0 ) : quality;
}

bool matchesProtocol( U8 row, Packet const & packet ) { return row == 0 || row == packet.protocol; }

int quality( Pfe::IngStaticNatTable::Key const & row, Place const & place, Packet const & packet ) {
   auto const & pair = place.side == NatTarget::source ? packet.source : packet.destination;
   bool const applies = row.target == place.side && row.natIntf == place.intf.name() && row.vrfId == packet.vrfId &&
                        matchesProtocol( row.protocol, packet ) && row.ipAndPortOld.ip == pair.ip;
   return applies ? qualityOfPorts( row.fragment, packet, { { row.ipAndPortOld.port, pair.port } } ) : 0;
}

int quality( Pfe::IngTwiceNatTable::Key const & row, Place const & place, Packet const & packet ) {
   bool const applies = row.forward == ( place.side == NatTarget::source ) && row.natIntf == place.intf &&
                        row.vrfId == packet.vrfId && row.srcIpAndPortOld.ip == packet.source.ip &&
                        row.dstIpAndPortOld.ip == packet.destination.ip;
   return applies ? qualityOfPorts( row.fragment, packet,
                                    { { row.srcIpAndPortOld.port, packet.source.port },
                                      { row.dstIpAndPortOld.port, packet.destination.port } } )
                  : 0;
}

template< class Tag >
int quality( Pfe::IngDynamicNaptKey< Tag > const & row, Place const & place, Packet const & packet ) {
   constexpr auto side =
      std::is_same_v< Tag, Pfe::IngDynamicSnaptTableTraits > ? NatTarget::source : NatTarget::destination;
   bool const applies = side == place.side && row.intfQualifier == place.qualifier &&
                        row.vrfId.value() == packet.vrfId && matchesProtocol( row.protocol, packet ) &&
                        row.firstIp == packet.source.ip && row.secondIp == packet.destination.ip;
   return applies
             ? qualityOfPorts( row.fragment != 0, packet,
                               { { row.firstPort, packet.source.port }, { row.secondPort, packet.destination.port } } )
             : 0;
}

template< class Tag >
int quality( Pfe::IngDynamicAddrOnlyKey< Tag > const & row, Place const & place, Packet const & packet ) {
   constexpr bool isSource = std::is_same_v< Tag, Pfe::IngDynamicSnatAddrOnlyTableTraits >;
   return isSource == ( place.side == NatTarget::source ) && row.intfQualifier == place.qualifier &&
          row.vrfId.value() == packet.vrfId && row.ip == ( isSource ? packet.source : packet.destination ).ip;
}

// --- The walk --------------------------------------------------------------------------------------------------------

// The row that matches best.
struct Best {
   int quality = 0;
   unsigned equals = 0;
   Pfe::IngNatTableKey key;
   Asic::ReferringEntry const * entry = nullptr;

   template< class Table > void look( Table const & table, Place const & place, Packet const & packet ) {
      table.forEach( [ & ]( auto const & row, auto const &, Asic::EntryHandle const & ) {
         int const matches = Support::quality( row, place, packet );
         auto const * const held = matches != 0 ? table.hardwareEntry( row ) : nullptr;
         if ( held && matches > quality ) {
            *this = { matches, 0, row, held };
         }
         equals += held && matches == quality;
      } );
   }
};

Best bestRow( Tables const & tables, Place const & place, Packet const & packet ) {
   Best twice, configured, napt, addrOnly;
   twice.look( *tables.twice, place, packet );
   configured.look( *tables.ingress, place, packet );
   napt.look( *tables.snapt, place, packet );
   napt.look( *tables.dnapt, place, packet );
   addrOnly.look( *tables.snat, place, packet );
   addrOnly.look( *tables.dnat, place, packet );
   return twice.entry ? twice : configured.entry ? configured : napt.entry ? napt : addrOnly;
}

void translate( Tables const & tables, Rewrites const & rewrites, NatTarget side, Walked & walked ) {
   std::vector< Packet > leaving;
   for ( auto const & packet : walked.packets ) {
      bool const leaves = side == NatTarget::source;
      Place const place{ side, leaves ? packet.outIntf : packet.inIntf,
                         leaves ? packet.outQualifier : packet.inQualifier };
      auto const best = bestRow( tables, place, packet );
      walked.ambiguous = walked.ambiguous || best.equals > 1;
      if ( !best.entry ) {
         leaving.push_back( packet );
         continue;
      }
      walked.rows.push_back( best.key );
      best.entry->egrHdl.forEach( [ & ]( Asic::EntryHandle::PtrConst const & handle, bool ) {
         auto const & rewrite = rewrites.at( handle.ptr() );
         auto & copy = leaving.emplace_back( packet );
         bool const hasPorts = packet.part != Packet::Part::laterFragment;
         applyNonZero( rewrite.source, copy.source, hasPorts );
         applyNonZero( rewrite.destination, copy.destination, hasPorts );
         copy.outIntf = rewrite.egressIntf.value_or( copy.outIntf );
      } );
   }
   walked.packets = std::move( leaving );
}

}  // namespace

std::ostream & operator<<( std::ostream & out, Packet const & packet ) {
   return out << packet.inIntf << " > " << packet.outIntf << " vrf " << packet.vrfId << " proto " << +packet.protocol
              << ' ' << textOf( packet.source ) << " > " << textOf( packet.destination )
              << ( packet.part == Packet::Part::laterFragment ? " later fragment" : "" );
}

Walked walk( Tables const & tables, Packet const & packet ) {
   auto const rewrites = rewritesInHardware( tables );
   Walked walked{ .packets = { packet } };
   translate( tables, rewrites, NatTarget::destination, walked );
   translate( tables, rewrites, NatTarget::source, walked );
   return walked;
}

}  // namespace Support
