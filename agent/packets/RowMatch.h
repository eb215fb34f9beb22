// What rows ask of packets, and what packets have to be asked for.
#pragma once

#include "agent/packets/PacketWalk.h"

#include <Orla/String.h>
#include <Vexa/Value.h>

#include <iterator>
#include <optional>
#include <type_traits>
#include <variant>

namespace Agent {

// What a row of any ingress table asks of a packet.
struct Conditions {
   bool leaving = false;                                 // by the interface, else entering
   std::variant< Orla::String, Netix::IntfId, U16 > at;  // the interface, or its qualifier: as the rows know it
   std::optional< U32 > vrfId;                           // absent: any
   U8 protocol = 0;                                      // 0: any
   bool fragment = false;                                // later fragments only
   std::optional< Netix::IpAndPort > source = {};        // absent: any; with port 0: any port
   std::optional< Netix::IpAndPort > destination = {};

   friend bool operator==( Conditions const &, Conditions const & ) = default;
};

U32 hashOf( Conditions const & conditions );

// Of the rows of each table. `vrfLess`: twice and dynamic rows apply in every VRF.
Conditions conditionsOf( Pfe::IngStaticNatTable::Key const & row, bool vrfLess );
Conditions conditionsOf( Pfe::IngTwiceNatTable::Key const & row, bool vrfLess );

namespace detail {

inline std::optional< U32 > vrfOf( U32 vrfId, bool vrfLess ) { return vrfLess ? std::nullopt : std::optional( vrfId ); }

template< class Tag > inline constexpr bool translatesSource = false;
template<> inline constexpr bool translatesSource< Pfe::IngDynamicSnaptTableTraits > = true;
template<> inline constexpr bool translatesSource< Pfe::IngDynamicSnatAddrOnlyTableTraits > = true;

}  // namespace detail

template< class Tag > Conditions conditionsOf( Pfe::IngDynamicNaptKey< Tag > const & row, bool vrfLess ) {
   return { .leaving = detail::translatesSource< Tag >,
            .at = row.intfQualifier,
            .vrfId = detail::vrfOf( row.vrfId.value(), vrfLess ),
            .protocol = row.protocol,
            .fragment = row.fragment != 0,
            .source = Netix::IpAndPort{ row.firstIp, row.firstPort },
            .destination = Netix::IpAndPort{ row.secondIp, row.secondPort } };
}

template< class Tag > Conditions conditionsOf( Pfe::IngDynamicAddrOnlyKey< Tag > const & row, bool vrfLess ) {
   Conditions conditions{ .leaving = detail::translatesSource< Tag >,
                          .at = row.intfQualifier,
                          .vrfId = detail::vrfOf( row.vrfId.value(), vrfLess ) };
   ( conditions.leaving ? conditions.source : conditions.destination ) = Netix::IpAndPort{ row.ip, 0 };
   return conditions;
}

// What a row may ask for and the packet has, and how well the row matches then: 0 best.
struct Match {
   Conditions conditions;
   unsigned rank = 0;
};
using Matches = std::vector< Match >;

// All that a row at the same place may ask for when it may ask for `conditions`.
Matches matchesOf( Packet const & packet, Conditions const & conditions );

namespace detail {

template< class Table > inline constexpr bool asksForBothPairs = false;
template<> inline constexpr bool asksForBothPairs< Pfe::IngTwiceNatTable > = true;
template<> inline constexpr bool asksForBothPairs< Pfe::IngDynamicSnaptTable > = true;
template<> inline constexpr bool asksForBothPairs< Pfe::IngDynamicDnaptTable > = true;

using Names = std::vector< decltype( Conditions::at ) >;

// As the rows of the table know the interface.
template< class Table > Names namesOf( Netix::IntfId intf, Interfaces const & interfaces ) {
   if constexpr ( std::is_same_v< Table, Pfe::IngStaticNatTable > ) {
      return { intf.name() };
   } else if constexpr ( std::is_same_v< Table, Pfe::IngTwiceNatTable > ) {
      return { intf };
   } else {
      Names names;
      auto const & all = interfaces.qualifiers;
      for ( auto i = all.lower_bound( { intf, 0 } ); i != all.end() && i->first == intf; ++i ) {
         names.emplace_back( i->second );
      }
      return names;
   }
}

}  // namespace detail

// All that a row of the table may ask for.
template< class Table > Matches matchesOf( Packet const & packet, Interfaces const & interfaces ) {
   Matches all;
   for ( bool const leaving : { true, false } ) {
      auto const intf = leaving ? packet.out : packet.in;
      Conditions conditions{ .leaving = leaving, .at = {}, .vrfId = {}, .protocol = packet.protocol };
      conditions.vrfId = std::is_same_v< Table, Pfe::IngStaticNatTable >
                            ? packet.vrfId
                            : detail::vrfOf( packet.vrfId, interfaces.vrfLess );
      if ( leaving || detail::asksForBothPairs< Table > ) {
         conditions.source = packet.source;
      }
      if ( !leaving || detail::asksForBothPairs< Table > ) {
         conditions.destination = packet.destination;
      }
      for ( auto const & name :
            intf == Netix::IntfId() ? detail::Names() : detail::namesOf< Table >( intf, interfaces ) ) {
         conditions.at = name;
         std::ranges::copy( matchesOf( packet, conditions ), std::back_inserter( all ) );
      }
   }
   return all;
}

}  // namespace Agent
