#include "agent/packets/PacketWalk.h"

#include "agent/basics/Text.h"

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
   std::optional< U16 > qualifier;  // of the interface, where rows know it by that
   std::optional< U32 > vrfId;      // absent: any
   U8 protocol = 0;
   bool fragment = false;
   std::optional< Netix::IpAndPort > source = {};  // absent: any
   std::optional< Netix::IpAndPort > destination = {};
};

bool hasConditions( Pfe::IngStaticNatTable::Entry const & entry ) { return entry.aclId != 0 || !entry.filters.empty(); }
bool hasConditions( Asic::ReferringEntry const & ) { return false; }

Netix::IntfId intfOf( Orla::String const & name ) {
   return Netix::IntfId::fromName( name.text() ).value_or( Netix::IntfId() );
}

Conditions conditionsOf( Pfe::IngStaticNatTable::Key const & row, bool ) {
   Conditions conditions{ .leaving = row.target == Ip::Nat::NatTarget::source,
                          .intf = intfOf( row.natIntf ),
                          .qualifier = {},
                          .vrfId = row.vrfId,
                          .protocol = row.protocol,
                          .fragment = row.fragment };
   ( conditions.leaving ? conditions.source : conditions.destination ) = row.ipAndPortOld;
   return conditions;
}

std::optional< U32 > vrfOf( U32 vrfId, bool vrfLess ) { return vrfLess ? std::nullopt : std::optional( vrfId ); }

Conditions conditionsOf( Pfe::IngTwiceNatTable::Key const & row, bool vrfLess ) {
   return { .leaving = row.forward,
            .intf = row.natIntf,
            .qualifier = {},
            .vrfId = vrfOf( row.vrfId, vrfLess ),
            .fragment = row.fragment,
            .source = row.srcIpAndPortOld,
            .destination = row.dstIpAndPortOld };
}

template< class Tag > constexpr bool translatesSource = false;
template<> constexpr bool translatesSource< Pfe::IngDynamicSnaptTableTraits > = true;
template<> constexpr bool translatesSource< Pfe::IngDynamicSnatAddrOnlyTableTraits > = true;

template< class Tag > Conditions conditionsOf( Pfe::IngDynamicNaptKey< Tag > const & row, bool vrfLess ) {
   return { .leaving = translatesSource< Tag >,
            .intf = {},
            .qualifier = row.intfQualifier,
            .vrfId = vrfOf( row.vrfId.value(), vrfLess ),
            .protocol = row.protocol,
            .fragment = row.fragment != 0,
            .source = Netix::IpAndPort{ row.firstIp, row.firstPort },
            .destination = Netix::IpAndPort{ row.secondIp, row.secondPort } };
}

template< class Tag > Conditions conditionsOf( Pfe::IngDynamicAddrOnlyKey< Tag > const & row, bool vrfLess ) {
   Conditions conditions{ .leaving = translatesSource< Tag >,
                          .intf = {},
                          .qualifier = row.intfQualifier,
                          .vrfId = vrfOf( row.vrfId.value(), vrfLess ) };
   ( conditions.leaving ? conditions.source : conditions.destination ) = Netix::IpAndPort{ row.ip, 0 };
   return conditions;
}

bool applies( Conditions const & row, Packet const & packet, Interfaces const & interfaces ) {
   auto const intf = row.leaving ? packet.out : packet.in;
   bool const atInterface =
      row.qualifier ? interfaces.qualifiers.contains( { intf, *row.qualifier } ) : row.intf == intf;
   return intf != Netix::IntfId() && atInterface && row.vrfId.value_or( packet.vrfId ) == packet.vrfId &&
          ( row.protocol == 0 || row.protocol == packet.protocol );
}

// How well a row matches: 0 best; absent: not at all.
std::optional< unsigned > rankOf( Conditions const & row, Packet const & packet ) {
   bool const laterFragment = packet.part == Packet::Part::laterFragment;
   if ( row.fragment && !laterFragment ) {
      return std::nullopt;
   }
   unsigned rank = laterFragment && !row.fragment ? 1 : 0;
   for ( auto const & [ wanted, found ] :
         { std::pair( &row.source, &packet.source ), std::pair( &row.destination, &packet.destination ) } ) {
      auto const & pair = *wanted;
      if ( !pair ) {
         continue;
      }
      if ( pair->ip != found->ip || ( pair->port != 0 && ( laterFragment || pair->port != found->port ) ) ) {
         return std::nullopt;
      }
      rank += !laterFragment && pair->port == 0;
   }
   return rank;
}

Packet rewritten( Packet packet, Pfe::EgrNatUcRewriteEntry const & rewrite ) {
   auto const hasPorts = packet.part != Packet::Part::laterFragment;
   auto const write = [ & ]( Netix::IpAndPort & pair, Netix::IpAddr ip, U16 port ) {
      pair.ip = ip == Netix::IpAddr() ? pair.ip : ip;
      pair.port = port == 0 || !hasPorts ? pair.port : port;
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
   Walk( NatTables const & tables, Packet const & packet, Interfaces const & interfaces )
      : tables_( tables ), packet_( packet ), interfaces_( interfaces ) {}

   Passage passage() {
      lookUpIn< Pfe::IngTwiceNatTable >();
      lookUpIn< Pfe::IngStaticNatTable >();
      lookUpIn< Pfe::IngDynamicSnaptTable, Pfe::IngDynamicDnaptTable >();
      lookUpIn< Pfe::IngDynamicSnatAddrOnlyTable, Pfe::IngDynamicDnatAddrOnlyTable >();
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
   // Tables of one kind of rule, unless those of one before had a match.
   template< class... Tables > void lookUpIn() {
      if ( matches_.empty() ) {
         unsigned best = ~0U;
         ( lookUpIn( *tables_.of< Tables >(), best ), ... );
      }
   }

   template< class Table > void lookUpIn( Table const & table, unsigned & best ) {
      table.forEach( [ & ]( auto const & key, auto const & entry, Asic::EntryHandle const & handle ) {
         auto const conditions = conditionsOf( key, interfaces_.vrfLess );
         auto const rank =
            applies( conditions, packet_, interfaces_ ) ? rankOf( conditions, packet_ ) : std::optional< unsigned >();
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
   Interfaces const & interfaces_;
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

Passage walk( NatTables const & tables, Packet const & packet, Interfaces const & interfaces ) {
   return Walk( tables, packet, interfaces ).passage();
}

}  // namespace Agent
