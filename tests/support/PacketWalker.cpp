#include <tests/support/PacketWalker.h>

#include <Asic/SwTableBase.h>

#include <unordered_map>

namespace Support {

using Ip::Nat::NatTarget;
using IngressKey = Pfe::IngStaticNatTable::Key;

namespace {

struct Rewrite {
   Netix::IpAndPort source;
   Netix::IpAndPort destination;
   std::optional< Netix::IntfId > egressIntf;
};

using Rewrites = std::unordered_map< Asic::EntryHandle const *, Rewrite >;

void applyNonZero( Netix::IpAndPort const & rewrite, Netix::IpAndPort & field ) {
   field.ip = rewrite.ip.value() != 0 ? rewrite.ip : field.ip;
   field.port = rewrite.port != 0 ? rewrite.port : field.port;
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
         Netix::IntfId out;
         for ( auto const * const name : { "ethernet7", "ethernet8", "ethernet9" } ) {
            out = intf( name ).value() == held->egressIntf ? intf( name ) : out;
         }
         rewrites[ &handle ] = { { held->srcIp, 0 }, { held->dstIp, 0 }, out };
      }
   } );
   return rewrites;
}

// How well a row matches; 0: not at all.
int quality( IngressKey const & row, NatTarget side, Packet const & packet ) {
   bool const isSource = side == NatTarget::source;
   auto const & pair = isSource ? packet.source : packet.destination;
   bool const isLater = packet.part == Packet::Part::laterFragment;
   if ( row.target != side || row.natIntf != ( isSource ? packet.outIntf : packet.inIntf ).name() ||
        row.vrfId != packet.vrfId || ( row.protocol != 0 && row.protocol != packet.protocol ) ||
        row.ipAndPortOld.ip != pair.ip ) {
      return 0;
   }
   if ( isLater ) {
      return row.fragment ? 2 : row.ipAndPortOld.port == 0 ? 1 : 0;
   }
   if ( row.fragment ) {
      return 0;
   }
   return row.ipAndPortOld.port == 0 ? 1 : row.ipAndPortOld.port == pair.port ? 2 : 0;
}

void translate( Tables const & tables, Rewrites const & rewrites, NatTarget side, Walked & walked ) {
   std::vector< Packet > leaving;
   for ( auto const & packet : walked.packets ) {
      int best = 0;
      unsigned equals = 0;
      Pfe::IngStaticNatEntry const * chosen = nullptr;
      tables.ingress->forEach( [ & ]( IngressKey const & key, auto const &, Asic::EntryHandle const & ) {
         auto const * const held = tables.ingress->hardwareEntry( key );
         int const matches = held ? quality( key, side, packet ) : 0;
         if ( matches > best ) {
            best = matches;
            chosen = held;
            equals = 0;
         }
         equals += matches != 0 && matches == best;
      } );
      walked.ambiguous = walked.ambiguous || equals > 1;
      if ( !chosen ) {
         leaving.push_back( packet );
         continue;
      }
      walked.matched = true;
      chosen->egrHdl.forEach( [ & ]( Asic::EntryHandle::PtrConst const & handle, bool ) {
         auto const & rewrite = rewrites.at( handle.ptr() );
         auto & copy = leaving.emplace_back( packet );
         applyNonZero( rewrite.source, copy.source );
         applyNonZero( rewrite.destination, copy.destination );
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
