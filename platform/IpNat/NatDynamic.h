// Dynamic NAT as the agent learned it.
#pragma once

#include <IpNat/NatStatic.h>
#include <Netix/IpAndPort.h>
#include <Orla/String.h>
#include <Vexa/Value.h>

#include <string>

namespace [[gnu::visibility( "default" )]] Ip {
namespace Nat {

// How a learned connection is translated.
struct DynamicConnection {
   NatTarget target = NatTarget::source;
   bool addrOnly = false;  // addresses are translated, ports stay
   bool fullCone = false;  // any outside host may use the translation

   static constexpr std::string_view typeName = "Ip::Nat::DynamicConnection";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &DynamicConnection::target >( "target" ),
                         Vexa::attr< &DynamicConnection::addrOnly >( "addrOnly" ),
                         Vexa::attr< &DynamicConnection::fullCone >( "fullCone" ) );
   }
   friend auto operator<=>( DynamicConnection const &, DynamicConnection const & ) = default;
};
static_assert( Vexa::describesEveryMember< DynamicConnection > );

// What identifies a dynamic rule on its interface.
struct DynamicKey {
   Orla::String aclName;
   U16 poolId = 0;

   static constexpr std::string_view typeName = "Ip::Nat::DynamicKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &DynamicKey::aclName >( "aclName" ),
                         Vexa::attr< &DynamicKey::poolId >( "poolId" ) );
   }
   friend auto operator<=>( DynamicKey const &, DynamicKey const & ) = default;

   // For traces: "acl 'name' pool 3".
   std::string stringValue() const;
};
static_assert( Vexa::describesEveryMember< DynamicKey > );

}  // namespace Nat
}  // namespace Ip
