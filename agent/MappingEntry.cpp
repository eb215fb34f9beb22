#include "agent/MappingEntry.h"

#include <Bridging/VlanId.h>
#include <Netix/VrfId.h>

#include <string>
#include <utility>

namespace Agent {

namespace {

using Kind = JsonDocument::Kind;

// One address of the entry, with its port, and where each was given.
struct Pair {
   Netix::IpAndPort value;
   JsonValue addressAt;
   JsonValue portAt;

   bool given() const { return addressAt || portAt; }
};

// What the inside host uses, and what is put in its place.
struct Side {
   std::string_view name;
   Pair internal = {};
   Pair external = {};

   bool given() const { return internal.given() || external.given(); }
};

struct EntryMembers {
   U32 index = 0;
   JsonValue type;
   Side source{ .name = "src" };
   Side destination{ .name = "dst" };
   JsonValue lifetime;
   JsonValue group;
   Netix::IntfId intf;
   Pfe::NatProgrammerStaticEntry::Fields fields;
};

struct FilterMembers {
   U32 sequence = 0;
   Ip::Nat::NatFilter filter;
};

constexpr Member< FilterMembers > filterMembers[] = {
   { "sequence", []( JsonValue value, FilterMembers & f ) { takeNumber( value, f.sequence ); }, true },
   { "source-prefix", []( JsonValue value, FilterMembers & f ) { f.filter.source = takePrefix( value ); } },
   { "destination-prefix", []( JsonValue value, FilterMembers & f ) { f.filter.destination = takePrefix( value ); } },
   { "source-port", []( JsonValue value, FilterMembers & f ) { takeNumber( value, f.filter.sourcePort, 1 ); } },
   { "destination-port",
     []( JsonValue value, FilterMembers & f ) { takeNumber( value, f.filter.destinationPort, 1 ); } } };

void takeFilters( JsonValue list, EntryMembers & entry ) {
   requireList( list );
   list.forEach( [ & ]( JsonValue value ) {
      FilterMembers members;
      takeMembers( value, filterMembers, members );
      if ( !entry.fields.filters.emplace( members.sequence, members.filter ).second ) {
         refuse( value, "has the sequence number " + std::to_string( members.sequence ) + " of another filter",
                 "a number of its own" );
      }
   } );
}

template< Side EntryMembers::*side, Pair Side::*pair > void takeAddress( JsonValue value, EntryMembers & entry ) {
   auto & taken = entry.*side.*pair;
   taken.addressAt = value;
   taken.value.ip = takeHost( value );
}

template< Side EntryMembers::*side, Pair Side::*pair > void takePorts( JsonValue value, EntryMembers & entry ) {
   struct Range {
      U16 start = 0;
      U16 end = 0;
   };
   static constexpr Member< Range > members[] = {
      { "start-port-number", []( JsonValue v, Range & range ) { takeNumber( v, range.start, 1 ); }, true },
      { "end-port-number", []( JsonValue v, Range & range ) { takeNumber( v, range.end, 1 ); } } };
   Range range;
   takeMembers( value, members, range );
   if ( range.end != 0 && range.end != range.start ) {
      refuse( value,
              "from " + std::to_string( range.start ) + " to " + std::to_string( range.end ) + " is a range of ports",
              "one port: no end-port-number, or one equal to start-port-number" );
   }
   auto & taken = entry.*side.*pair;
   taken.portAt = value;
   taken.value.port = range.start;
}

constexpr Member< EntryMembers > entryMembers[] = {
   { "index", []( JsonValue value, EntryMembers & e ) { takeNumber( value, e.index ); }, true },
   { "type", []( JsonValue value, EntryMembers & e ) { e.type = value; }, true },
   { "transport-protocol",
     []( JsonValue value, EntryMembers & e ) { takeNumber( value, e.fields.connection.protocol ); } },
   { "internal-src-address", &takeAddress< &EntryMembers::source, &Side::internal > },
   { "internal-src-port", &takePorts< &EntryMembers::source, &Side::internal > },
   { "external-src-address", &takeAddress< &EntryMembers::source, &Side::external > },
   { "external-src-port", &takePorts< &EntryMembers::source, &Side::external > },
   { "internal-dst-address", &takeAddress< &EntryMembers::destination, &Side::internal > },
   { "internal-dst-port", &takePorts< &EntryMembers::destination, &Side::internal > },
   { "external-dst-address", &takeAddress< &EntryMembers::destination, &Side::external > },
   { "external-dst-port", &takePorts< &EntryMembers::destination, &Side::external > },
   { "lifetime", []( JsonValue value, EntryMembers & e ) { e.lifetime = value; } },
   { "pfe-nat:interface", []( JsonValue value, EntryMembers & e ) { e.intf = takeInterface( value ); }, true },
   { "pfe-nat:vrf",
     []( JsonValue value, EntryMembers & e ) { takeNumber( value, e.fields.vrfId, 0, Netix::VrfId::max ); } },
   { "pfe-nat:vlan",
     []( JsonValue value, EntryMembers & e ) {
        takeNumber( value, e.fields.vlanId, Bridging::VlanId::min, Bridging::VlanId::max );
     } },
   { "pfe-nat:qualifier", []( JsonValue value, EntryMembers & e ) { takeNumber( value, e.fields.intfQualifier ); } },
   { "pfe-nat:access-list", []( JsonValue value, EntryMembers & e ) { e.fields.aclName = takeName( value ); } },
   { "pfe-nat:filter", &takeFilters },
   { "pfe-nat:filters-disabled",
     []( JsonValue value, EntryMembers & e ) { e.fields.filtersDisabled = takeFlag( value ); } },
   { "pfe-nat:next-hop-id",
     []( JsonValue value, EntryMembers & e ) {
        U32 id = 0;
        takeNumber( value, id, 1 );
        e.fields.nextHop = Orla::make< Pfe::NatNextHopId >( id );
     } },
   { "pfe-nat:multicast-group", []( JsonValue value, EntryMembers & e ) { e.group = value; } } };

void requireStatic( EntryMembers const & entry ) {
   auto const type = entry.type.kind() == Kind::text ? entry.type.text() : std::string_view();
   if ( type == "dynamic-implicit" || type == "dynamic-explicit" ) {
      refuse( entry.type, "is not supported yet", "\"static\"" );
   }
   if ( type != "static" ) {
      refuse( entry.type, "is no type of an entry", "\"static\"" );
   }
   if ( entry.lifetime ) {
      refuse( entry.lifetime, "is given, but a static entry lives as long as it is configured", "no lifetime" );
   }
}

// Refuses halves of a translation.
void requireWhole( JsonValue place, Side const & side ) {
   auto const member = [ & ]( char const * where, char const * what ) {
      return where + ( "-" + std::string( side.name ) ) + what;
   };
   auto const both = [ & ]( char const * what ) {
      return member( "internal", what ) + " and " + member( "external", what );
   };
   if ( !side.internal.addressAt || !side.external.addressAt ) {
      refuse( place, "lacks " + member( side.internal.addressAt ? "external" : "internal", "-address" ),
              both( "-address" ) + " together" );
   }
   if ( static_cast< bool >( side.internal.portAt ) != static_cast< bool >( side.external.portAt ) ) {
      refuse( place, "lacks " + member( side.internal.portAt ? "external" : "internal", "-port" ),
              both( "-port" ) + " together, or neither to leave ports alone" );
   }
}

Side const & translatedSide( JsonValue place, EntryMembers const & entry ) {
   if ( entry.source.given() && entry.destination.given() ) {
      refuse(
         place, "gives source and destination, which is not supported yet",
         "either internal-src-address with external-src-address or internal-dst-address with external-dst-address" );
   }
   if ( !entry.source.given() && !entry.destination.given() ) {
      refuse( place, "translates nothing",
              "internal-src-address with external-src-address, or internal-dst-address with external-dst-address" );
   }
   return entry.source.given() ? entry.source : entry.destination;
}

std::shared_ptr< McastGroup const > groupOf( EntryMembers const & entry, StaticConnection const & connection,
                                             McastGroups const & groups ) {
   if ( !entry.group ) {
      return nullptr;
   }
   auto const found = groups.find( takeName( entry.group ) );
   if ( found == groups.end() ) {
      std::string names;
      for ( auto const & [ name, copies ] : groups ) {
         names += ( names.empty() ? "\"" : ", \"" ) + std::string( name ) + '"';
      }
      refuse( entry.group, "is no multicast group of this instance",
              groups.empty() ? "none, since the instance has no pfe-nat:multicast-group" : names );
   }
   if ( !isMulticast( connection ) ) {
      refuse( entry.group, "is given, but the entry translates unicast", "a group only with addresses in 224.0.0.0/4" );
   }
   return found->second;
}

}  // namespace

StaticConnection takeMappingEntry( JsonValue value, McastGroups const & groups ) {
   EntryMembers entry;
   takeMembers( value, entryMembers, entry );
   requireStatic( entry );
   auto const & side = translatedSide( value, entry );
   requireWhole( value, side );

   // The key holds what the inside host uses: the local pair of a source target, the global one of a destination
   // target.
   auto const & untranslated = side.internal.value;
   entry.fields.connection.translated = side.external.value;
   entry.fields.connection.target =
      &side == &entry.source ? Ip::Nat::NatTarget::source : Ip::Nat::NatTarget::destination;
   StaticConnection connection{
      .index = entry.index,
      .key = { .natIntf = entry.intf,
               .key = { .aclName = entry.fields.aclName, .ip = untranslated.ip, .port = untranslated.port } } };
   connection.entry = Orla::make< Pfe::NatProgrammerStaticEntry >( std::move( entry.fields ) );
   connection.group = groupOf( entry, connection, groups );
   return connection;
}

}  // namespace Agent
