// What a configuration file asks for.
#pragma once

#include "agent/configuration/Connection.h"

#include <Pfe/NatProgrammerConfig.h>
#include <Vexa/HashMap.h>

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

namespace Agent {

struct Trap {
   Pfe::NatProgrammerTrapKey key;
   Pfe::NatProgrammerTrapEntry::PtrConst entry;
};

// An interface of the switch as a device of the kernel, for a chip that is one.
struct PortDevice {
   Netix::IntfId intf;
   std::string device;  // "NAME", or "NAME.VLAN" for its frames with that tag
   U32 vrfId = 0;

   friend bool operator==( PortDevice const &, PortDevice const & ) = default;
};

// JSON pointers (RFC 6901) into a file: to its instance, and from there to the mapping entries, without their number.
inline constexpr std::string_view pointerToInstance = "/ietf-nat:nat/instances/instance/0";
inline constexpr std::string_view pointerToEntries = "/mapping-table/mapping-entry/";

struct Configuration {
   std::string file;
   U32 instanceId = 0;
   std::string instanceName;  // empty: none given
   bool enabled = true;       // false: nothing is to be programmed
   Settings settings;
   std::vector< Connection > connections;  // in the order of the file, then those learned
   std::vector< Trap > traps;
   std::map< U16, U16 > profiles;                           // by VLAN
   std::set< std::pair< Netix::IntfId, U16 > > qualifiers;  // of the interfaces that connections stand at
   std::vector< PortDevice > ports;                         // other chips know their interfaces by themselves
   // The same connections, traps and settings, as the programmer reads them.
   Pfe::NatProgrammerConfig::Ptr rules;
   // Of the dynamic connections, where they stand among all.
   std::unordered_map< Pfe::NatProgrammerDynamicKey, std::size_t,
                       Vexa::KeyHash< Pfe::NatProgrammerDynamicKey, 0x7F4A7C15 > >
      placeOfDynamic;
};

// Calls function( index, rule ) for every static connection, in their order.
template< class Function > void forEachStaticRule( Configuration const & configuration, Function && function ) {
   for ( auto const & connection : configuration.connections ) {
      if ( auto const * const rule = std::get_if< StaticRule >( &connection.rule ) ) {
         function( connection.index.value_or( 0 ), *rule );
      }
   }
}

// Puts the connection among the rules, and the interface's qualifier to the others.
void add( Configuration & configuration, Connection connection );

// Takes a learned connection out of both. The last one takes its place. Absent: nothing.
void remove( Configuration & configuration, Pfe::NatProgrammerDynamicKey const & key );

// Reads a file in the names of RFC 8512 and of pfe-nat.yang, encoded by RFC 7951. The whole file is checked before
// anything is made of it.
// Throws UnusableInput with a line per fault: file, JSON pointer (line and column where the text is no JSON), value,
// and what is allowed.
Configuration configurationFrom( std::string const & file );

// The same of a text; `file` only names it.
Configuration configurationIn( std::string const & file, std::string_view text );

}  // namespace Agent
