#include "agent/configuration/RuleClaims.h"

#include "agent/basics/Text.h"

#include <algorithm>
#include <utility>
#include <variant>

namespace Agent {

namespace {

struct Texts {
   char const * oneRow;  // what rows tell apart
   char const * key;
   char const * oneKey;
   char const * onePacket;  // what tells apart which rule a packet is for
};

Texts textsFor( StaticRule const & ) {
   return {
      "one entry per interface, VRF, protocol and pair of addresses and ports, whichever side is written",
      "interface, access list, internal address and internal port",
      "one entry for each of them; the protocol does not tell entries apart",
      "one entry per interface, VRF, VLAN, protocol (0: any), access list, filters and pair of addresses and ports, on "
      "either side" };
}
Texts textsFor( TwiceRule const & ) {
   return { "one entry per interface, VRF and pairs of addresses and ports",
            "interface and internal addresses and ports", "one entry for each of them",
            "one entry per interface, VRF, VLAN and pairs of addresses and ports, on either side" };
}
Texts textsFor( DynamicRule const & rule ) {
   return { rule.entry->connection().addrOnly
               ? "one entry per VRF, qualifier and address"
               : "one entry per VRF, qualifier, protocol and pairs of addresses and ports",
            "interface, protocol, source and internal destination", "one entry for each of them",
            "one entry per VRF, qualifier, protocol (0: any) and pairs of addresses and ports" };
}

void takeOutTranslation( Pfe::IngStaticNatTable::Key & row ) { row.ipAndPortNew = {}; }
void takeOutTranslation( Pfe::IngTwiceNatTable::Key & row ) { row.srcIpAndPortNew = row.dstIpAndPortNew = {}; }
template< class DynamicKey > void takeOutTranslation( DynamicKey & ) {}

// Yields it; 0: any.
template< class Key > U8 takeOutProtocol( Key & row ) {
   if constexpr ( requires { row.protocol; } ) {
      return std::exchange( row.protocol, U8{ 0 } );
   }
   return 0;
}

// The access list and the filters that a packet must pass, as one text.
Orla::String conditionOf( StaticRule const & rule ) {
   auto const & entry = *rule.entry;
   if ( entry.filtersDisabled() || entry.filters().empty() ) {
      return entry.aclName();
   }
   std::vector< std::string > filters;
   for ( auto const & [ sequence, filter ] : entry.filters() ) {
      filters.push_back( Vexa::stringOf( filter ) );
   }
   std::ranges::sort( filters );
   std::string all = Vexa::stringOf( entry.aclName() );
   for ( auto const & filter : filters ) {
      all += filter;
   }
   return Orla::String( all );
}
template< class AnyRule > Orla::String conditionOf( AnyRule const & ) { return {}; }

U16 vlanOf( StaticRule const & rule ) { return rule.entry->vlanId(); }
U16 vlanOf( TwiceRule const & rule ) { return rule.entry->vlanId(); }
U16 vlanOf( DynamicRule const & ) { return 0; }

// Whether both derive a row in common.
bool sharesRow( Connection const & a, Connection const & b, Settings const & settings ) {
   auto const rows = ingressRowsOf( a, settings );
   auto const others = ingressRowsOf( b, settings );
   return std::ranges::find_first_of( rows, others ) != rows.end();
}

// What the row of that place among the connection's matches, in words.
std::string packetsOf( Connection const & connection, std::size_t place ) {
   auto const text = textOf( connection );
   bool const isOwnEntering = text.target == targetText( Ip::Nat::NatTarget::destination );
   return isOwnEntering == ( place == 0 ) ? "to " + text.global : "from " + text.local;
}

}  // namespace

template< class AnyRule >
std::optional< U32 > RuleClaims::claimMatched( Pfe::IngNatTableKey const & row, AnyRule const & rule, U32 index ) {
   U8 protocol = 0;
   Matched matched{ {}, conditionOf( rule ), vlanOf( rule ) };
   std::visit(
      [ & ]( auto key ) {
         takeOutTranslation( key );
         protocol = takeOutProtocol( key );
         matched.row = key;
      },
      row.storage() );
   auto & last = lastOfMatched_.refOrEmplace( matched ).first;
   for ( auto place = last; place != 0; place = holders_[ place - 1 ].before ) {
      auto const & other = holders_[ place - 1 ];
      if ( other.protocol == protocol || other.protocol == 0 || protocol == 0 ) {
         return other.index;
      }
   }
   holders_.push_back( { index, last, protocol } );
   last = static_cast< U32 >( holders_.size() );
   return std::nullopt;
}

std::optional< U32 > RuleClaims::claimOwn( StaticRule const & rule, U32 index, Configuration const & configuration ) {
   auto const target = rule.entry->connection().target;
   auto const claimBoth = [ & ]( StaticRule const & one, U32 of ) {
      // The row of target source tells what the other one is.
      auto const [ owner, isNew ] = indexOfRow_.refOrEmplace( ingressRowOf( one, Ip::Nat::NatTarget::source ) );
      if ( !isNew ) {
         return std::optional( owner );
      }
      owner = of;
      return claimMatched( ingressRowOf( one, one.entry->connection().target ), one, of );
   };
   bool const sufficed = keysSuffice_;
   keysSuffice_ = sufficed && rule.entry->aclName().text().empty() && target == target_.value_or( target );
   target_ = target;
   if ( sufficed && !keysSuffice_ ) {
      forEachStaticRule( configuration, [ & ]( U32 of, StaticRule const & one ) { claimBoth( one, of ); } );
   }
   return keysSuffice_ ? std::nullopt : claimBoth( rule, index );
}

// A twice rule's key holds what its own row matches.
std::optional< U32 > RuleClaims::claimOwn( TwiceRule const &, U32, Configuration const & ) { return std::nullopt; }

std::optional< U32 > RuleClaims::claimOwn( DynamicRule const & rule, U32 index, Configuration const & configuration ) {
   return claimMatched( *ingressRowsOf( rule, configuration.settings ).begin(), rule, index );
}

template< class AnyRule >
std::optional< RuleClaims::Conflict > RuleClaims::claim( AnyRule const & rule, Connection const & connection,
                                                         Configuration const & configuration, bool inWords ) {
   auto const index = *connection.index;
   bool const isKeyTaken = bool( configured( *configuration.rules, rule.key ) );
   std::size_t place = 0;
   std::optional< U32 > other;
   if ( !isKeyTaken ) {
      other = claimOwn( rule, index, configuration );
      auto const rows = ingressRowsOf( rule, configuration.settings );
      for ( auto row = rows.begin(); !other && ++row != rows.end(); ++place ) {
         other = claimMatched( *row, rule, index );
      }
   }
   if ( !isKeyTaken && !other ) {
      return std::nullopt;
   }
   if ( !inWords ) {
      return Conflict();
   }
   auto const found = std::ranges::find_if( configuration.connections, [ & ]( Connection const & one ) {
      auto const * const same = std::get_if< AnyRule >( &one.rule );
      return isKeyTaken ? same && same->key == rule.key : one.index == other;
   } );
   auto const texts = textsFor( rule );
   // What one that was refused had claimed is still claimed.
   bool const isRefused = found == configuration.connections.end();
   auto const entry = " entry " + std::to_string( isRefused ? *other : *found->index );
   if ( !isRefused && sharesRow( connection, *found, configuration.settings ) ) {
      return Conflict{ "derives the rows of" + entry, texts.oneRow };
   }
   if ( isKeyTaken ) {
      return Conflict{ std::string( "has the " ) + texts.key + " of" + entry, texts.oneKey };
   }
   return Conflict{ "translates packets " + packetsOf( connection, place ) + " that" + entry + " translates otherwise",
                    texts.onePacket };
}

std::optional< RuleClaims::Conflict > RuleClaims::claim( Connection const & connection,
                                                         Configuration const & configuration, bool inWords ) {
   return std::visit( [ & ]( auto const & rule ) { return claim( rule, connection, configuration, inWords ); },
                      connection.rule );
}

}  // namespace Agent
