#include "agent/basics/Text.h"

#include <algorithm>
#include <bit>
#include <iterator>
#include <variant>

namespace Agent {

namespace {

constexpr char const * laterFragments = " later fragments";

std::string vrfText( U32 vrfId ) { return vrfId == 0 ? "" : " vrf " + std::to_string( vrfId ); }

std::string qualifierText( U16 qualifier ) { return qualifier == 0 ? "" : " qualifier " + std::to_string( qualifier ); }

template< class Tag > std::string naptText( Pfe::IngDynamicNaptKey< Tag > const & row ) {
   return textOf( { row.firstIp, row.firstPort } ) + " > " + textOf( { row.secondIp, row.secondPort } ) + " " +
          protocolText( row.protocol ) + vrfText( row.vrfId.value() ) + qualifierText( row.intfQualifier ) +
          ( row.fragment != 0 ? laterFragments : "" );
}

template< class Tag > std::string addressText( Pfe::IngDynamicAddrOnlyKey< Tag > const & row ) {
   return textOf( { row.ip, 0 } ) + vrfText( row.vrfId.value() ) + qualifierText( row.intfQualifier );
}

}  // namespace

std::string textOf( Netix::IpAndPort const & pair ) {
   std::string text;
   Vexa::append( text, pair.ip );
   if ( pair.port != 0 ) {
      text += ':';
      Vexa::append( text, pair.port );
   }
   return text;
}

std::string textOf( Netix::IpAddrWithFullMask const & prefix ) {
   return prefix.mask == Netix::IpAddr()
             ? ""
             : textOf( { prefix.address, 0 } ) + "/" + std::to_string( std::popcount( prefix.mask.value() ) );
}

std::string protocolText( U8 protocol ) {
   auto const * const found = std::ranges::find( protocolNames, protocol, &ProtocolName::number );
   return found == std::end( protocolNames ) ? std::to_string( protocol ) : std::string( found->name );
}

std::string_view targetText( Ip::Nat::NatTarget target ) {
   return target == Ip::Nat::NatTarget::source ? "source" : "destination";
}

std::string_view resultText( PfeHelper::NatHwResult result ) {
   static constexpr char const * names[] = { "pending", "programmed", "failed", "unsupported", "no space", "rejected" };
   auto const place = static_cast< std::size_t >( result );
   return place < std::size( names ) ? names[ place ] : "unknown";
}

std::string_view stateText( Asic::EntryState state ) {
   switch ( state ) {
   case Asic::EntryState::none: return "none";
   case Asic::EntryState::pending: return "pending";
   case Asic::EntryState::settled: return "settled";
   case Asic::EntryState::failed: return "failed";
   case Asic::EntryState::full: return "no space";
   }
   return "unknown";
}

std::string counted( std::size_t count, std::string_view one, std::string_view many ) {
   auto const plural = many.empty() ? std::string( one ) + 's' : std::string( many );
   return std::to_string( count ) + ' ' + ( count == 1 ? std::string( one ) : plural );
}

std::string fieldsOf( Pfe::IngStaticNatTable::Key const & row ) {
   return std::string( row.natIntf.text() )
      .append( " " )
      .append( targetText( row.target ) )
      .append( " " + textOf( row.ipAndPortOld ) + " -> " + textOf( row.ipAndPortNew ) + " " +
               protocolText( row.protocol ) )
      .append( vrfText( row.vrfId ) )
      .append( row.fragment ? laterFragments : "" )
      .append( row.mcast ? " multicast" : "" );
}

std::string fieldsOf( Pfe::IngTwiceNatTable::Key const & row ) {
   return std::string( row.natIntf.name().text() )
      .append( row.forward ? " forward " : " reverse " )
      .append( textOf( row.srcIpAndPortOld ) + " > " + textOf( row.dstIpAndPortOld ) + " -> " +
               textOf( row.srcIpAndPortNew ) + " > " + textOf( row.dstIpAndPortNew ) )
      .append( vrfText( row.vrfId ) )
      .append( row.fragment ? laterFragments : "" )
      .append( row.mcast ? " multicast" : "" );
}

std::string fieldsOf( Pfe::IngDynamicSnaptTable::Key const & row ) { return "source " + naptText( row ); }
std::string fieldsOf( Pfe::IngDynamicDnaptTable::Key const & row ) { return "destination " + naptText( row ); }
std::string fieldsOf( Pfe::IngDynamicSnatAddrOnlyTable::Key const & row ) { return "source " + addressText( row ); }
std::string fieldsOf( Pfe::IngDynamicDnatAddrOnlyTable::Key const & row ) {
   return "destination " + addressText( row );
}

std::string fieldsOf( Pfe::IngNatTableKey const & row ) {
   return std::visit( []( auto const & key ) { return fieldsOf( key ); }, row.storage() );
}

}  // namespace Agent
