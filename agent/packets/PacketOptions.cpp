#include "agent/packets/PacketOptions.h"

#include "agent/basics/Text.h"
#include "agent/basics/UnusableInput.h"

#include <Netix/VrfId.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

namespace {

template< class Number > std::optional< Number > numberFrom( std::string_view text ) {
   Number number = 0;
   auto const [ end, error ] = std::from_chars( text.data(), text.data() + text.size(), number );
   return error == std::errc{} && end == text.data() + text.size() ? std::optional( number ) : std::nullopt;
}

std::optional< U8 > protocolFrom( std::string_view text ) {
   auto const * const found = std::ranges::find( protocolNames, text, &ProtocolName::name );
   return found == std::end( protocolNames ) || found->number == 0 ? numberFrom< U8 >( text ) : found->number;
}

std::optional< Netix::IpAndPort > pairFrom( std::string_view text ) {
   auto const colon = text.find( ':' );
   auto const ip = Netix::IpAddr::fromText( text.substr( 0, colon ) );
   auto const port = colon == text.npos ? 0 : numberFrom< U16 >( text.substr( colon + 1 ) );
   bool const isPair = ip && port && ( colon == text.npos || *port != 0 );
   return isPair ? std::optional( Netix::IpAndPort{ *ip, *port } ) : std::nullopt;
}

std::optional< Packet::Part > partFrom( std::string_view text ) {
   return text == "first"   ? std::optional( Packet::Part::firstFragment )
          : text == "later" ? std::optional( Packet::Part::laterFragment )
                            : std::nullopt;
}

// How the value of an option is written.
struct Notation {
   char const * name;
   char const * allowed;
};

constexpr Notation interfaces{ "IFACE", "an interface, such as ethernet1, vlan20, port-channel3, loopback0, tunnel1" };
constexpr Notation protocols{ "PROTO", "tcp, udp, icmp, gre, esp, sctp, or a number from 0 to 255" };
constexpr Notation pairs{
   "ADDR[:PORT]", "an IPv4 address, such as 192.0.2.1, or one with a port from 1 to 65535, such as 192.0.2.1:80" };
constexpr Notation parts{ "PART", "first, later" };

// An option whose text is turned into a value by from( text ).
template< auto from, Notation const & notation, class Value >
CLI::Option * add( CLI::App & app, char const * name, char const * what, Value & value ) {
   auto const take = [ name, &value ]( std::string const & given ) {
      auto const taken = from( given );
      if ( !taken ) {
         throw CLI::ValidationError( name, '"' + given + "\"; allowed: " + notation.allowed );
      }
      value = *taken;
   };
   return app.add_option_function< std::string >( name, take, what )->type_name( notation.name );
}

}  // namespace

CLI::Option * addInterfaceOption( CLI::App & app, char const * name, char const * what, Netix::IntfId & intf ) {
   return add< &Netix::IntfId::fromName, interfaces >( app, name, what, intf );
}

void addPacketOptions( CLI::App & app, Packet & packet ) {
   auto & group = *app.add_option_group( "Packet" );
   addInterfaceOption( group, "--in", "Interface that it enters by", packet.in );
   addInterfaceOption( group, "--out", "Interface that it leaves by", packet.out );
   group.add_option( "--vrf", packet.vrfId, "VRF (default 0)" )
      ->type_name( "N" )
      ->check( CLI::Range( U32{ 0 }, static_cast< U32 >( Netix::VrfId::max ) ) );
   add< &protocolFrom, protocols >( group, "--proto", "Protocol by name or number", packet.protocol )->required();
   add< &pairFrom, pairs >( group, "--src", "Source", packet.source )->required();
   add< &pairFrom, pairs >( group, "--dst", "Destination", packet.destination )->required();
   add< &partFrom, parts >( group, "--fragment", "It is the first or a later fragment", packet.part );
}

void requireComplete( Packet const & packet ) {
   if ( packet.in == Netix::IntfId() && packet.out == Netix::IntfId() ) {
      throw UnusableInput( "--in, --out: neither is given; allowed: at least one, since rows apply by interface" );
   }
   constexpr U8 withPorts[] = { 6, 17, 33, 132, 136 };  // TCP, UDP, DCCP, SCTP, UDP-Lite
   bool const isLater = packet.part == Packet::Part::laterFragment;
   bool const needsPorts = !isLater && std::ranges::find( withPorts, packet.protocol ) != std::end( withPorts );
   for ( auto const & [ option, pair ] :
         { std::pair( "--src", packet.source ), std::pair( "--dst", packet.destination ) } ) {
      if ( isLater ? pair.port != 0 : needsPorts && pair.port == 0 ) {
         throw UnusableInput( std::string( option ) + ": " + textOf( pair ) +
                              ( isLater ? "; allowed: no port, since later fragments show none"
                                        : "; allowed: with a port, as every packet of this protocol has one" ) );
      }
   }
}

Packet packetFrom( std::map< std::string, std::string > const & options ) {
   Packet packet;
   CLI::App parser;
   parser.set_help_flag();
   addPacketOptions( parser, packet );
   std::vector< std::string > arguments;
   for ( auto const & [ name, value ] : options ) {
      arguments.insert( arguments.end(), { value, "--" + name } );  // the parser takes them from the end
   }
   try {
      parser.parse( arguments );
   } catch ( CLI::ParseError const & fault ) {
      throw UnusableInput( fault.what() );
   }
   requireComplete( packet );
   return packet;
}

}  // namespace Agent
