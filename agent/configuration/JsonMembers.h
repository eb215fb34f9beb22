// Taking typed values out of a JSON document. Whatever does not fit is refused.
#pragma once

#include "agent/configuration/JsonDocument.h"

#include <Netix/IntfId.h>
#include <Netix/IpAddrWithFullMask.h>
#include <Orla/String.h>

#include <concepts>
#include <cstddef>
#include <limits>
#include <string>
#include <string_view>

namespace Agent {

using JsonValue = JsonDocument::Value;

// What is thrown for a value that does not fit. Of thousands only the first ones are put into words with their places.
struct Refusal {
   JsonValue value;
   std::string text;  // "VALUE WHY; allowed: ALLOWED"

   // "FILE: POINTER: " in front of it.
   std::string line() const;
};

// Throws Refusal.
[[noreturn]] void refuse( JsonValue value, std::string_view why, std::string_view allowed );

U64 numberIn( JsonValue value, U64 min, U64 max );
template< std::unsigned_integral Number > void take( JsonValue value, Number & number ) {
   number = static_cast< Number >( numberIn( value, 0, std::numeric_limits< Number >::max() ) );
}
void take( JsonValue value, bool & flag );
// Names are not empty, and have at most 255 bytes.
void take( JsonValue value, std::string_view & name );
void take( JsonValue value, Orla::String & name );
// One host other than 0.0.0.0, written as a prefix: "192.0.2.1/32".
void take( JsonValue value, Netix::IpAddr & host );
// An IPv4 prefix without bits behind its length: "192.0.2.0/24".
void take( JsonValue value, Netix::IpAddrWithFullMask & prefix );
void take( JsonValue value, Netix::IntfId & intf );
// To be looked into later.
inline void take( JsonValue value, JsonValue & place ) { place = value; }

// One member that an object may have, and what its value does to the target.
template< class Target > struct Member {
   std::string_view name;
   void ( *take )( JsonValue value, Target & target );
   bool required = false;
};

// Takers: into a member of the target, numbers also between two bounds.
template< auto member, class Target > void into( JsonValue value, Target & target ) { take( value, target.*member ); }
template< auto member, U64 min, U64 max, class Target > void within( JsonValue value, Target & target ) {
   auto & number = target.*member;
   number = static_cast< std::remove_reference_t< decltype( number ) > >( numberIn( value, min, max ) );
}

namespace detail {
[[noreturn]] void refuseMember( JsonValue value, std::string_view why, std::string const & names );
[[noreturn]] void refuseMissing( JsonValue object, std::string_view name );
void requireObject( JsonValue value );
void requireList( JsonValue value );
}  // namespace detail

// Hands every member of an object to its taker, in the order of the text. Refuses what is no object, unknown members,
// members that are given twice, and the lack of required ones.
template< class Target, std::size_t count >
void takeMembers( JsonValue object, Member< Target > const ( &members )[ count ], Target & target ) {
   static_assert( count <= 32 );
   detail::requireObject( object );
   U32 given = 0;
   object.forEach( [ & ]( JsonValue value ) {
      std::size_t i = 0;
      while ( i < count && members[ i ].name != value.name() ) {
         ++i;
      }
      if ( i == count || ( given >> i & 1 ) != 0 ) {
         std::string names;
         for ( auto const & member : members ) {
            names += ( names.empty() ? "" : ", " ) + std::string( member.name );
         }
         detail::refuseMember( value, i == count ? "is no known member" : "is given twice", names );
      }
      given |= U32{ 1 } << i;
      members[ i ].take( value, target );
   } );
   for ( std::size_t i = 0; i < count; ++i ) {
      if ( members[ i ].required && ( given >> i & 1 ) == 0 ) {
         detail::refuseMissing( object, members[ i ].name );
      }
   }
}

// Calls function( value, target ) for each object of a list, with a new target that has taken its members. No list is
// an empty one.
template< class Target, std::size_t count, class Function >
void forEachIn( JsonValue list, Member< Target > const ( &members )[ count ], Function && function ) {
   if ( list ) {
      detail::requireList( list );
      list.forEach( [ & ]( JsonValue value ) {
         Target target;
         takeMembers( value, members, target );
         function( value, target );
      } );
   }
}

}  // namespace Agent
