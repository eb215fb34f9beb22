#include "agent/JsonMembers.h"

#include "agent/UnusableInput.h"

#include <Bridging/VlanId.h>

#include <charconv>
#include <optional>

namespace Agent {

namespace {

using Kind = JsonDocument::Kind;

// An address and the length behind its slash; absent when `text` is something else.
std::optional< std::pair< Netix::IpAddr, unsigned > > prefixOf( std::string_view text ) {
   auto const slash = text.find( '/' );
   auto const address = Netix::IpAddr::fromText( text.substr( 0, slash ) );
   if ( slash == text.npos || !address ) {
      return std::nullopt;
   }
   auto const digits = text.substr( slash + 1 );
   unsigned length = 0;
   auto const [ end, error ] = std::from_chars( digits.data(), digits.data() + digits.size(), length );
   bool const canonical = digits.size() == 1 || ( digits.size() == 2 && digits[ 0 ] != '0' );
   if ( error != std::errc{} || end != digits.data() + digits.size() || !canonical || length > 32 ) {
      return std::nullopt;
   }
   return std::pair( *address, length );
}

[[noreturn]] void refuseText( JsonValue value, std::string text, std::string_view why, std::string_view allowed ) {
   auto const pointer = value.pointer();
   text = value.file() + ": " + ( pointer.empty() ? "(root)" : pointer ) + ": " + text + " ";
   throw UnusableInput( text.append( why ).append( "; allowed: " ).append( allowed ) );
}

}  // namespace

void refuse( JsonValue value, std::string_view why, std::string_view allowed ) {
   refuseText( value, value.excerpt(), why, allowed );
}

U64 takeNumber( JsonValue value, U64 min, U64 max ) {
   if ( value.kind() != Kind::number || value.number() < min || value.number() > max ) {
      bool const isNumber = value.kind() == Kind::number || value.kind() == Kind::otherNumber;
      refuse( value, isNumber ? "is out of range" : "is no number",
              "a whole number from " + std::to_string( min ) + " to " + std::to_string( max ) );
   }
   return value.number();
}

bool takeFlag( JsonValue value ) {
   if ( value.kind() != Kind::boolean ) {
      refuse( value, "is no boolean", "true, false" );
   }
   return value.flag();
}

std::string_view takeName( JsonValue value ) {
   constexpr std::size_t longest = 255;
   if ( value.kind() != Kind::text || value.text().empty() || value.text().size() > longest ) {
      refuse( value, "is no name", "a text of 1 to 255 bytes" );
   }
   return value.text();
}

Netix::IpAddr takeHost( JsonValue value ) {
   auto const prefix = value.kind() == Kind::text ? prefixOf( value.text() ) : std::nullopt;
   if ( !prefix || prefix->second != 32 || prefix->first == Netix::IpAddr() ) {
      refuse( value, "is no single address", "an IPv4 address other than 0.0.0.0 with /32, such as \"192.0.2.1/32\"" );
   }
   return prefix->first;
}

Netix::IpAddrWithFullMask takePrefix( JsonValue value ) {
   auto const prefix = value.kind() == Kind::text ? prefixOf( value.text() ) : std::nullopt;
   auto const mask = prefix && prefix->second > 0 ? ~U32{ 0 } << ( 32 - prefix->second ) : 0;
   if ( !prefix || ( prefix->first.value() & ~mask ) != 0 ) {
      refuse( value, "is no prefix", "an IPv4 prefix without bits behind its length, such as \"192.0.2.0/24\"" );
   }
   return { .address = prefix->first, .mask = Netix::IpAddr( mask ) };
}

Netix::IntfId takeInterface( JsonValue value ) {
   auto const intf = value.kind() == Kind::text ? Netix::IntfId::fromName( value.text() ) : std::nullopt;
   bool const isVlan = intf && intf->kind() == Netix::IntfKind::vlan;
   if ( !intf || ( isVlan && ( intf->number() < Bridging::VlanId::min || intf->number() > Bridging::VlanId::max ) ) ) {
      refuse( value, "is no interface",
              "vlanN with N from 1 to 4094; ethernetN, port-channelN, loopbackN, tunnelN with N from 0 to 16777215" );
   }
   return *intf;
}

void requireList( JsonValue value ) {
   if ( value.kind() != Kind::list ) {
      refuse( value, "is no list", "a list of objects" );
   }
}

namespace detail {

void refuseMember( JsonValue value, std::string_view why, std::string const & names ) {
   refuseText( value, value.quotedName(), why, names + ", each at most once" );
}

void refuseMissing( JsonValue object, std::string_view name ) {
   refuseText( object, '"' + std::string( name ) + '"', "is missing", "an object that has it" );
}

void requireObject( JsonValue value ) {
   if ( value.kind() != Kind::object ) {
      refuse( value, "is no object", "an object" );
   }
}

}  // namespace detail

}  // namespace Agent
