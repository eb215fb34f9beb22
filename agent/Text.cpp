#include "agent/Text.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace Agent {

void append( std::string & out, U64 number ) {
   std::array< char, 20 > digits{};
   out.append( digits.data(), std::to_chars( digits.data(), digits.data() + digits.size(), number ).ptr );
}

std::string textOf( Netix::IpAndPort const & pair ) {
   std::string text;
   for ( unsigned shift = 32; shift > 0; ) {
      shift -= 8;
      append( text, U64{ pair.ip.value() >> shift & 0xff } );
      text += shift > 0 ? "." : "";
   }
   if ( pair.port != 0 ) {
      text += ':';
      append( text, U64{ pair.port } );
   }
   return text;
}

std::string protocolText( U8 protocol ) {
   auto const * const found = std::ranges::find( protocolNames, protocol, &ProtocolName::number );
   return found == std::end( protocolNames ) ? std::to_string( protocol ) : std::string( found->name );
}

std::string_view targetText( Ip::Nat::NatTarget target ) {
   return target == Ip::Nat::NatTarget::source ? "source" : "destination";
}

std::string_view resultText( PfeHelper::NatHwResult result ) {
   constexpr std::array< std::string_view, 6 > names{ "pending",     "programmed", "failed",
                                                      "unsupported", "no space",   "rejected" };
   auto const place = static_cast< std::size_t >( result );
   return place < names.size() ? names[ place ] : "unknown";
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

std::string fieldsOf( Pfe::IngStaticNatTable::Key const & row ) {
   return std::string( row.natIntf.text() )
      .append( " " )
      .append( targetText( row.target ) )
      .append( " " + textOf( row.ipAndPortOld ) + " -> " + textOf( row.ipAndPortNew ) + " " +
               protocolText( row.protocol ) )
      .append( row.vrfId == 0 ? "" : " vrf " + std::to_string( row.vrfId ) )
      .append( row.fragment ? " later fragments" : "" )
      .append( row.mcast ? " multicast" : "" );
}

}  // namespace Agent
