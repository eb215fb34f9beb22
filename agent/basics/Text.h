// Values in words.
#pragma once

#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <Asic/EntryState.h>
#include <IpNat/NatStatic.h>
#include <Netix/IntfId.h>
#include <Netix/IpAddrWithFullMask.h>
#include <Netix/IpAndPort.h>
#include <Pfe/NatId.h>
#include <PfeHelper/NatHwResult.h>
#include <Vexa/Value.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>

namespace Agent {

struct ProtocolName {
   U8 number;  // IANA's
   std::string_view name;
};
inline constexpr ProtocolName protocolNames[] = { { 0, "any" },  { 1, "icmp" }, { 6, "tcp" },   { 17, "udp" },
                                                  { 47, "gre" }, { 50, "esp" }, { 132, "sctp" } };

// "10.0.0.1:80", without the port when it is 0.
std::string textOf( Netix::IpAndPort const & pair );
// "10.0.0.0/8", empty for the prefix of all addresses.
std::string textOf( Netix::IpAddrWithFullMask const & prefix );
// The name; the number of a protocol that has none here.
std::string protocolText( U8 protocol );
std::string_view targetText( Ip::Nat::NatTarget target );
std::string_view resultText( PfeHelper::NatHwResult result );
std::string_view stateText( Asic::EntryState state );
// "1 row", "2 rows"; `many` where that takes more than an s.
std::string counted( std::size_t count, std::string_view one, std::string_view many = {} );

namespace detail {

template< class T > std::string fieldText( std::string_view name, T const & value ) {
   if constexpr ( std::is_same_v< T, Netix::IpAndPort > ) {
      return textOf( value );
   } else if constexpr ( std::is_same_v< T, U32 > ) {
      auto const intf = name == "egressIntf" ? Netix::IntfId::fromValue( value ) : std::nullopt;
      return intf ? Vexa::stringOf( *intf ) : std::to_string( value );
   } else {
      return Vexa::stringOf( value );
   }
}

template< class T > void appendField( std::string & out, std::string_view name, T const & value ) {
   if ( value != T() || std::is_same_v< T, Pfe::NatId > ) {
      out.append( out.empty() ? "" : " " ).append( name ).append( "=" ).append( fieldText( name, value ) );
   }
}

}  // namespace detail

// The fields of a key or entry of a table that are set, by name: "natId=3 qualifier=7". Ingress rows, which people read
// most, by what they match: "ethernet1 source 10.0.0.1:80 -> 192.0.2.1:80 tcp".
std::string fieldsOf( Pfe::IngStaticNatTable::Key const & row );
std::string fieldsOf( Pfe::IngTwiceNatTable::Key const & row );
std::string fieldsOf( Pfe::IngDynamicSnaptTable::Key const & row );
std::string fieldsOf( Pfe::IngDynamicDnaptTable::Key const & row );
std::string fieldsOf( Pfe::IngDynamicSnatAddrOnlyTable::Key const & row );
std::string fieldsOf( Pfe::IngDynamicDnatAddrOnlyTable::Key const & row );
std::string fieldsOf( Pfe::IngNatTableKey const & row );
template< Vexa::Described T > std::string fieldsOf( T const & value ) {
   std::string fields;
   std::apply(
      [ & ]( auto... attribute ) { ( detail::appendField( fields, attribute.name, value.*attribute.member ), ... ); },
      T::attributes() );
   return fields;
}

}  // namespace Agent
