// An address with a layer-4 port, and the tuple that identifies a flow.
#pragma once

#include <Netix/IpAddr.h>
#include <Vexa/Value.h>

namespace [[gnu::visibility( "default" )]] Netix {

struct IpAndPort {
   IpAddr ip;
   U16 port = 0;  // 0 matches every port

   static constexpr std::string_view typeName = "Netix::IpAndPort";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &IpAndPort::ip >( "ip" ), Vexa::attr< &IpAndPort::port >( "port" ) );
   }
   friend auto operator<=>( IpAndPort const &, IpAndPort const & ) = default;
};
static_assert( Vexa::describesEveryMember< IpAndPort > );

struct ConnTuple {
   IpAndPort source;
   IpAndPort destination;
   U8 protocol = 0;  // IANA protocol number

   static constexpr std::string_view typeName = "Netix::ConnTuple";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &ConnTuple::source >( "source" ),
                         Vexa::attr< &ConnTuple::destination >( "destination" ),
                         Vexa::attr< &ConnTuple::protocol >( "protocol" ) );
   }
   friend auto operator<=>( ConnTuple const &, ConnTuple const & ) = default;
};
static_assert( Vexa::describesEveryMember< ConnTuple > );

using Vexa::operator<<;

}  // namespace Netix
