// Taking typed values out of a JSON document. Whatever does not fit is refused with file, JSON pointer, value and what
// is allowed instead.
#pragma once

#include "agent/JsonDocument.h"

#include <Netix/IntfId.h>
#include <Netix/IpAddrWithFullMask.h>

#include <cstddef>
#include <limits>
#include <string>
#include <string_view>

namespace Agent {

using JsonValue = JsonDocument::Value;

// Throws UnusableInput: "FILE: POINTER: VALUE WHY; allowed: ALLOWED".
[[noreturn]] void refuse( JsonValue value, std::string_view why, std::string_view allowed );

U64 takeNumber( JsonValue value, U64 min, U64 max );
template< class Number >
void takeNumber( JsonValue value, Number & number, U64 min = 0, U64 max = std::numeric_limits< Number >::max() ) {
   number = static_cast< Number >( takeNumber( value, min, max ) );
}
bool takeFlag( JsonValue value );
// Not empty, at most 255 bytes.
std::string_view takeName( JsonValue value );
// One host other than 0.0.0.0, written as a prefix: "192.0.2.1/32".
Netix::IpAddr takeHost( JsonValue value );
// An IPv4 prefix without bits behind its length: "192.0.2.0/24".
Netix::IpAddrWithFullMask takePrefix( JsonValue value );
Netix::IntfId takeInterface( JsonValue value );
// Refuses what is no list.
void requireList( JsonValue value );

// One member that an object may have, and what its value does to the target.
template< class Target > struct Member {
   std::string_view name;
   void ( *take )( JsonValue value, Target & target );
   bool required = false;
};

namespace detail {
[[noreturn]] void refuseMember( JsonValue value, std::string_view why, std::string const & names );
[[noreturn]] void refuseMissing( JsonValue object, std::string_view name );
void requireObject( JsonValue value );
}  // namespace detail

// Hands every member of an object to its taker, in the order of the text. Refuses what is no object, unknown members,
// members that are given twice, and the lack of required ones.
template< class Target, std::size_t count >
void takeMembers( JsonValue object, Member< Target > const ( &members )[ count ], Target & target ) {
   static_assert( count <= 32 );
   detail::requireObject( object );
   U32 given = 0;
   object.forEach( [ & ]( JsonValue value ) {
      auto const name = value.name();
      std::size_t i = 0;
      while ( i < count && members[ i ].name != name ) {
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

}  // namespace Agent
