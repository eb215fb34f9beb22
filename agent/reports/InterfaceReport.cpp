#include "agent/reports/InterfaceReport.h"

#include "agent/basics/Text.h"
#include "agent/reports/HostReport.h"

#include <algorithm>
#include <map>
#include <tuple>
#include <variant>
#include <vector>

namespace Agent {

namespace {

using Kind = Table::Kind;
using SwTableKey = Pfe::NatSwTableStaticKey;

// "1-3,7" of sorted numbers.
std::string rangesOf( std::vector< U16 > const & numbers ) {
   std::string text;
   for ( auto first = numbers.begin(); first != numbers.end(); ) {
      auto last = first;
      while ( std::next( last ) != numbers.end() && *std::next( last ) == *last + 1 ) {
         ++last;
      }
      text += ( text.empty() ? "" : "," ) + std::to_string( *first );
      if ( last != first ) {
         text += '-' + std::to_string( *last );
      }
      first = std::next( last );
   }
   return text;
}

std::string vlansOf( Pfe::NatSwTableStaticEntry const & entry ) {
   std::vector< U16 > vlans;
   entry.vlanId().forEach( [ & ]( Bridging::VlanId vlanId ) { vlans.push_back( vlanId.value() ); } );
   std::ranges::sort( vlans );
   return rangesOf( vlans );
}

std::string listOf( std::vector< std::size_t > const & numbers ) {
   std::string text;
   for ( auto const number : numbers ) {
      text += text.empty() ? "" : " ";
      Vexa::append( text, number );
   }
   return text;
}

// Which connections feed which entries, both by the numbers that people know them by: the connections' own, and the
// place of the entry in an order for people, each forward one before its replies.
class Dependencies {
 public:
   Dependencies( Configuration const & configuration, Pfe::NatSwTableConfig const & swTableConfig,
                 Pfe::NatProgrammerStaticMap const & map )
      : map_( map ) {
      forEachStaticRule( configuration, [ & ]( U32 index, StaticRule const & rule ) {
         numberOfConnection_.emplace( rule.key, index );
      } );
      swTableConfig.staticEntry().forEach( [ & ]( SwTableKey const & key, auto const & ) { keys_.push_back( key ); } );
      std::ranges::sort( keys_, {}, []( SwTableKey const & key ) {
         return std::tuple( key.vrfId, key.reverse ? key.ipAndPortNew : key.ipAndPortOld,
                            key.reverse ? key.ipAndPortOld : key.ipAndPortNew, key.protocol, key.aclName, key.reverse,
                            key.vlanId, key.mcast );
      } );
      for ( auto const & key : keys_ ) {
         numberOfEntry_.emplace( key, numberOfEntry_.size() + 1 );
      }
   }

   std::vector< SwTableKey > const & keys() const { return keys_; }

   std::vector< std::size_t > fedBy( Pfe::NatProgrammerStaticKey const & connection ) const {
      auto const fed = map_.progKeyToSwTableKeysMap( connection );
      return fed ? numbersOf( fed->entry(), numberOfEntry_ ) : std::vector< std::size_t >();
   }

   std::vector< std::size_t > feedersOf( SwTableKey const & entry ) const {
      auto const feeders = map_.swTableKeyToProgKeysMap( entry );
      return feeders ? numbersOf( feeders->entry(), numberOfConnection_ ) : std::vector< std::size_t >();
   }

 private:
   template< class Keys, class Numbers >
   static std::vector< std::size_t > numbersOf( Keys const & keys, Numbers const & numberOf ) {
      std::vector< std::size_t > numbers;
      keys.forEach( [ & ]( auto const & key ) { numbers.push_back( numberOf.at( key ) ); } );
      std::ranges::sort( numbers );
      return numbers;
   }

