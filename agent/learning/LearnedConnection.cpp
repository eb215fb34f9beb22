#include "agent/learning/LearnedConnection.h"

#include <Orla/Ptr.h>

#include <utility>

namespace Agent {

namespace {

using Ip::Nat::NatTarget;
using Netix::ConnTuple;

enum Protocol : U8 { any = 0, icmp = 1, tcp = 6, udp = 17, dccp = 33, gre = 47, sctp = 132, udpLite = 136 };

bool hasPorts( U8 protocol ) {
   return protocol == tcp || protocol == udp || protocol == dccp || protocol == sctp || protocol == udpLite;
}

bool hasAnyPort( ConnTuple const & tuple ) { return tuple.source.port != 0 || tuple.destination.port != 0; }

// Whether a row would match more than the flow, or could not write what the kernel writes.
bool holdsWildcard( TrackedFlow const & flow ) {
   auto const & [ source, destination, protocol ] = flow.original;
   auto const & [ answerer, asker, replyProtocol ] = flow.reply;
   auto const none = Netix::IpAddr();
   if ( protocol == any || source.ip == none || destination.ip == none || answerer.ip == none || asker.ip == none ) {
      return true;
   }
   if ( protocol == icmp ) {
      return source.port == 0 || asker.port == 0;
   }
   bool const ports = hasPorts( protocol ) || hasAnyPort( flow.original ) || hasAnyPort( flow.reply );
   return ports && ( source.port == 0 || destination.port == 0 || answerer.port == 0 || asker.port == 0 );
}

// What the rows match, by the packets that leave by the interface and that enter by it.
struct MatchedFlows {
   ConnTuple leaving;
   ConnTuple entering;
};

MatchedFlows matchedFlows( LearnedConnection const & learned ) {
   auto const & conn = learned.conn;
   if ( learned.connection.target == NatTarget::source ) {
      return { conn, { conn.destination, learned.global, conn.protocol } };
   }
   return { { learned.global, conn.source, conn.protocol }, conn };
}

}  // namespace

std::variant< LearnedConnection, NotLearned > learnedFrom( TrackedFlow const & flow ) {
   auto const & [ original, reply ] = flow;
   // Answers go to where the translated packets seem to come from, and come from where those went.
   bool const sourceDiffers = reply.destination != original.source;
   bool const destinationDiffers = reply.source != original.destination;
   if ( !sourceDiffers && !destinationDiffers ) {
      return NotLearned::notTranslated;
   }
   if ( sourceDiffers && destinationDiffers ) {
      return NotLearned::bothSides;
   }
   if ( original.protocol == gre && ( hasAnyPort( original ) || hasAnyPort( reply ) ) ) {
      return NotLearned::greKeys;
   }
   if ( holdsWildcard( flow ) ) {
      return NotLearned::wildcard;
   }
   // The connection is the flow as sent: to the outside host, or to the public address that an inside host answers for.
   if ( sourceDiffers ) {
      return LearnedConnection{ original, { .target = NatTarget::source }, reply.destination };
   }
   return LearnedConnection{ original, { .target = NatTarget::destination }, reply.source };
}

Netix::IpAddr insideHostOf( LearnedConnection const & learned ) {
   return learned.connection.target == NatTarget::source ? learned.conn.source.ip : learned.global.ip;
}

RowClaims::RowClaims( Pfe::NatProgrammerConfig const & rules, NatInterface const & intf ) {
   rules.dynamicEntry().forEach( [ & ]( Pfe::NatProgrammerDynamicKey const & key, auto const & entry ) {
      LearnedConnection const connection{ key.conn, entry->connection(), entry->global() };
      if ( key.natIntf == intf.intf ) {
         keys_.is( key.conn, configured );
      }
      bool const sameVrf = rules.vrfLess() || entry->vrfId() == intf.vrfId;
      if ( sameVrf && entry->intfQualifier() == intf.qualifier && !entry->connection().addrOnly ) {
         auto const [ leaving, entering ] = matchedFlows( connection );
         leaving_.is( leaving, configured );
         entering_.is( entering, configured );
      }
   } );
}

std::optional< U32 > RowClaims::claim( LearnedConnection const & learned, U32 owner ) {
   auto const [ leaving, entering ] = matchedFlows( learned );
   std::pair< Owners &, ConnTuple const & > const wanted[] = {
      { keys_, learned.conn }, { leaving_, leaving }, { entering_, entering } };
   for ( auto place = std::begin( wanted ); place != std::end( wanted ); ++place ) {
      auto const [ present, isNew ] = place->first.refOrEmplace( place->second );
      if ( !isNew ) {
         auto const other = present;
         while ( place != std::begin( wanted ) ) {
            --place;
            place->first.del( place->second );
         }
         return other;
      }
      present = owner;
   }
   return std::nullopt;
}

void RowClaims::release( LearnedConnection const & learned ) {
   auto const [ leaving, entering ] = matchedFlows( learned );
   keys_.del( learned.conn );
   leaving_.del( leaving );
   entering_.del( entering );
}

DynamicRule ruleOf( LearnedConnection const & learned, NatInterface const & intf ) {
   return { { .natIntf = intf.intf, .conn = learned.conn },
            Orla::make< Pfe::NatProgrammerDynamicEntry >(
               Pfe::NatProgrammerDynamicEntry::Fields{ .vrfId = intf.vrfId,
                                                       .intfQualifier = intf.qualifier,
                                                       .connection = learned.connection,
                                                       .global = learned.global,
                                                       .nextHop = {} } ) };
}

}  // namespace Agent
