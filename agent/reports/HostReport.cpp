#include "agent/reports/HostReport.h"

#include "agent/basics/Text.h"
#include "agent/reports/InOrder.h"

#include <Orla/String.h>
#include <Trace/RingTrace.h>

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>

namespace Agent {

namespace {

using Kind = Table::Kind;
using PfeHelper::NatHwResult;

// A port, or a block of ports that begins with it.
std::string portsText( U16 port, U16 mask ) {
   auto const last = static_cast< U16 >( port | ~mask );
   return mask == 0 ? "" : std::to_string( port ) + ( last == port ? "" : "-" + std::to_string( last ) );
}

// Of a trap ACL.
struct TrapOrder {
   struct Item {
      Pfe::NatTrapKey const * acl = nullptr;
      U32 sequence = 0;
      Pfe::NatTrapRule const * rule = nullptr;
   };
   using Mark = std::pair< Pfe::NatTrapKey, U32 >;
   static Mark mark( Item item ) { return { *item.acl, item.sequence }; }
   static bool isBefore( Item a, Item b ) { return std::tie( *a.acl, a.sequence ) < std::tie( *b.acl, b.sequence ); }
   static bool isBehind( Item item, Mark const & mark ) {
      return std::tie( mark.first, mark.second ) < std::tie( *item.acl, item.sequence );
   }
};

class Traps final : public RowSource {
 public:
   explicit Traps( Host const & host )
      : inOrder_( host, [ &host ]( auto const & take ) {
           for ( auto const & [ key, acl ] : host.programmer().natTrapConfig()->trapAcl() ) {
              for ( auto const & [ sequence, rule ] : acl.ruleBySequence() ) {
                 take( { &key, sequence, &rule } );
              }
           }
        } ) {}

   std::vector< Table::Column > columns() const override {
      return { { "acl" },
               { "sequence", Kind::number },
               { "trap" },
               { "vrf" },
               { "source" },
               { "destination" },
               { "protocol" },
               { "sourcePorts" },
               { "destinationPorts" } };
   }

   bool next( Table & rows ) override {
      for ( int i = 0; i < rowsOfAPiece; ++i ) {
         auto const item = inOrder_.next();
         if ( !item ) {
            return false;
         }
         auto const & [ acl, sequence, rule ] = *item;
         rows.cell( std::string( acl->aclName.text() ) + " pool " + std::to_string( acl->poolId ) + " rule " +
                    std::to_string( acl->ruleId ) );
         rows.number( sequence );
         rows.cell( rule->trap != 0 ? "yes" : "no" );
         rows.cell( rule->vrfId == 0 ? "" : std::to_string( rule->vrfId ) );
         rows.cell( textOf( rule->source ) );
         rows.cell( textOf( rule->destination ) );
         rows.cell( rule->protocolMask == 0 ? "" : protocolText( rule->protocol ) );
         rows.cell( portsText( rule->sourcePort, rule->sourcePortMask ) );
         rows.cell( portsText( rule->destinationPort, rule->destinationPortMask ) );
      }
      return true;
   }

   void rewind() override { inOrder_.rewind(); }

 private:
   InOrder< TrapOrder > inOrder_;
};

// The newest lines of the ring trace as it is at the construction, oldest first, but for those overwritten meanwhile.
class RingLines final : public RowSource {
 public:
   explicit RingLines( std::size_t lines )
      : end_( ring_.written() ), first_( end_ - std::min( { lines, end_, Trace::RingTrace::capacity } ) ) {
      rewind();
   }

   std::vector< Table::Column > columns() const override { return { { "line" } }; }

   bool next( Table & rows ) override {
      auto const lines = ring_.lastLines( ring_.written() - next_ );
      next_ = ring_.written() - lines.size();
      for ( std::size_t i = 0; i < lines.size() && i < rowsOfAPiece && next_ < end_; ++i, ++next_ ) {
         rows.cell( lines[ i ] );
      }
      return next_ < end_;
   }

   void rewind() override { next_ = first_; }

 private:
   Trace::RingTrace const & ring_ = Trace::RingTrace::defaultHandle();
   std::size_t end_;
   std::size_t first_;
   std::size_t next_ = 0;
};

}  // namespace

void reportTraps( Report & report, Host const & host, Selection const & selection ) {
   if ( host.programmer().natTrapConfig()->trapAcl().count() != 0 ) {
      report.line( "" );
      report.rows( "traps", selected( std::make_unique< Traps >( host ), selection ) );
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

namespace {

std::string shareOf( std::size_t part, std::size_t all ) { return part == all ? "all" : std::to_string( part ); }

}  // namespace

void reportRing( Report & report, std::size_t lines ) {
   report.line( "" );
   report.texts( "ringTrace", std::make_unique< RingLines >( lines ) );
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
      reportFailedRows( report, host );
   }
   auto const & connections = host.configuration().connections;
   auto const total = connections.size();
   std::size_t programmed = 0;
   std::size_t elsewhere = 0;
   for ( auto const & connection : connections ) {
      auto const * const result = host.resultOf( connection );
      programmed += result && *result == NatHwResult::programmed;
      elsewhere += isTranslatedElsewhere( connection, host.configuration().settings );
   }
   if ( !host.storeFault().empty() ) {
      report.fact( "storeFault", Json( host.storeFault() ) );
      report.line( "\nWhat needs new NAT ids waits: " + host.storeFault() );
   }
   auto const natIds = host.natIdInfo().matchKeyToNatId().count();
   auto const restored = host.store() ? host.store()->restoredCount() : 0;
   report.fact( "summary", { { "connections", total },
                             { "programmed", programmed },
                             { "translatedElsewhere", elsewhere },
                             { "rows", rows },
                             { "failedRows", failed },
                             { "natIds", natIds },
                             { "restoredNatIds", restored },
                             { "turns", host.turns() } } );
   report.line(
      "\n" + counted( total, "connection" ) + ", " + shareOf( programmed, total ) + " programmed" +
      ( elsewhere == 0 ? "" : ", " + std::to_string( elsewhere ) + " translated elsewhere" ) + "; " +
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
                              { "enabled", configuration.enabled },
                              { "fragmentation", configuration.settings.fragmentation } } );
   auto const & name = configuration.instanceName;
   report.line( configuration.file + ", instance " + std::to_string( configuration.instanceId ) +
                ( name.empty() ? "" : " " + Vexa::stringOf( Orla::String( name ) ) ) +
                ( mode.empty() ? "" : ", " + std::string( mode ) + " mode" ) + "\n" );
}

void reportProgramming( Report & report, Host const & host, Sections const & sections ) {
   reportHeading( report, host.configuration() );
   reportConnections( report, host, {} );
   reportTraps( report, host, {} );
   reportProfiles( report, host );
   if ( sections.natIds ) {
      reportNatIds( report, host, {} );
   }
   if ( sections.rows ) {
      reportRows( report, host, {} );
   }
   if ( sections.ringLines != 0 ) {
      reportRing( report, sections.ringLines );
   }
   reportSummary( report, host );
}

}  // namespace Agent