   Pfe::NatProgrammerStaticMap const & map_;
   std::vector< SwTableKey > keys_;
   std::map< SwTableKey, std::size_t > numberOfEntry_;
   std::map< Pfe::NatProgrammerStaticKey, std::size_t > numberOfConnection_;
};

Table connectionsOf( Configuration const & configuration, Dependencies const & dependencies ) {
   Table table( { { "entry", Kind::number },
                  { "interface" },
                  { "vlan", Kind::number },
                  { "target" },
                  { "protocol" },
                  { "local" },
                  { "global" },
                  { "feeds", Kind::numbers } } );
   forEachStaticRule( configuration, [ & ]( U32 index, StaticRule const & rule ) {
      auto const & connection = rule.entry->connection();
      auto const inside = ingressRowOf( rule, Ip::Nat::NatTarget::source );
      table.number( index );
      table.cell( inside.natIntf.text() );
      table.number( rule.entry->vlanId() );
      table.cell( targetText( connection.target ) );
      table.cell( protocolText( connection.protocol ) );
      table.cell( textOf( inside.ipAndPortOld ) );
      table.cell( textOf( inside.ipAndPortNew ) );
      table.cell( listOf( dependencies.fedBy( rule.key ) ) );
   } );
   return table;
}

Table entriesOf( Pfe::NatSwTableConfig const & swTableConfig, Dependencies const & dependencies ) {
   Table table( { { "swEntry", Kind::number },
                  { "direction" },
                  { "vrf" },
                  { "accessList" },
                  { "protocol" },
                  { "matches" },
                  { "becomes" },
                  { "fragments" },
                  { "vlans" },
                  { "fedBy", Kind::numbers } } );
   std::size_t number = 0;
   for ( auto const & key : dependencies.keys() ) {
      auto const entry = swTableConfig.staticEntry( key );
      table.number( ++number );
      table.cell( key.reverse ? "reverse" : "forward" );
      table.cell( key.vrfId == 0 ? "" : std::to_string( key.vrfId ) );
      table.cell( key.aclName.text() );
      table.cell( protocolText( key.protocol ) );
      table.cell( textOf( key.ipAndPortOld ) );
      table.cell( textOf( key.ipAndPortNew ) );
      table.cell( entry->fragment() ? "matched" : "" );
      table.cell( vlansOf( *entry ) );
      table.cell( listOf( dependencies.feedersOf( key ) ) );
   }
   return table;
}

// The connections of other kinds, by their number in the file or their line in a listing, and the traps.
Table ignoredOf( Configuration const & configuration ) {
   Table table( { { "entry", Kind::number },
                  { "line", Kind::number },
                  { "kind" },
                  { "interface" },
                  { "protocol" },
                  { "local" },
                  { "global" },
                  { "peer" },
                  { "rule" } } );
   for ( auto const & connection : configuration.connections ) {
      if ( !std::holds_alternative< StaticRule >( connection.rule ) ) {
         auto const text = textOf( connection );
         connection.index ? table.number( *connection.index ) : table.cell( "" );
         connection.line == 0 ? table.cell( "" ) : table.number( connection.line );
         table.cell( text.kind );
         table.cell( Vexa::stringOf( text.intf ) );
         table.cell( protocolText( text.protocol ) );
         table.cell( text.local );
         table.cell( text.global );
         table.cell( text.peer );
         table.cell( "" );
      }
   }
   for ( auto const & trap : configuration.traps ) {
      table.cell( "" );
      table.cell( "" );
      table.cell( "trap" );
      table.cell( Vexa::stringOf( trap.key.natIntf ) );
      for ( int empty = 0; empty < 4; ++empty ) {
         table.cell( "" );
      }
      table.cell( trap.key.key.stringValue() );
   }
   return table;
}

}  // namespace

void reportInterfaceMode( Report & report, InterfaceHost const & host, std::size_t ringLines ) {
   auto const & configuration = host.configuration();
   auto const & swTableConfig = host.swTableConfig();
   reportHeading( report, configuration, "interface" );
   Dependencies const dependencies( configuration, swTableConfig, host.staticMap() );
   report.table( "connections", connectionsOf( configuration, dependencies ) );
   report.line( "" );
   report.table( "swTableEntries", entriesOf( swTableConfig, dependencies ) );
   auto const ignored = ignoredOf( configuration );
   if ( ignored.rowCount() != 0 ) {
      report.line( "\nInterface mode ignores:" );
      report.table( "ignored", ignored );
   }
   if ( ringLines != 0 ) {
      reportRing( report, ringLines );
   }
   auto const connections = configuration.rules->staticEntry().count();
   auto const entries = dependencies.keys().size();
   auto const shared = static_cast< std::size_t >( std::ranges::count_if(
      dependencies.keys(), [ & ]( SwTableKey const & key ) { return dependencies.feedersOf( key ).size() > 1; } ) );
   report.fact( "summary", { { "connections", connections },
                             { "swTableEntries", entries },
                             { "sharedEntries", shared },
                             { "ignored", ignored.rowCount() } } );
   report.line( "\n" + counted( connections, "static connection" ) + " in " +
                counted( entries, "software-table entry", "software-table entries" ) + ", " + std::to_string( shared ) +
                " of them shared; " + std::to_string( ignored.rowCount() ) + " ignored" );
}

}  // namespace Agent
