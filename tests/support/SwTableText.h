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

// One line; `of` tells, by its qualifier, the rule that the entry was made from:
//    forward 10.0.0.1:80 > 192.0.2.1:80 proto 6 | vlans 10 20 of 5
//    reverse 192.0.2.1:80 > 10.0.0.1:80 proto 6 vlan 10 | vlans 10 fragment of 5
inline std::string swTableLine( Pfe::NatSwTableStaticKey const & key, std::set< U16 > const & vlanIds, bool fragment,
                                Pfe::NatProgrammerStaticEntry const & madeFrom ) {
   auto line = swTableKeyText( key ) + " | vlans";
   for ( auto const vlanId : vlanIds ) {
      line += ' ' + std::to_string( vlanId );
   }
   return line + ( fragment ? " fragment of " : " of " ) + std::to_string( madeFrom.intfQualifier() );
}

// Of all entries, sorted.
inline Lines swTableText( Pfe::NatSwTableConfig const & config ) {
   Lines lines;
   config.staticEntry().forEach( [ & ]( auto const & key, auto const & entry ) {
      std::set< U16 > vlanIds;
      entry->vlanId().forEach( [ & ]( Bridging::VlanId vlanId ) { vlanIds.insert( vlanId.value() ); } );
      lines.push_back( swTableLine( key, vlanIds, entry->fragment(), *entry->programmerEntry() ) );
   } );
   std::ranges::sort( lines );
   return lines;
}

}  // namespace Support
