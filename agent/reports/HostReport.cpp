#include "agent/reports/HostReport.h"

#include "agent/basics/Text.h"

#include <Orla/String.h>
#include <Trace/RingTrace.h>
#include <Vexa/HashMap.h>

#include <algorithm>
#include <bit>
#include <concepts>
#include <map>
#include <unordered_map>
#include <variant>

namespace Agent {

namespace {

using Kind = Table::Kind;
using PfeHelper::NatHwResult;

// By the row that holds it.
using IdOfRow = Vexa::HashMap< Pfe::IngNatTableKey, Pfe::NatId, 0x5A827999 >;

// Calls function( id, row ) for every row that holds a NAT id.
template< class Function > void forEachHolder( Host const & host, Function && function ) {
   auto const & holders = host.programmer().natIdManager()->matchKeyToIngKeySet();
   host.natIdInfo().matchKeyToNatId().forEach( [ & ]( Pfe::NatMatchKey const & matchKey, Pfe::NatId id ) {
      if ( auto const * const rows = holders.find( matchKey ) ) {
         rows->entry().forEach( [ & ]( Pfe::IngNatTableKey const & row ) { function( id, row ); } );
      }
   } );
}

void appendId( std::string & ids, IdOfRow const & idOfRow, Pfe::IngNatTableKey const & row ) {
   if ( auto const * const id = idOfRow.find( row ) ) {
      ids += ids.empty() ? "" : " ";
      Vexa::append( ids, *id );
   }
}

template< class Key > std::string_view sideOf( Key const & row ) {
   if constexpr ( requires { row.target; } ) {
      return targetText( row.target );
   } else if constexpr ( requires { row.forward; } ) {
      return row.forward ? "forward" : "reverse";
   } else {
      bool const isSource = std::is_same_v< Key, Pfe::IngDynamicSnaptTable::Key > ||
                            std::is_same_v< Key, Pfe::IngDynamicSnatAddrOnlyTable::Key >;
      return isSource ? "source" : "destination";
   }
}

// Why the row is not in the hardware; empty when it is. A row that was never written is one of a rule that was refused,
// which happens for want of a NAT id only.
std::string faultOf( Pfe::IngNatTableKey const & row, NatTables const & tables ) {
   std::string fault;
   tables.forEachIngress( [ & ]( auto const & table ) {
      using Key = typename std::remove_cvref_t< decltype( table ) >::Key;
      if ( auto const * const key = std::get_if< Key >( &row.storage() ) ) {
         auto const * const handle = table.entryHandle( *key );
         fault = !handle ? "no NAT id was free"
                 : handle->state() == Asic::EntryState::settled
                    ? ""
                    : std::string( sideOf( *key ) ).append( " row " ).append( stateText( handle->state() ) );
      }
   } );
   return fault;
}

// What became of a connection, at rest.
struct ConnectionState {
   bool programmed = false;
   std::string_view result;     // in a word
   std::string reason;          // empty when it is programmed
   std::string natIds;          // of the connection's own target, then of the replies, with a blank between
   std::string fragmentNatIds;  // of the later fragments in these directions; other connections may share them
};

// Why a rule has no result for a reason of its own; empty when its rows have to tell.
std::string_view reasonOf( Connection const & connection, NatHwResult const * result, Host const & host ) {
   auto const * const dynamicRule = std::get_if< DynamicRule >( &connection.rule );
   if ( host.isDeleted() ) {
      return "all rules were deleted";
   }
   if ( dynamicRule && dynamicRule->entry->connection().fullCone &&
        !host.configuration().settings.fullConeProgrammed ) {
      return "full-cone connections are translated elsewhere";
   }
   return result && *result == NatHwResult::rejectedMulticast ? whyInvalid( connection ) : "";
}

ConnectionState stateOf( Connection const & connection, Host const & host, IdOfRow const & idOfRow ) {
   auto const * const result = host.resultOf( connection );
   auto const & settings = host.configuration().settings;
   ConnectionState state{ .programmed = result && *result == NatHwResult::programmed,
                          .result = result ? resultText( *result ) : "no result",
                          .reason = std::string( reasonOf( connection, result, host ) ),
                          .natIds = {},
                          .fragmentNatIds = {} };
   bool const hasReason = !state.reason.empty();
   for ( auto const & row : ingressRowsOf( connection, settings ) ) {
      appendId( state.natIds, idOfRow, row );
      if ( !state.programmed && !hasReason ) {
         auto const fault = faultOf( row, host.tables() );
         if ( fault != state.reason ) {
            state.reason += ( fault.empty() || state.reason.empty() ? "" : ", " ) + fault;
         }
      }
      if ( settings.fragmentation && !ignoresPorts( row ) ) {
         appendId( state.fragmentNatIds, idOfRow, fragmentRowOf( row ) );
      }
   }
   return state;
}

// Of the entry, or of the line that it was learned from.
void addNumberOf( Table & table, Connection const & connection ) {
   connection.index ? table.number( *connection.index ) : table.cell( "" );
   connection.line == 0 ? table.cell( "" ) : table.number( connection.line );
}

}  // namespace

void reportConnections( Report & report, Host const & host ) {
   Table table( { { "entry", Kind::number },
                  { "line", Kind::number },
                  { "kind" },
                  { "interface" },
                  { "target" },
                  { "protocol" },
                  { "local" },
                  { "global" },
                  { "peer" },
                  { "natIds", Kind::numbers },
                  { "fragmentIds", Kind::numbers },
                  { "result" },
                  { "reason" } } );
   IdOfRow idOfRow;
   forEachHolder( host, [ & ]( Pfe::NatId id, Pfe::IngNatTableKey const & row ) { idOfRow.is( row, id ); } );
   for ( auto const & connection : host.configuration().connections ) {
      auto const state = stateOf( connection, host, idOfRow );
      auto const text = textOf( connection );
      addNumberOf( table, connection );
      table.cell( text.kind );
      table.cell( text.intf.name().text() );
      table.cell( text.target );
      table.cell( protocolText( text.protocol ) );
      for ( std::string_view const cell :
            { std::string_view( text.local ), std::string_view( text.global ), std::string_view( text.peer ),
              std::string_view( state.natIds ), std::string_view( state.fragmentNatIds ), state.result,
              std::string_view( state.reason ) } ) {
         table.cell( cell );
      }
   }
   report.table( "connections", table );
}

void reportStatuses( Report & report, Host const & host ) {
   Table table( { { "entry", Kind::number }, { "line", Kind::number }, { "result" }, { "reason" } } );
   for ( auto const & connection : host.configuration().connections ) {
      auto const state = stateOf( connection, host, {} );
      addNumberOf( table, connection );
      table.cell( state.result );
      table.cell( state.reason );
   }
   report.table( "statuses", table );
}

void reportNatIds( Report & report, Host const & host ) {
   std::vector< std::pair< Pfe::NatId, std::string > > held;
   forEachHolder(
      host, [ & ]( Pfe::NatId id, Pfe::IngNatTableKey const & row ) { held.emplace_back( id, fieldsOf( row ) ); } );
   std::ranges::sort( held );
   Table table( { { "natId", Kind::number }, { "holder" } } );
   for ( auto const & [ id, holder ] : held ) {
      table.number( id.value() );
      table.cell( holder );
   }
   report.line( "" );
   report.table( "natIds", table );
}

// --- Traps and profiles ----------------------------------------------------------------------------------------------

namespace {

std::string prefixText( Netix::IpAddrWithFullMask const & prefix ) {
   return prefix.mask == Netix::IpAddr()
             ? ""
             : textOf( { prefix.address, 0 } ) + "/" + std::to_string( std::popcount( prefix.mask.value() ) );
}

// A port, or a block of ports that begins with it.
std::string portsText( U16 port, U16 mask ) {
   auto const last = static_cast< U16 >( port | ~mask );
   return mask == 0 ? "" : std::to_string( port ) + ( last == port ? "" : "-" + std::to_string( last ) );
}

}  // namespace

void reportTraps( Report & report, Host const & host ) {
   Table table( { { "acl" },
                  { "sequence", Kind::number },
                  { "trap" },
                  { "vrf" },
                  { "source" },
                  { "destination" },
                  { "protocol" },
                  { "sourcePorts" },
                  { "destinationPorts" } } );
   std::map< Pfe::NatTrapKey, Pfe::NatTrapAcl const * > acls;
   for ( auto const & [ key, acl ] : host.programmer().natTrapConfig()->trapAcl() ) {
      acls.emplace( key, &acl );
   }
   for ( auto const & [ key, acl ] : acls ) {
      for ( auto const & [ sequence, rule ] : acl->ruleBySequence() ) {
         table.cell( std::string( key.aclName.text() ) + " pool " + std::to_string( key.poolId ) + " rule " +
                     std::to_string( key.ruleId ) );
         table.number( sequence );
         table.cell( rule.trap != 0 ? "yes" : "no" );
         table.cell( rule.vrfId == 0 ? "" : std::to_string( rule.vrfId ) );
         table.cell( prefixText( rule.source ) );
         table.cell( prefixText( rule.destination ) );
         table.cell( rule.protocolMask == 0 ? "" : protocolText( rule.protocol ) );
         table.cell( portsText( rule.sourcePort, rule.sourcePortMask ) );
         table.cell( portsText( rule.destinationPort, rule.destinationPortMask ) );
      }
   }
   if ( table.rowCount() != 0 ) {
      report.line( "" );
      report.table( "traps", table );
   }
}

void reportProfiles( Report & report, Host const & host ) {
   std::map< U16, U16 > profiles;
   for ( auto const & [ vlan, profile ] : host.programmer().natProfileConfig()->vlanIdToProfileId() ) {
      profiles.emplace( vlan, profile );
   }
   Table table( { { "vlan", Kind::number }, { "profile", Kind::number } } );
   for ( auto const & [ vlan, profile ] : profiles ) {
      table.number( vlan );
      table.number( profile );
   }
   if ( table.rowCount() != 0 ) {
      report.line( "" );
      report.table( "profiles", table );
   }
}

// --- Rows ------------------------------------------------------------------------------------------------------------

namespace {

// By handle, the fields of the key of each egress row.
using RewriteKeys = std::unordered_map< Asic::EntryHandle const *, std::string >;

template< Vexa::Described Entry > std::string actionOf( Entry const & entry, RewriteKeys const & ) {
   return fieldsOf( entry );
}

template< std::derived_from< Asic::ReferringEntry > Entry >
std::string actionOf( Entry const & entry, RewriteKeys const & rewriteKeys ) {
   std::string action;
   entry.egrHdl.forEach( [ & ]( Asic::EntryHandle::PtrConst const & handle, bool ) {
      action += ( action.empty() ? "" : ", " ) + rewriteKeys.at( handle.ptr() );
   } );
   auto const add = [ & ]( char const * name, U64 number ) {
      action += number == 0 ? "" : std::string( " " ) + name + "=" + std::to_string( number );
   };
   add( "nextHopId", entry.nextHopId );
   if constexpr ( std::is_same_v< Entry, Pfe::IngStaticNatTable::Entry > ) {
      add( "aclId", entry.aclId );
      add( "filters", entry.filters.size() );
   }
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

std::string shareOf( std::size_t part, std::size_t all ) { return part == all ? "all" : std::to_string( part ); }

}  // namespace

void reportRows( Report & report, Host const & host ) {
   report.line( "" );
   report.table( "rows", rowsOf( host.tables(), false ) );
}

void reportRing( Report & report, std::size_t lines ) {
   auto const ring = Trace::RingTrace::defaultHandle().lastLines( lines );
   report.fact( "ringTrace", JsonArray( ring.begin(), ring.end() ) );
   report.line( "" );
   std::ranges::for_each( ring, [ & ]( std::string const & line ) { report.line( "  " + line ); } );
}

void reportSummary( Report & report, Host const & host ) {
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
   auto const & connections = host.configuration().connections;
   auto const total = connections.size();
   auto const programmed =
      static_cast< std::size_t >( std::ranges::count_if( connections, [ & ]( Connection const & connection ) {
         auto const * const result = host.resultOf( connection );
         return result && *result == NatHwResult::programmed;
      } ) );
   if ( !host.storeFault().empty() ) {
      report.fact( "storeFault", Json( host.storeFault() ) );
      report.line( "\nWhat needs new NAT ids waits: " + host.storeFault() );
   }
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

void reportHeading( Report & report, Configuration const & configuration, std::string_view mode ) {
   report.fact( "file", configuration.file );
   if ( !mode.empty() ) {
      report.fact( "mode", mode );
   }
   report.fact( "instance", { { "id", configuration.instanceId },
                              { "name", configuration.instanceName },
                              { "fragmentation", configuration.settings.fragmentation } } );
   auto const & name = configuration.instanceName;
   report.line( configuration.file + ", instance " + std::to_string( configuration.instanceId ) +
                ( name.empty() ? "" : " " + Vexa::stringOf( Orla::String( name ) ) ) +
                ( mode.empty() ? "" : ", " + std::string( mode ) + " mode" ) + "\n" );
}

void reportProgramming( Report & report, Host const & host, Sections const & sections ) {
   reportHeading( report, host.configuration() );
   reportConnections( report, host );
   reportTraps( report, host );
   reportProfiles( report, host );
   if ( sections.natIds ) {
      reportNatIds( report, host );
   }
   if ( sections.rows ) {
      reportRows( report, host );
   }
   if ( sections.ringLines != 0 ) {
      reportRing( report, sections.ringLines );
   }
   reportSummary( report, host );
}

}  // namespace Agent
