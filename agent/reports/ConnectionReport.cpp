#include "agent/basics/Text.h"
#include "agent/host/NatIdNeeds.h"
#include "agent/reports/HostReport.h"
#include "agent/reports/InOrder.h"

#include <Vexa/Value.h>

#include <algorithm>
#include <ctime>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <variant>

namespace Agent {

namespace {

using Kind = Table::Kind;
using PfeHelper::NatHwResult;

// --- NAT ids ---------------------------------------------------------------------------------------------------------

// Of the row; absent when it holds none.
std::optional< Pfe::NatId > natIdOf( Host const & host, Pfe::IngNatTableKey const & row ) {
   auto const matchKey = matchKeyOf( row );
   auto const * const holders = host.programmer().natIdManager()->matchKeyToIngKeySet().find( matchKey );
   auto const * const id = host.natIdInfo().matchKeyToNatId().find( matchKey );
   return holders && id && holders->entryHas( row ) ? std::optional( *id ) : std::nullopt;
}

void appendId( std::string & ids, std::optional< Pfe::NatId > id ) {
   if ( id ) {
      ids += ids.empty() ? "" : " ";
      Vexa::append( ids, *id );
   }
}

// Adds what the chip counted under the id, if it counts.
void addHits( std::optional< Asic::ChipHits > & sum, Host const & host, std::optional< Pfe::NatId > id ) {
   auto const hits = id ? host.hitsOf( *id ) : std::nullopt;
   if ( hits ) {
      auto & total = sum ? *sum : sum.emplace();
      total.packets += hits->packets;
      total.bytes += hits->bytes;
      total.lastPacketNanoseconds = std::max( total.lastPacketNanoseconds, hits->lastPacketNanoseconds );
   }
}

// "2026-11-23T20:15:04Z" (RFC 3339); empty: never.
std::string timeText( U64 nanosecondsSinceEpoch ) {
   auto const seconds = static_cast< std::time_t >( nanosecondsSinceEpoch / 1'000'000'000 );
   std::tm utc{};
   std::string text( sizeof "0000-00-00T00:00:00Z", '\0' );
   text.resize( seconds == 0 || !gmtime_r( &seconds, &utc )
                   ? 0
                   : std::strftime( text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc ) );
   return text;
}

// --- What became of a connection -------------------------------------------------------------------------------------

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

// The state of the rewrite that the entry was not sent for; settled: of none.
Asic::EntryState stateOfRewrite( Asic::ReferringEntry const & entry ) {
   auto state = Asic::EntryState::settled;
   entry.egrHdl.forEach( [ & ]( Asic::EntryHandle::PtrConst const & handle, bool failureCounts ) {
      if ( failureCounts && state == Asic::EntryState::settled && Asic::isFailure( handle->state() ) ) {
         state = handle->state();
      }
   } );
   return state;
}

// Why the row is not in the hardware; empty when it is. A row that was never written is one of a rule that was refused,
// which happens for want of a NAT id only.
std::string faultOf( Pfe::IngNatTableKey const & row, NatTables const & tables ) {
   std::string fault;
   tables.forEachIngress( [ & ]( auto const & table ) {
      using Key = typename std::remove_cvref_t< decltype( table ) >::Key;
      auto const * const key = std::get_if< Key >( &row.storage() );
      if ( !key ) {
         return;
      }
      auto const * const handle = table.entryHandle( *key );
      if ( !handle ) {
         fault = "no NAT id was free";
      } else if ( handle->state() != Asic::EntryState::settled ) {
         auto const ofRewrite = stateOfRewrite( *table.entry( *key ) );
         bool const isRewrite = ofRewrite != Asic::EntryState::settled;
         fault.append( sideOf( *key ) )
            .append( isRewrite ? " rewrite " : " row " )
            .append( stateText( isRewrite ? ofRewrite : handle->state() ) );
      }
   } );
   return fault;
}

// Why a rule has no result for a reason of its own; empty when its rows have to tell.
std::string_view reasonOf( Connection const & connection, NatHwResult const * result, Host const & host ) {
   if ( host.isDeleted() ) {
      return "all rules were deleted";
   }
   if ( isTranslatedElsewhere( connection, host.configuration().settings ) ) {
      return "full-cone connections are translated elsewhere";
   }
   return result && *result == NatHwResult::rejectedMulticast ? whyInvalid( connection ) : "";
}

struct State {
   std::string_view result;  // in a word
   std::string reason;       // empty when it is programmed
};

// At rest.
State stateOf( Connection const & connection, Host const & host ) {
   auto const * const result = host.resultOf( connection );
   State state{ .result = result ? resultText( *result ) : "no result",
                .reason = std::string( reasonOf( connection, result, host ) ) };
   if ( !state.reason.empty() || ( result && *result == NatHwResult::programmed ) ) {
      return state;
   }
   for ( auto const & row : ingressRowsOf( connection, host.configuration().settings ) ) {
      auto const fault = faultOf( row, host.tables() );
      if ( fault != state.reason ) {
         state.reason += ( fault.empty() || state.reason.empty() ? "" : ", " ) + fault;
      }
   }
   return state;
}

// --- Rows of the report ----------------------------------------------------------------------------------------------

// What a connection has beside its addresses.
struct Conditions {
   U32 vrfId = 0;
   U16 vlanId = 0;               // 0: none
   std::string accessList = {};  // empty: none
   JsonArray filters = {};       // that apply
   bool hasFiltersDisabled = false;
};

Json filterJson( U32 sequence, Ip::Nat::NatFilter const & filter ) {
   JsonObject json{ { "sequence", sequence } };
   for ( auto const & [ name, prefix ] :
         { std::pair( "source", &filter.source ), std::pair( "destination", &filter.destination ) } ) {
      if ( prefix->mask != Netix::IpAddr() ) {
         json[ name ] = textOf( *prefix );
      }
   }
   for ( auto const & [ name, port ] :
         { std::pair( "sourcePort", filter.sourcePort ), std::pair( "destinationPort", filter.destinationPort ) } ) {
      if ( port != 0 ) {
         json[ name ] = port;
      }
   }
   return json;
}

Conditions conditionsOf( StaticRule const & rule ) {
   Conditions conditions{ .vrfId = rule.entry->vrfId(),
                          .vlanId = rule.entry->vlanId(),
                          .accessList = std::string( rule.entry->aclName().text() ),
                          .hasFiltersDisabled = rule.entry->filtersDisabled() };
   for ( auto const & [ sequence, filter ] : rule.entry->filters() ) {
      conditions.filters.push_back( filterJson( sequence, filter ) );
   }
   return conditions;
}
Conditions conditionsOf( TwiceRule const & rule ) {
   return { .vrfId = rule.entry->vrfId(), .vlanId = rule.entry->vlanId() };
}
Conditions conditionsOf( DynamicRule const & rule ) { return { .vrfId = rule.entry->vrfId() }; }

// By the entry, then by the line that it was learned from, then by kind and key.
struct ConnectionOrder {
   using Item = Connection const *;
   using Mark = Connection;
   static Mark mark( Item item ) { return *item; }
   static bool isBehind( Item item, Mark const & mark ) { return isBefore( &mark, item ); }
   static bool isBefore( Item a, Item b ) {
      auto const place = []( Connection const & connection ) {
         return std::tuple( connection.index.value_or( std::numeric_limits< U32 >::max() ), connection.line,
                            connection.rule.index() );
      };
      auto const placeOfA = place( *a );
      auto const placeOfB = place( *b );
      return placeOfA != placeOfB ? placeOfA < placeOfB
                                  : std::visit(
                                       [ & ]( auto const & rule ) {
                                          using Rule = std::remove_cvref_t< decltype( rule ) >;
                                          return rule.key < std::get< Rule >( b->rule ).key;
                                       },
                                       a->rule );
   }
};

class ConnectionSource : public RowSource {
 public:
   explicit ConnectionSource( Host const & host )
      : host_( host ), inOrder_( host, [ & ]( auto const & take ) {
           for ( auto const & connection : host_.configuration().connections ) {
              take( &connection );
           }
        } ) {}

   bool next( Table & rows ) final {
      for ( int i = 0; i < rowsOfAPiece; ++i ) {
         auto const connection = inOrder_.next();
         if ( !connection ) {
            return false;
         }
         // Of the entry, or of the line that it was learned from.
         ( *connection )->index ? rows.number( *( *connection )->index ) : rows.cell( "" );
         ( *connection )->line == 0 ? rows.cell( "" ) : rows.number( ( *connection )->line );
         add( rows, **connection );
      }
      return true;
   }
   void rewind() final { inOrder_.rewind(); }

 protected:
   virtual void add( Table & row, Connection const & connection ) const = 0;
   Host const & host() const { return host_; }

 private:
   Host const & host_;
   InOrder< ConnectionOrder > inOrder_;
};

class Connections final : public ConnectionSource {
 public:
   using ConnectionSource::ConnectionSource;

   std::vector< Table::Column > columns() const override {
      return { { "entry", Kind::number },
               { "line", Kind::number },
               { "kind" },
               { "interface" },
               { "vrf", Kind::number, true },
               { "vlan", Kind::number, true },
               { "accessList", Kind::text, true },
               { "target" },
               { "protocol" },
               { "local" },
               { "global" },
               { "peer" },
               { "natIds", Kind::numbers },
               { "fragmentIds", Kind::numbers },
               { "packets", Kind::number },
               { "bytes", Kind::number },
               { "lastPacket" },
               { "filters", Kind::json },
               { "filtersDisabled", Kind::json },
               { "result" },
               { "reason" } };
   }

 private:
   void add( Table & row, Connection const & connection ) const override {
      auto const text = textOf( connection );
      auto const conditions = std::visit( []( auto const & rule ) { return conditionsOf( rule ); }, connection.rule );
      auto const & settings = host().configuration().settings;
      auto const number = [ & ]( U64 value ) { value == 0 ? row.cell( "" ) : row.number( value ); };
      row.cell( text.kind );
      row.cell( text.intf.name().text() );
      number( conditions.vrfId );
      number( conditions.vlanId );
      row.cell( conditions.accessList );
      row.cell( text.target );
      row.cell( protocolText( text.protocol ) );
      row.cell( text.local );
      row.cell( text.global );
      row.cell( text.peer );
      // Of the connection's own target, then of the replies; those of later fragments others may share.
      std::string natIds;
      std::string fragmentNatIds;
      std::optional< Asic::ChipHits > hits;
      for ( auto const & ingressRow : ingressRowsOf( connection, settings ) ) {
         auto const natId = natIdOf( host(), ingressRow );
         appendId( natIds, natId );
         addHits( hits, host(), natId );
         if ( settings.fragmentation && !ignoresPorts( ingressRow ) ) {
            appendId( fragmentNatIds, natIdOf( host(), fragmentRowOf( ingressRow ) ) );
         }
      }
      row.cell( natIds );
      row.cell( fragmentNatIds );
      hits ? row.number( hits->packets ) : row.cell( "" );
      hits ? row.number( hits->bytes ) : row.cell( "" );
      row.cell( hits ? timeText( hits->lastPacketNanoseconds ) : "" );
      row.cell( conditions.filters.empty() ? "" : lineOf( conditions.filters ) );
      row.cell( conditions.hasFiltersDisabled ? "true" : "" );
      auto const state = stateOf( connection, host() );
      row.cell( state.result );
      row.cell( state.reason );
   }
};

class Statuses final : public ConnectionSource {
 public:
   using ConnectionSource::ConnectionSource;

   std::vector< Table::Column > columns() const override {
      return { { "entry", Kind::number }, { "line", Kind::number }, { "result" }, { "reason" } };
   }

 private:
   void add( Table & row, Connection const & connection ) const override {
      auto const state = stateOf( connection, host() );
      row.cell( state.result );
      row.cell( state.reason );
   }
};

}  // namespace

void reportConnections( Report & report, Host const & host, Selection const & selection ) {
   report.rows( "connections", selected( std::make_unique< Connections >( host ), selection ) );
}

void reportStatuses( Report & report, Host const & host, Selection const & selection ) {
   report.rows( "statuses", selected( std::make_unique< Statuses >( host ), selection ) );
}

}  // namespace Agent
