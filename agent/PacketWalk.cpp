#include "agent/PacketWalk.h"

#include "agent/Text.h"

#include <Orla/String.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace Agent {

namespace {

// What a row of any ingress table asks of a packet.
struct Conditions {
   bool leaving;  // by the interface, else entering
   Netix::IntfId intf;
   U32 vrfId;
   U8 protocol;
   bool fragment;
   Netix::IpAndPort const * source;  // null: any
   Netix::IpAndPort const * destination;
};

bool hasConditions( Pfe::IngStaticNatTable::Entry const & entry ) { return entry.aclId != 0 || !entry.filters.empty(); }
bool hasConditions( Pfe::IngTwiceNatTable::Entry const & ) { return false; }

Netix::IntfId intfOf( Orla::String const & name ) {
   return Netix::IntfId::fromName( name.text() ).value_or( Netix::IntfId() );
}

Conditions conditionsOf( Pfe::IngStaticNatTable::Key const & row ) {
   bool const translatesSource = row.target == Ip::Nat::NatTarget::source;
   return { .leaving = translatesSource,
            .intf = intfOf( row.natIntf ),
            .vrfId = row.vrfId,
            .protocol = row.protocol,
            .fragment = row.fragment,
            .source = translatesSource ? &row.ipAndPortOld : nullptr,
            .destination = translatesSource ? nullptr : &row.ipAndPortOld };
}

Conditions conditionsOf( Pfe::IngTwiceNatTable::Key const & row ) {
   return { .leaving = row.forward,
            .intf = row.natIntf,
            .vrfId = row.vrfId,
            .protocol = 0,
            .fragment = row.fragment,
            .source = &row.srcIpAndPortOld,
            .destination = &row.dstIpAndPortOld };
}

// How well a row matches: 0 best; absent: not at all.
std::optional< unsigned > rankOf( Conditions const & row, Packet const & packet ) {
   bool const laterFragment = packet.part == Packet::Part::laterFragment;
   if ( ( row.fragment && !laterFragment ) || ( row.protocol != 0 && row.protocol != packet.protocol ) ||
        row.vrfId != packet.vrfId || row.intf != ( row.leaving ? packet.out : packet.in ) ||
        row.intf == Netix::IntfId() ) {
      return std::nullopt;
   }
   unsigned rank = laterFragment && !row.fragment ? 1 : 0;
   for ( auto const & [ wanted, found ] :
         { std::pair( row.source, &packet.source ), std::pair( row.destination, &packet.destination ) } ) {
      if ( !wanted ) {
         continue;
      }
      if ( wanted->ip != found->ip || ( wanted->port != 0 && ( laterFragment || wanted->port != found->port ) ) ) {
         return std::nullopt;
      }
      rank += !laterFragment && wanted->port == 0;
   }
   return rank;
}

Packet rewritten( Packet packet, Pfe::EgrNatUcRewriteEntry const & rewrite ) {
   auto const write = []( Netix::IpAndPort & pair, Netix::IpAddr ip, U16 port ) {
      pair.ip = ip == Netix::IpAddr() ? pair.ip : ip;
      pair.port = port == 0 ? pair.port : port;
   };
   write( packet.source, rewrite.srcIp, rewrite.srcPort );
   write( packet.destination, rewrite.dstIp, rewrite.dstPort );
   return packet;
}

Packet rewritten( Packet packet, Pfe::EgrNatMcRewriteEntry const & rewrite ) {
   packet.source.ip = rewrite.srcIp == Netix::IpAddr() ? packet.source.ip : rewrite.srcIp;
   packet.destination.ip = rewrite.dstIp == Netix::IpAddr() ? packet.destination.ip : rewrite.dstIp;
   packet.out = Netix::IntfId::fromValue( rewrite.egressIntf ).value_or( packet.out );
   return packet;
}

class Walk {
 public:
   Walk( NatTables const & tables, Packet const & packet ) : tables_( tables ), packet_( packet ) {}

   Passage passage() {
      lookUpIn( *tables_.of< Pfe::IngTwiceNatTable >() );
      if ( matches_.empty() ) {
         lookUpIn( *tables_.of< Pfe::IngStaticNatTable >() );
      }
      if ( matches_.size() == 1 ) {
         matches_.front()->forEach(
            [ & ]( Asic::EntryHandle::PtrConst const & handle, bool ) { addCopies( *handle ); } );
      }
      for ( auto * const rows : { &passage_.matches, &passage_.missing } ) {
         std::ranges::sort( *rows, {}, &IngressRow::key );
      }
      return std::move( passage_ );
   }

 private:
   template< class Table > void lookUpIn( Table const & table ) {
      unsigned best = ~0U;
      table.forEach( [ & ]( auto const & key, auto const & entry, Asic::EntryHandle const & handle ) {
         auto const rank = rankOf( conditionsOf( key ), packet_ );
         if ( !rank ) {
            return;
         }
         if ( !handle.heldByHardware() ) {
            passage_.missing.push_back( { table.name(), key } );
            return;
         }
         if ( *rank < best ) {
            best = *rank;
            matches_.clear();
            passage_.matches.clear();
         }
         if ( *rank == best ) {
            auto const & held = *table.hardwareEntry( key );
            matches_.push_back( &held.egrHdl );
            passage_.matches.push_back( { table.name(), key } );
            passage_.hasConditions = hasConditions( entry );
         }
      } );
   }

   void addCopies( Asic::EntryHandle const & wanted ) {
      tables_.forEachEgress( [ & ]( auto const & table ) {
         table.forEach( [ & ]( auto const & key, auto const &, Asic::EntryHandle const & handle ) {
            if ( auto const * const held = &handle == &wanted ? table.hardwareEntry( key ) : nullptr ) {
               passage_.copies.push_back( { table.name(), fieldsOf( key ), rewritten( packet_, *held ) } );
            }
         } );
      } );
   }

   NatTables const & tables_;
   Packet const & packet_;
   Passage passage_;
   std::vector< Asic::HandleList const * > matches_;
};

}  // namespace

Packet replyTo( Packet const & packet ) {
   Packet reply = packet;
   std::swap( reply.in, reply.out );
   std::swap( reply.source, reply.destination );
   return reply;
}

Passage walk( NatTables const & tables, Packet const & packet ) { return Walk( tables, packet ).passage(); }

}  // namespace Agent
