#include "agent/configuration/JsonMembers.h"

#include <Bridging/VlanId.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

namespace Agent {

namespace {

using Kind = JsonDocument::Kind;

// An address and the length behind its slash; absent when the value is something else.
std::optional< std::pair< Netix::IpAddr, unsigned > > prefixOf( JsonValue value ) {
   auto const text = value.kind() == Kind::text ? value.text() : std::string_view();
   auto const slash = std::min( text.find( '/' ), text.size() );
   auto const address = Netix::IpAddr::fromText( text.substr( 0, slash ) );
   auto const digits = text.substr( std::min( slash + 1, text.size() ) );
   unsigned length = 0;
   auto const [ end, error ] = std::from_chars( digits.data(), digits.data() + digits.size(), length );
   bool const isNumber = error == std::errc{} && end == digits.data() + digits.size();
   bool const isCanonical = digits.size() == 1 || ( digits.size() == 2 && digits[ 0 ] != '0' );
   return address && isNumber && isCanonical && length <= 32 ? std::optional( std::pair( *address, length ) )
                                                             : std::nullopt;
}

[[noreturn]] void refuseText( JsonValue value, std::string text, std::string_view why, std::string_view allowed ) {
   text.append( " " ).append( why ).append( "; allowed: " ).append( allowed );
   throw Refusal{ value, std::move( text ) };
}

}  // namespace

std::string Refusal::line() const {
   auto const pointer = value.pointer();
   return value.file() + ": " + ( pointer.empty() ? "(root)" : pointer ) + ": " + text;
}

void refuse( JsonValue value, std::string_view why, std::string_view allowed ) {
   refuseText( value, value.excerpt(), why, allowed );
}

U64 numberIn( JsonValue value, U64 min, U64 max ) {
   if ( value.kind() != Kind::number || value.number() < min || value.number() > max ) {
      bool const isNumber = value.kind() == Kind::number || value.kind() == Kind::otherNumber;
      refuse( value, isNumber ? "is out of range" : "is no number",
              "a whole number from " + std::to_string( min ) + " to " + std::to_string( max ) );
   }
   return value.number();
}

void take( JsonValue value, bool & flag ) {
   if ( value.kind() != Kind::boolean ) {
      refuse( value, "is no boolean", "true, false" );
   }
   flag = value.flag();
}

void take( JsonValue value, std::string_view & name ) {
   constexpr std::size_t longest = 255;
   if ( value.kind() != Kind::text || value.text().empty() || value.text().size() > longest ) {
      refuse( value, "is no name", "a text of 1 to 255 bytes" );
   }
   name = value.text();
}

void take( JsonValue value, Orla::String & name ) {
   std::string_view text;
   take( value, text );
   name = text;
}

void take( JsonValue value, Netix::IpAddr & host ) {
   auto const prefix = prefixOf( value );
   if ( !prefix || prefix->second != 32 || prefix->first == Netix::IpAddr() ) {
      refuse( value, "is no single address", "an IPv4 address other than 0.0.0.0 with /32, such as \"192.0.2.1/32\"" );
   }
   host = prefix->first;
}

void take( JsonValue value, Netix::IpAddrWithFullMask & prefix ) {
   auto const found = prefixOf( value );
   auto const mask = found && found->second > 0 ? ~U32{ 0 } << ( 32 - found->second ) : 0;
   if ( !found || ( found->first.value() & ~mask ) != 0 ) {
      refuse( value, "is no prefix", "an IPv4 prefix without bits behind its length, such as \"192.0.2.0/24\"" );
   }
   prefix = { .address = found->first, .mask = Netix::IpAddr( mask ) };
}

void take( JsonValue value, Netix::IntfId & intf ) {
   auto const found = value.kind() == Kind::text ? Netix::IntfId::fromName( value.text() ) : std::nullopt;
   bool const isVlan = found && found->kind() == Netix::IntfKind::vlan;
   if ( !found ||
        ( isVlan && ( found->number() < Bridging::VlanId::min || found->number() > Bridging::VlanId::max ) ) ) {
      refuse( value, "is no interface",
              "vlanN with N from 1 to 4094; ethernetN, port-channelN, loopbackN, tunnelN with N from 0 to 16777215" );
   }
   intf = *found;
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

void requireList( JsonValue value ) {
   if ( value.kind() != Kind::list ) {
      refuse( value, "is no list", "a list of objects" );
   }
}

}  // namespace detail

}  // namespace Agent
