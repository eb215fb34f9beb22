// An address with any bit mask.
#pragma once

#include <Netix/IpAddr.h>
#include <Vexa/Value.h>

namespace [[gnu::visibility( "default" )]] Netix {

struct IpAddrWithFullMask {
   IpAddr address;
   IpAddr mask;  // 0.0.0.0 matches every address

   static constexpr std::string_view typeName = "Netix::IpAddrWithFullMask";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &IpAddrWithFullMask::address >( "address" ),
                         Vexa::attr< &IpAddrWithFullMask::mask >( "mask" ) );
   }
   friend auto operator<=>( IpAddrWithFullMask const &, IpAddrWithFullMask const & ) = default;
};
static_assert( Vexa::describesEveryMember< IpAddrWithFullMask > );

using Vexa::operator<<;

}  // namespace Netix
