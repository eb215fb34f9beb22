// The key under which ingress keys share one NAT id: what is translated, without what it is translated to.
#pragma once

#include <IpNat/NatStatic.h>
#include <Netix/IntfId.h>
#include <Netix/IpAndPort.h>
#include <Netix/VrfId.h>
#include <Orla/String.h>
#include <Vexa/Union.h>
#include <Vexa/Value.h>

#include <array>
#include <string_view>

namespace [[gnu::visibility( "default" )]] Pfe {

struct StaticNatMatchKey {
   Orla::String natIntf;
   U32 vrfId = 0;
   Netix::IpAndPort ipAndPortOld;
   Ip::Nat::NatTarget target = Ip::Nat::NatTarget::source;
   U8 protocol = 0;

   static constexpr std::string_view typeName = "Pfe::StaticNatMatchKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &StaticNatMatchKey::natIntf >( "natIntf" ),
                         Vexa::attr< &StaticNatMatchKey::vrfId >( "vrfId" ),
                         Vexa::attr< &StaticNatMatchKey::ipAndPortOld >( "ipAndPortOld" ),
                         Vexa::attr< &StaticNatMatchKey::target >( "target" ),
                         Vexa::attr< &StaticNatMatchKey::protocol >( "protocol" ) );
   }
   friend auto operator<=>( StaticNatMatchKey const &, StaticNatMatchKey const & ) = default;
};
static_assert( Vexa::describesEveryMember< StaticNatMatchKey > );

struct TwiceNatMatchKey {
   Netix::IntfId natIntf;
   U32 vrfId = 0;
   Netix::IpAndPort srcIpAndPortOld;
   Netix::IpAndPort dstIpAndPortOld;
   bool forward = false;

   static constexpr std::string_view typeName = "Pfe::TwiceNatMatchKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &TwiceNatMatchKey::natIntf >( "natIntf" ),
                         Vexa::attr< &TwiceNatMatchKey::vrfId >( "vrfId" ),
                         Vexa::attr< &TwiceNatMatchKey::srcIpAndPortOld >( "srcIpAndPortOld" ),
                         Vexa::attr< &TwiceNatMatchKey::dstIpAndPortOld >( "dstIpAndPortOld" ),
                         Vexa::attr< &TwiceNatMatchKey::forward >( "forward" ) );
   }
   friend auto operator<=>( TwiceNatMatchKey const &, TwiceNatMatchKey const & ) = default;
};
static_assert( Vexa::describesEveryMember< TwiceNatMatchKey > );

struct DynamicNatMatchKey {
   Netix::VrfId vrfId;
   Netix::IpAndPort first;
   Netix::IpAndPort second;
   U8 protocol = 0;

   static constexpr std::string_view typeName = "Pfe::DynamicNatMatchKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &DynamicNatMatchKey::vrfId >( "vrfId" ),
                         Vexa::attr< &DynamicNatMatchKey::first >( "first" ),
                         Vexa::attr< &DynamicNatMatchKey::second >( "second" ),
                         Vexa::attr< &DynamicNatMatchKey::protocol >( "protocol" ) );
   }
   friend auto operator<=>( DynamicNatMatchKey const &, DynamicNatMatchKey const & ) = default;
};
static_assert( Vexa::describesEveryMember< DynamicNatMatchKey > );

struct NatMatchKeyNames {
   static constexpr std::string_view typeName = "Pfe::NatMatchKey";
   static constexpr std::string_view shortName = "NatMatchKey";
   static constexpr std::array< std::string_view, 3 > alternativeName{ "staticKey", "twiceKey", "dynamicKey" };
};
using NatMatchKey = Vexa::Union< NatMatchKeyNames, StaticNatMatchKey, TwiceNatMatchKey, DynamicNatMatchKey >;

using Vexa::operator<<;

}  // namespace Pfe
