#include "agent/basics/Text.h"
#include "agent/reports/HostReport.h"

#include <ranges>

namespace Agent {

namespace {

// Later fragments may match those of all inside hosts behind a public address.
constexpr std::size_t mostRowsOfAStep = 64;

// Leaves out interfaces that are not known.
std::string packetText( Packet const & packet ) {
   auto const intf = []( char const * way, Netix::IntfId id ) {
      return id == Netix::IntfId() ? std::string() : way + std::string( id.name().text() );
   };
   auto const * const part = packet.part == Packet::Part::whole           ? ""
                             : packet.part == Packet::Part::firstFragment ? " first fragment"
                                                                          : " later fragment";
   return protocolText( packet.protocol ) + " " + textOf( packet.source ) + " -> " + textOf( packet.destination ) +
          part + intf( " in ", packet.in ) + intf( " out ", packet.out ) +
          ( packet.vrfId == 0 ? "" : " vrf " + std::to_string( packet.vrfId ) );
}

// What decides beside the row whether it applies, and is not known.
std::string conditionText( Pfe::IngNatTableKey const & row, PacketWalk const & walk ) {
   auto const * const connection = walk.connectionOf( row );
   auto const * const rule = connection ? std::get_if< StaticRule >( &connection->rule ) : nullptr;
   if ( !rule ) {
      return "access list and filters of the connections that share the row permit the packet";
   }
   auto const & list = rule->entry->aclName();
   return list.empty() ? "a filter of the row permits the ports of the packet, which a later fragment does not have"
                       : "access list " + Vexa::stringOf( list ) + " permits the packet";
}

// What the packet has become behind the tables; none when that is not certain.
std::vector< Packet > outcomeOf( Packet const & packet, Passage const & passage ) {
   std::vector< Packet > packets;
   if ( passage.matches.empty() ) {
      packets.push_back( packet );
   }
   for ( auto const & copy : passage.copies ) {
      packets.push_back( copy.packet );
   }
   return packets;
}

Table stepsOf( Packet const & packet, Passage const & passage, PacketWalk const & walk ) {
   Table steps(
      { { "step" }, { "what" }, { "table" }, { "entry", Table::Kind::number }, { "line", Table::Kind::number } } );
   auto const add = [ & ]( char const * step, std::string_view what, std::string_view table = {},
                           std::string_view entry = {}, std::string_view line = {} ) {
      for ( auto const cell : { std::string_view( step ), what, table, entry, line } ) {
         steps.cell( cell );
      }
   };
   auto const addRow = [ & ]( char const * step, IngressRow const & row ) {
      auto const * const connection = walk.connectionOf( row.key );
      add( step, fieldsOf( row.key ), row.table,
           connection && connection->index ? std::to_string( *connection->index ) : "",
           connection && connection->line != 0 ? std::to_string( connection->line ) : "" );
   };
   add( "packet", packetText( packet ) );
   auto const addRows = [ & ]( char const * step, std::vector< IngressRow > const & rows, auto const & addReason ) {
      for ( auto const & row : rows | std::views::take( mostRowsOfAStep ) ) {
         addRow( step, row );
         addReason( row );
      }
      if ( rows.size() > mostRowsOfAStep ) {
         add( step, "and " + counted( rows.size() - mostRowsOfAStep, "more row" ) );
      }
   };
   addRows( "failed", passage.missing, []( IngressRow const & ) {} );
   addRows( "drops out", passage.refused,
            [ & ]( IngressRow const & ) { add( "because", "no filter of the row permits the packet" ); } );
   addRows( "match", passage.matches, [ & ]( IngressRow const & row ) {
      if ( row.permission == Permission::unknown ) {
         add( "only if", conditionText( row.key, walk ) );
      }
   } );
   if ( passage.matches.size() > 1 ) {
      add( "unknown", "these rows match equally well" );
   }
   if ( passage.matches.empty() ) {
      add( "leaves", "as it is: no row matches" );
   }
   for ( auto const & copy : passage.copies ) {
      add( "rewrite", copy.row, copy.table );
      add( "leaves", packetText( copy.packet ) );
   }
   return steps;
}

}  // namespace

bool reportWalk( Report & report, PacketWalk const & walk, Packet const & packet ) {
   auto const passage = walk.passageOf( packet );
   auto const outcome = outcomeOf( packet, passage );
   report.table( "packet", stepsOf( packet, passage, walk ) );
   if ( outcome.size() != 1 || outcome.front().destination.ip.isMulticast() ) {
      return passage.isCertain();
   }
   auto const reply = replyTo( outcome.front() );
   auto const replyPassage = walk.passageOf( reply );
   auto const replyOutcome = outcomeOf( reply, replyPassage );
   bool const comesBack = replyOutcome.size() == 1 && replyOutcome.front() == replyTo( packet );
   bool const isCertain = passage.isCertain() && replyPassage.isCertain();
   report.line( "\nThe reply:" );
   report.table( "reply", stepsOf( reply, replyPassage, walk ) );
   if ( isCertain ) {
      report.fact( "replyComesBack", comesBack );
   }
   auto const * const verdict =
      replyPassage.matches.size() > 1 ? "Where the reply goes is not certain."
      : !isCertain && comesBack
         ? "The reply comes back as the answer to the packet if both are permitted, which is not certain."
      : comesBack ? "The reply comes back as the answer to the packet."
                  : "The reply does not come back as the answer to the packet.";
   report.line( std::string( "\n" ) + verdict );
   return isCertain;
}

}  // namespace Agent
