// Static and twice NAT rules as the agent resolved them.
#pragma once

#include <Netix/IpAddrWithFullMask.h>
#include <Netix/IpAndPort.h>
#include <Orla/String.h>
#include <Trace/RingTrace.h>
#include <Vexa/InlineList.h>
#include <Vexa/Value.h>

#include <string>

namespace [[gnu::visibility( "default" )]] Ip {
namespace Nat {

// The side of a packet that a rule translates.
enum class NatTarget : U8 { source = 0, destination = 1 };

// What identifies a static rule on its interface: an address with its port, and the access list that limits it.
// For target source this is the local (inside) pair, for target destination the global one.
struct StaticKey {
   Orla::String aclName;
   Netix::IpAddr ip;
   U16 port = 0;

   static constexpr std::string_view typeName = "Ip::Nat::StaticKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &StaticKey::aclName >( "aclName" ), Vexa::attr< &StaticKey::ip >( "ip" ),
                         Vexa::attr< &StaticKey::port >( "port" ) );
   }
   friend auto operator<=>( StaticKey const &, StaticKey const & ) = default;

   // For traces: "10.0.0.1:80", with " acl 'name'" behind it when the rule has one.
   std::string stringValue() const;
};
static_assert( Vexa::describesEveryMember< StaticKey > );

// The other pair of a static rule, and what it applies to.
struct NatStaticConnection {
   Netix::IpAndPort translated;
   NatTarget target = NatTarget::source;
   U8 protocol = 0;  // IANA protocol number; 0 matches every protocol

   static constexpr std::string_view typeName = "Ip::Nat::NatStaticConnection";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &NatStaticConnection::translated >( "translated" ),
                         Vexa::attr< &NatStaticConnection::target >( "target" ),
                         Vexa::attr< &NatStaticConnection::protocol >( "protocol" ) );
   }
   friend auto operator<=>( NatStaticConnection const &, NatStaticConnection const & ) = default;
};
static_assert( Vexa::describesEveryMember< NatStaticConnection > );

// What identifies a twice rule on its interface: the flow before translation.
struct TwiceKey {
   Netix::IpAndPort source;
   Netix::IpAndPort destination;

   static constexpr std::string_view typeName = "Ip::Nat::TwiceKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &TwiceKey::source >( "source" ),
                         Vexa::attr< &TwiceKey::destination >( "destination" ) );
   }
   friend auto operator<=>( TwiceKey const &, TwiceKey const & ) = default;

   // For traces: "10.0.0.1:80 -> 192.0.2.1:80".
   std::string stringValue() const;
};
static_assert( Vexa::describesEveryMember< TwiceKey > );

// Both sides of a twice rule, before and after translation.
struct NatTwiceConnection {
   Netix::IpAndPort source;
   Netix::IpAndPort destination;
   Netix::IpAndPort translatedSource;
   Netix::IpAndPort translatedDestination;

   static constexpr std::string_view typeName = "Ip::Nat::NatTwiceConnection";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &NatTwiceConnection::source >( "source" ),
                         Vexa::attr< &NatTwiceConnection::destination >( "destination" ),
                         Vexa::attr< &NatTwiceConnection::translatedSource >( "translatedSource" ),
                         Vexa::attr< &NatTwiceConnection::translatedDestination >( "translatedDestination" ) );
   }
   friend auto operator<=>( NatTwiceConnection const &, NatTwiceConnection const & ) = default;
};
static_assert( Vexa::describesEveryMember< NatTwiceConnection > );

// A condition under which a static rule applies beyond its key. Masked-out address bits and zero ports match anything.
struct NatFilter {
   Netix::IpAddrWithFullMask source;
   Netix::IpAddrWithFullMask destination;
   U16 sourcePort = 0;
   U16 destinationPort = 0;

   static constexpr std::string_view typeName = "Ip::Nat::NatFilter";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &NatFilter::source >( "source" ),
                         Vexa::attr< &NatFilter::destination >( "destination" ),
                         Vexa::attr< &NatFilter::sourcePort >( "sourcePort" ),
                         Vexa::attr< &NatFilter::destinationPort >( "destinationPort" ) );
   }
   friend auto operator<=>( NatFilter const &, NatFilter const & ) = default;
};
static_assert( Vexa::describesEveryMember< NatFilter > );

using NatTargets = Vexa::InlineList< NatTarget, 2 >;

// The sides that a static connection is programmed for: a unicast one for its own target, then for the other (the
// replies); a multicast one, which has no replies, for its own only.
NatTargets getStaticConnectionTargets( NatTarget target, bool isMulticast );

using Vexa::operator<<;

}  // namespace Nat
}  // namespace Ip

template<> inline constexpr char const * Trace::ringType< Ip::Nat::StaticKey > = "NSK";
