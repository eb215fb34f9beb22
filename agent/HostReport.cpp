#include "agent/HostReport.h"

#include "agent/McastReplications.h"
#include "agent/Text.h"

#include <IpNat/NatStatic.h>
#include <Orla/String.h>
#include <Trace/RingTrace.h>

#include <algorithm>
#include <unordered_map>
#include <variant>

namespace Agent {

namespace {

using Kind = Table::Kind;
using PfeHelper::NatHwResult;
using Row = Pfe::IngStaticNatTable::Key;

void appendId( std::string & ids, Row const & row, Host const & host ) {
   Pfe::StaticNatMatchKey const matchKey{ .natIntf = row.natIntf,
                                          .vrfId = row.vrfId,
                                          .ipAndPortOld = row.ipAndPortOld,
                                          .target = row.target,
                                          .protocol = row.protocol };
   if ( auto const * const id = host.natIdInfo().matchKeyToNatId().find( matchKey ) ) {
      ids += ids.empty() ? "" : " ";
      append( ids, U64{ id->value() } );
   }
}

// Why the row is not in the hardware; empty when it is. A row that was never written is one of a rule that was refused,
// which happens to static rules for want of a NAT id only.
std::string faultOf( Row const & row, Host const & host ) {
   auto const * const handle = host.tables().of< Pfe::IngStaticNatTable >()->entryHandle( row );
   if ( !handle ) {
      return "no NAT id was free";
   }
   auto const state = handle->state();
   return state == Asic::EntryState::settled
             ? ""
             : std::string( targetText( row.target ) ).append( " row " ).append( stateText( state ) );
}

// What became of a connection, at rest.
struct ConnectionState {
   bool programmed = false;
   std::string_view result;     // in a word
   std::string reason;          // empty when it is programmed
   std::string natIds;          // of the connection's own target, then of the replies, with a blank between
   std::string fragmentNatIds;  // of the later fragments in these directions; other connections may share them
};

ConnectionState stateOf( StaticConnection const & connection, Host const & host ) {
   auto const * const status = host.status().staticStatus().find( connection.key );
   auto const result = status ? status->result : NatHwResult::pending;
   ConnectionState state{ .programmed = result == NatHwResult::programmed,
                          .result = status ? resultText( result ) : "no result",
                          .reason =
                             result == NatHwResult::rejectedMulticast ? std::string( whyInvalid( connection ) ) : "",
                          .natIds = {},
                          .fragmentNatIds = {} };
   auto const target = connection.entry->connection().target;
   for ( auto const side : Ip::Nat::getStaticConnectionTargets( target, isMulticast( connection ) ) ) {
      auto row = ingressRowOf( connection, side );
      appendId( state.natIds, row, host );
      if ( !state.programmed && result != NatHwResult::rejectedMulticast ) {
         auto const fault = faultOf( row, host );
         if ( fault != state.reason ) {
            state.reason += ( fault.empty() || state.reason.empty() ? "" : ", " ) + fault;
         }
      }
      if ( row.ipAndPortOld.port != 0 && host.configuration().rules->fragmentationEnabled() ) {
         row.ipAndPortOld.port = 0;
         appendId( state.fragmentNatIds, row, host );
      }
   }
   return state;
}

void addNumber( Table & table, U64 number ) {
   append( table.cell(), number );
   table.endCell();
}

// Returns how many are programmed.
std::size_t reportConnections( Report & report, Host const & host ) {
   Table table( { { "entry", Kind::number },
                  { "interface" },
                  { "target" },
                  { "protocol" },
                  { "local" },
                  { "global" },
                  { "natIds", Kind::numbers },
                  { "fragmentIds", Kind::numbers },
                  { "result" },
                  { "reason" } } );
   std::size_t programmed = 0;
   for ( auto const & connection : host.configuration().connections ) {
      auto const state = stateOf( connection, host );
      auto const & rule = connection.entry->connection();
      auto const inside = ingressRowOf( connection, Ip::Nat::NatTarget::source );
      programmed += state.programmed;
      addNumber( table, connection.index );
      table.cell( inside.natIntf.text() );
      table.cell( targetText( rule.target ) );
      table.cell( protocolText( rule.protocol ) );
      table.cell( textOf( inside.ipAndPortOld ) );
      table.cell( textOf( inside.ipAndPortNew ) );
      table.cell( state.natIds );
      table.cell( state.fragmentNatIds );
      table.cell( state.result );
      table.cell( state.reason );
   }
   report.table( "connections", table );
   return programmed;
}

void reportNatIds( Report & report, Host const & host ) {
   auto const & holders = host.programmer().natIdManager()->matchKeyToIngKeySet();
   std::vector< std::pair< Pfe::NatId, std::string > > held;
   host.natIdInfo().matchKeyToNatId().forEach( [ & ]( Pfe::NatMatchKey const & matchKey, Pfe::NatId id ) {
      holders.find( matchKey )->entry().forEach( [ & ]( Pfe::IngNatTableKey const & holder ) {
         held.emplace_back( id, std::visit( []( auto const & key ) { return fieldsOf( key ); }, holder.storage() ) );
      } );
   } );
   std::ranges::sort( held );
   Table table( { { "natId", Kind::number }, { "holder" } } );
   for ( auto const & [ id, holder ] : held ) {
      addNumber( table, id.value() );
      table.cell( holder );
   }
   report.line( "" );
   report.table( "natIds", table );
}

// --- Rows ------------------------------------------------------------------------------------------------------------

// By handle, the fields of the key of each egress row.
using RewriteKeys = std::unordered_map< Asic::EntryHandle const *, std::string >;

template< Vexa::Described Entry > std::string actionOf( Entry const & entry, RewriteKeys const & ) {
   return fieldsOf( entry );
}

std::string actionOf( Asic::ReferringEntry const & entry, RewriteKeys const & rewriteKeys ) {
   std::string action;
   entry.egrHdl.forEach( [ & ]( Asic::EntryHandle::PtrConst const & handle, bool ) {
      action += ( action.empty() ? "" : ", " ) + rewriteKeys.at( handle.ptr() );
   } );
   return action;
}

std::string actionOf( Pfe::IngStaticNatTable::Entry const & entry, RewriteKeys const & rewriteKeys ) {
   auto action = actionOf( static_cast< Asic::ReferringEntry const & >( entry ), rewriteKeys );
   auto const add = [ & ]( char const * name, U64 number ) {
      action += number == 0 ? "" : std::string( " " ) + name + "=" + std::to_string( number );
   };
   add( "nextHopId", entry.nextHopId );
   add( "aclId", entry.aclId );
   add( "filters", entry.filters.size() );
   return action;
}

// The rows of all tables in the order in which a packet meets them and of their keys.
Table rowsOf( NatTables const & tables, bool onlyFailed ) {
   RewriteKeys rewriteKeys;
   tables.forEachEgress( [ & ]( auto const & table ) {
      table.forEach( [ & ]( auto const & key, auto const &, auto const & handle ) {
         rewriteKeys.emplace( &handle, fieldsOf( key ) );
      } );
   } );
   Table result( { { "table" }, { "row" }, { "action" }, { "state" } } );
   tables.forEach( [ & ]( auto const & table ) {
      using SwTable = std::remove_cvref_t< decltype( table ) >;
      std::vector< typename SwTable::Key const * > keys;
      table.forEach( [ & ]( auto const & key, auto const &, Asic::EntryHandle const & handle ) {
         if ( !onlyFailed || Asic::isFailure( handle.state() ) ) {
            keys.push_back( &key );
         }
      } );
      std::ranges::sort( keys, []( auto const * a, auto const * b ) { return *a < *b; } );
      for ( auto const * const key : keys ) {
         result.cell( table.name() );
         result.cell( fieldsOf( *key ) );
         result.cell( actionOf( *table.entry( *key ), rewriteKeys ) );
         result.cell( stateText( table.entryHandle( *key )->state() ) );
      }
   } );
   return result;
}

std::string counted( std::size_t count, std::string_view what ) {
   return std::to_string( count ) + " " + std::string( what ) + ( count == 1 ? "" : "s" );
}

std::string shareOf( std::size_t part, std::size_t all ) { return part == all ? "all" : std::to_string( part ); }

}  // namespace

void reportProgramming( Report & report, Host const & host, Sections const & sections ) {
   auto const & configuration = host.configuration();
   report.fact( "file", configuration.file );
   report.fact( "instance", { { "id", configuration.instanceId },
                              { "name", configuration.instanceName },
                              { "fragmentation", configuration.rules->fragmentationEnabled() } } );
   report.line(
      configuration.file + ", instance " + std::to_string( configuration.instanceId ) +
      ( configuration.instanceName.empty() ? "" : " " + Vexa::stringOf( Orla::String( configuration.instanceName ) ) ) +
      "\n" );
   auto const programmed = reportConnections( report, host );
   if ( sections.natIds ) {
      reportNatIds( report, host );
   }
   if ( sections.rows ) {
      report.line( "" );
      report.table( "rows", rowsOf( host.tables(), false ) );
   }
   std::size_t rows = 0;
   std::size_t failed = 0;
   host.tables().forEach( [ & ]( auto const & table ) {
      rows += table.rowCount();
      failed += table.failedRowCount();
   } );
   if ( failed != 0 ) {
      report.line( "\nThe hardware did not take " + counted( failed, "row" ) + ":" );
      report.table( "failedRows", rowsOf( host.tables(), true ) );
   }
   if ( sections.ringLines != 0 ) {
      auto const ring = Trace::RingTrace::defaultHandle().lastLines( sections.ringLines );
      report.fact( "ringTrace", ring );
      report.line( "" );
      std::ranges::for_each( ring, [ & ]( std::string const & line ) { report.line( "  " + line ); } );
   }
   auto const total = configuration.connections.size();
   auto const natIds = host.natIdInfo().matchKeyToNatId().count();
   auto const restored = host.store() ? host.store()->restoredCount() : 0;
   report.fact( "summary", { { "connections", total },
                             { "programmed", programmed },
                             { "rows", rows },
                             { "failedRows", failed },
                             { "natIds", natIds },
                             { "restoredNatIds", restored },
                             { "turns", host.turns() } } );
   report.line(
      "\n" + counted( total, "connection" ) + ", " + shareOf( programmed, total ) + " programmed; " +
      counted( rows, "row" ) + ", " + shareOf( rows - failed, rows ) + " accepted; " + counted( natIds, "NAT id" ) +
      ( host.store() ? " kept in " + host.store()->folder() + ", " + std::to_string( restored ) + " known before"
                     : "" ) +
      "; " + counted( host.turns(), "turn" ) );
}

}  // namespace Agent
