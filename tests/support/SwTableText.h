// The software-table configuration as text, to be compared whole.
#pragma once

#include <tests/support/Programmer.h>

#include <Pfe/NatSwTableConfig.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <string>

namespace Support {

inline std::string swTableKeyText( Pfe::NatSwTableStaticKey const & key ) {
   std::ostringstream out;
   out << ( key.reverse ? "reverse " : "forward " ) << textOf( key.ipAndPortOld ) << " > " << textOf( key.ipAndPortNew )
       << " proto " << +key.protocol;
   if ( key.vlanId != 0 ) {
      out << " vlan " << key.vlanId;
   }
   if ( key.vrfId != 0 ) {
      out << " vrf " << key.vrfId;
   }
   out << ( key.aclName.empty() ? "" : " acl " ) << key.aclName.text() << ( key.mcast ? " mcast" : "" );
   return std::move( out ).str();
}

// One line per entry, sorted; `of` tells, by its qualifier, the rule that the entry was made from:
//    forward 10.0.0.1:80 > 192.0.2.1:80 proto 6 | vlans 10 20 of 5
//    reverse 192.0.2.1:80 > 10.0.0.1:80 proto 6 vlan 10 | vlans 10 fragment of 5
inline Lines swTableText( Pfe::NatSwTableConfig const & config ) {
   Lines lines;
   config.staticEntry().forEach( [ & ]( auto const & key, auto const & entry ) {
      std::set< U16 > vlanIds;
      entry->vlanId().forEach( [ & ]( Bridging::VlanId vlanId ) { vlanIds.insert( vlanId.value() ); } );
      auto line = swTableKeyText( key ) + " | vlans";
      for ( auto const vlanId : vlanIds ) {
         line += ' ' + std::to_string( vlanId );
      }
      line += entry->fragment() ? " fragment of " : " of ";
      lines.push_back( line + std::to_string( entry->programmerEntry()->intfQualifier() ) );
   } );
   std::ranges::sort( lines );
   return lines;
}

}  // namespace Support
