#include "agent/configuration/MappingEntry.h"

#include <Bridging/VlanId.h>
#include <Netix/VrfId.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <utility>

namespace Agent {

namespace {

constexpr U64 anyPort = 65535;

// One address of the entry with its port, and where each was given.
struct Pair : Netix::IpAndPort {
   JsonValue addressAt;
   JsonValue portAt;
};

struct FilterMembers : Ip::Nat::NatFilter {
   U32 sequence = 0;
};

constexpr Member< FilterMembers > filterMembers[] = {
   { "sequence", into< &FilterMembers::sequence >, true },
   { "source-prefix", into< &FilterMembers::source > },
   { "destination-prefix", into< &FilterMembers::destination > },
   { "source-port", within< &FilterMembers::sourcePort, 1, anyPort > },
   { "destination-port", within< &FilterMembers::destinationPort, 1, anyPort > } };

struct EntryMembers : Pfe::NatProgrammerStaticEntry::Fields {
   U32 index = 0;
   JsonValue type;
   bool addrOnly = false;
   bool fullCone = false;
   U8 protocol = 0;
   // internal-*: what the inside host uses; external-*: what is put in its place.
   Pair internalSource;
   Pair externalSource;
   Pair internalDestination;
   Pair externalDestination;
   JsonValue lifetime;  // not aged: a dynamic entry lasts as long as it is configured
   JsonValue group;
   Netix::IntfId intf;
};

template< Pair EntryMembers::*pair > void takeAddress( JsonValue value, EntryMembers & entry ) {
   ( entry.*pair ).addressAt = value;
   take( value, ( entry.*pair ).ip );
}

template< Pair EntryMembers::*pair > void takePort( JsonValue value, EntryMembers & entry ) {
   struct Range {
      U16 start = 0;
      U16 end = 0;
   };
   static constexpr Member< Range > members[] = { { "start-port-number", within< &Range::start, 1, anyPort >, true },
                                                  { "end-port-number", within< &Range::end, 1, anyPort > } };
   Range range;
   takeMembers( value, members, range );
   if ( range.end != 0 && range.end != range.start ) {
      refuse( value,
              "from " + std::to_string( range.start ) + " to " + std::to_string( range.end ) + " is a range of ports",
              "one port: no end-port-number, or one equal to start-port-number" );
   }
   ( entry.*pair ).portAt = value;
   ( entry.*pair ).port = range.start;
}

void takeFilters( JsonValue list, EntryMembers & entry ) {
   forEachIn( list, filterMembers, [ & ]( JsonValue value, FilterMembers const & filter ) {
      if ( !entry.filters.emplace( filter.sequence, filter ).second ) {
         refuse( value, "has the sequence number " + std::to_string( filter.sequence ) + " of another filter",
                 "a number of its own" );
      }
   } );
}

void takeNextHop( JsonValue value, EntryMembers & entry ) {
   auto const id = numberIn( value, 1, std::numeric_limits< U32 >::max() );
   entry.nextHop = Orla::make< Pfe::NatNextHopId >( static_cast< U32 >( id ) );
}

void takeLifetime( JsonValue value, EntryMembers & entry ) {
   U32 seconds = 0;
   take( value, seconds );
   entry.lifetime = value;
}

constexpr Member< EntryMembers > entryMembers[] = {
   { "index", into< &EntryMembers::index >, true },
   { "type", into< &EntryMembers::type >, true },
   { "transport-protocol", into< &EntryMembers::protocol > },
   { "internal-src-address", takeAddress< &EntryMembers::internalSource > },
   { "internal-src-port", takePort< &EntryMembers::internalSource > },
   { "external-src-address", takeAddress< &EntryMembers::externalSource > },
   { "external-src-port", takePort< &EntryMembers::externalSource > },
   { "internal-dst-address", takeAddress< &EntryMembers::internalDestination > },
   { "internal-dst-port", takePort< &EntryMembers::internalDestination > },
   { "external-dst-address", takeAddress< &EntryMembers::externalDestination > },
   { "external-dst-port", takePort< &EntryMembers::externalDestination > },
   { "lifetime", takeLifetime },
   { "pfe-nat:interface", into< &EntryMembers::intf >, true },
   { "pfe-nat:vrf", within< &EntryMembers::vrfId, 0, Netix::VrfId::max > },
   { "pfe-nat:vlan", within< &EntryMembers::vlanId, Bridging::VlanId::min, Bridging::VlanId::max > },
   { "pfe-nat:qualifier", into< &EntryMembers::intfQualifier > },
   { "pfe-nat:access-list", into< &EntryMembers::aclName > },
   { "pfe-nat:filter", takeFilters },
   { "pfe-nat:filters-disabled", into< &EntryMembers::filtersDisabled > },
   { "pfe-nat:next-hop-id", takeNextHop },
   { "pfe-nat:multicast-group", into< &EntryMembers::group > },
   { "pfe-nat:address-only", into< &EntryMembers::addrOnly > },
   { "pfe-nat:full-cone", into< &EntryMembers::fullCone > } };

bool isDynamic( EntryMembers const & entry ) {
   std::string_view type;
   take( entry.type, type );
   if ( type == "dynamic-explicit" ) {
      refuse( entry.type, "is no way in which a switch learns", "\"static\", \"dynamic-implicit\"" );
   }
   if ( type != "static" && type != "dynamic-implicit" ) {
      refuse( entry.type, "is no type of an entry", "\"static\", \"dynamic-implicit\"" );
   }
   return type == "dynamic-implicit";
}

// Refuses members that a rule of the kind has no place for.
void requireWithout( JsonValue place, char const * kind, std::initializer_list< std::string_view > names ) {
   place.forEach( [ & ]( JsonValue value ) {
      if ( std::ranges::find( names, value.name() ) != names.end() ) {
         refuse( value, "is given, but the entry is " + std::string( kind ),
                 "no " + std::string( value.name() ) + " in such an entry" );
      }
   } );
}

// Refuses ports where the protocol has none. What stands in their place in ICMP queries tells the flows of a dynamic
// entry apart.
void requirePortsOfProtocol( EntryMembers const & entry, bool dynamic ) {
   constexpr U8 any = 0;
   constexpr U8 icmp = 1;
   constexpr U8 withPorts[] = { any, 6, 17, 33, 132, 136 };  // TCP, UDP, DCCP, SCTP, UDP-Lite
   if ( std::ranges::find( withPorts, entry.protocol ) != std::end( withPorts ) ||
        ( dynamic && entry.protocol == icmp ) ) {
      return;
   }
   for ( auto const * const pair :
         { &entry.internalSource, &entry.externalSource, &entry.internalDestination, &entry.externalDestination } ) {
      if ( pair->portAt ) {
         auto const number = std::to_string( entry.protocol );
         refuse( pair->portAt, "is given, but protocol " + number + " has no ports",
                 "no ports with transport-protocol " + number );
      }
   }
}

// Whether the side is translated. Refuses half a translation.
bool isWhole( JsonValue place, char const * side, Pair const & internal, Pair const & external ) {
   auto const require = [ & ]( bool hasInternal, bool hasExternal, char const * what, char const * remark ) {
      if ( hasInternal != hasExternal ) {
         auto const name = std::string( "-" ) + side + what;
         refuse( place, "lacks " + ( hasInternal ? "external" + name : "internal" + name ),
                 "internal" + name + " and external" + name + " together" + remark );
      }
   };
   bool const hasAddress = internal.addressAt || internal.portAt;
   require( bool( internal.portAt ), bool( external.portAt ), "-port", ", or neither to leave ports alone" );
   require( hasAddress, bool( external.addressAt ), "-address", "" );
   require( bool( internal.addressAt ), bool( external.addressAt ), "-address", "" );
   return hasAddress;
}

// Which sides an entry gives, and which of them it translates.
struct Sides {
   bool hasSource;
   bool hasDestination;
   bool translatesSource;
   bool translatesDestination;
};

Sides sidesOf( JsonValue place, EntryMembers const & entry ) {
   auto const differs = []( Netix::IpAndPort const & a, Netix::IpAndPort const & b ) { return a != b; };
   bool const hasSource = isWhole( place, "src", entry.internalSource, entry.externalSource );
   bool const hasDestination = isWhole( place, "dst", entry.internalDestination, entry.externalDestination );
   return { hasSource, hasDestination, hasSource && differs( entry.internalSource, entry.externalSource ),
            hasDestination && differs( entry.internalDestination, entry.externalDestination ) };
}

// The side that a static entry, which is no twice one, translates.
Ip::Nat::NatTarget targetOf( JsonValue place, Sides const & sides ) {
   if ( sides.hasSource == sides.hasDestination ) {
      refuse( place, sides.hasSource ? "gives both sides and does not translate both" : "translates nothing",
              "internal-src-address with external-src-address, or internal-dst-address with external-dst-address, or "
              "both with both translated" );
   }
   return sides.hasSource ? Ip::Nat::NatTarget::source : Ip::Nat::NatTarget::destination;
}

std::shared_ptr< McastGroup const > groupOf( JsonValue place, bool isMulticast, McastGroups const & groups ) {
   if ( !place ) {
      return nullptr;
   }
   std::string_view wanted;
   take( place, wanted );
   auto const found = groups.find( wanted );
   if ( found == groups.end() ) {
      std::string names;
      for ( auto const & [ name, copies ] : groups ) {
         names += ( names.empty() ? "\"" : ", \"" ) + std::string( name ) + '"';
      }
      refuse( place, "is no multicast group of this instance",
              groups.empty() ? "none, since the instance has no pfe-nat:multicast-group" : names );
   }
   if ( !isMulticast ) {
      refuse( place, "is given, but the entry translates unicast", "a group only with addresses in 224.0.0.0/4" );
   }
   return found->second;
}

StaticRule staticRuleOf( JsonValue place, EntryMembers && entry, Sides const & sides ) {
   auto const target = targetOf( place, sides );
   // The key holds what the inside host uses: the local pair of a source target, the global one of a destination
   // target.
   bool const isSource = target == Ip::Nat::NatTarget::source;
   auto const & untranslated = isSource ? entry.internalSource : entry.internalDestination;
   auto const & translated = isSource ? entry.externalSource : entry.externalDestination;
   entry.connection = { .translated = translated, .target = target, .protocol = entry.protocol };
   Pfe::NatProgrammerStaticKey const key{
      .natIntf = entry.intf, .key = { .aclName = entry.aclName, .ip = untranslated.ip, .port = untranslated.port } };
   return { key, Orla::make< Pfe::NatProgrammerStaticEntry >( std::move( entry ) ) };
}

TwiceRule twiceRuleOf( JsonValue place, EntryMembers && entry ) {
   requireWithout( place, "a twice one",
                   { "transport-protocol", "pfe-nat:access-list", "pfe-nat:filter", "pfe-nat:filters-disabled" } );
   return { { .natIntf = entry.intf, .key = { entry.internalSource, entry.internalDestination } },
            Orla::make< Pfe::NatProgrammerTwiceEntry >(
               Pfe::NatProgrammerTwiceEntry::Fields{ .vrfId = entry.vrfId,
                                                     .vlanId = entry.vlanId,
                                                     .intfQualifier = entry.intfQualifier,
                                                     .connection = { entry.internalSource, entry.internalDestination,
                                                                     entry.externalSource, entry.externalDestination },
                                                     .nextHop = std::move( entry.nextHop ) } ) };
}

DynamicRule dynamicRuleOf( JsonValue place, EntryMembers && entry, Sides const & sides ) {
   requireWithout( place, "dynamic",
                   { "pfe-nat:vlan", "pfe-nat:access-list", "pfe-nat:filter", "pfe-nat:filters-disabled",
                     "pfe-nat:multicast-group" } );
   if ( !sides.hasSource || !sides.hasDestination ) {
      refuse( place, "lacks a side of the flow",
              "internal-src-address, external-src-address, internal-dst-address and external-dst-address together, the "
              "two of the side that stays as it is being equal" );
   }
   if ( sides.translatesSource == sides.translatesDestination ) {
      refuse( place, sides.translatesSource ? "translates both sides" : "translates nothing",
              "a dynamic entry that translates one side" );
   }
   bool const isSource = sides.translatesSource;
   auto const & internal = isSource ? entry.internalSource : entry.internalDestination;
   auto const & external = isSource ? entry.externalSource : entry.externalDestination;
   if ( entry.addrOnly && internal.port != external.port ) {
      refuse( place, "translates a port, but addresses only", "equal ports, or none, with pfe-nat:address-only" );
   }
   return { { .natIntf = entry.intf, .conn = { entry.internalSource, entry.internalDestination, entry.protocol } },
            Orla::make< Pfe::NatProgrammerDynamicEntry >( Pfe::NatProgrammerDynamicEntry::Fields{
               .vrfId = entry.vrfId,
               .intfQualifier = entry.intfQualifier,
               .connection = { .target = isSource ? Ip::Nat::NatTarget::source : Ip::Nat::NatTarget::destination,
                               .addrOnly = entry.addrOnly,
                               .fullCone = entry.fullCone },
               .global = external,
               .nextHop = std::move( entry.nextHop ) } ) };
}

}  // namespace

Connection takeMappingEntry( JsonValue value, McastGroups const & groups ) {
   EntryMembers entry;
   takeMembers( value, entryMembers, entry );
   bool const dynamic = isDynamic( entry );
   auto const sides = sidesOf( value, entry );
   requirePortsOfProtocol( entry, dynamic );
   auto const index = entry.index;
   auto const group = entry.group;
   if ( dynamic ) {
      return { .index = index, .rule = dynamicRuleOf( value, std::move( entry ), sides ) };
   }
   if ( entry.lifetime ) {
      refuse( entry.lifetime, "is given, but a static entry lives as long as it is configured", "no lifetime" );
   }
   requireWithout( value, "static", { "pfe-nat:address-only", "pfe-nat:full-cone" } );
   Connection connection{ .index = index, .rule = {} };
   if ( sides.translatesSource && sides.translatesDestination ) {
      connection.rule = twiceRuleOf( value, std::move( entry ) );
   } else {
      connection.rule = staticRuleOf( value, std::move( entry ), sides );
   }
   if ( group ) {
      connection.group = groupOf(
         group, std::visit( []( auto const & rule ) { return isMulticast( rule ); }, connection.rule ), groups );
   }
   return connection;
}

}  // namespace Agent
