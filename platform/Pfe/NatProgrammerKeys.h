// The keys of the programmer's configuration and status.
#pragma once

#include <IpNat/NatDynamic.h>
#include <IpNat/NatStatic.h>
#include <Netix/IntfId.h>
#include <Netix/IpAndPort.h>
#include <Orla/String.h>
#include <Vexa/Value.h>

namespace [[gnu::visibility( "default" )]] Pfe {

struct NatProgrammerStaticKey {
   Netix::IntfId natIntf;
   Ip::Nat::StaticKey key;

   static constexpr std::string_view typeName = "Pfe::NatProgrammerStaticKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &NatProgrammerStaticKey::natIntf >( "natIntf" ),
                         Vexa::attr< &NatProgrammerStaticKey::key >( "key" ) );
   }
   friend auto operator<=>( NatProgrammerStaticKey const &, NatProgrammerStaticKey const & ) = default;
};
static_assert( Vexa::describesEveryMember< NatProgrammerStaticKey > );

struct NatProgrammerTwiceKey {
   Netix::IntfId natIntf;
   Ip::Nat::TwiceKey key;

   static constexpr std::string_view typeName = "Pfe::NatProgrammerTwiceKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &NatProgrammerTwiceKey::natIntf >( "natIntf" ),
                         Vexa::attr< &NatProgrammerTwiceKey::key >( "key" ) );
   }
   friend auto operator<=>( NatProgrammerTwiceKey const &, NatProgrammerTwiceKey const & ) = default;
};
static_assert( Vexa::describesEveryMember< NatProgrammerTwiceKey > );

struct NatProgrammerDynamicKey {
   Netix::IntfId natIntf;
   Netix::ConnTuple conn;

   static constexpr std::string_view typeName = "Pfe::NatProgrammerDynamicKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &NatProgrammerDynamicKey::natIntf >( "natIntf" ),
                         Vexa::attr< &NatProgrammerDynamicKey::conn >( "conn" ) );
   }
   friend auto operator<=>( NatProgrammerDynamicKey const &, NatProgrammerDynamicKey const & ) = default;
};
static_assert( Vexa::describesEveryMember< NatProgrammerDynamicKey > );

struct NatProgrammerTrapKey {
   Netix::IntfId natIntf;
   Ip::Nat::DynamicKey key;

   static constexpr std::string_view typeName = "Pfe::NatProgrammerTrapKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &NatProgrammerTrapKey::natIntf >( "natIntf" ),
                         Vexa::attr< &NatProgrammerTrapKey::key >( "key" ) );
   }
   friend auto operator<=>( NatProgrammerTrapKey const &, NatProgrammerTrapKey const & ) = default;
};
static_assert( Vexa::describesEveryMember< NatProgrammerTrapKey > );

// Names one trap ACL.
struct NatTrapKey {
   Orla::String aclName;
   U16 poolId = 0;
   U16 ruleId = 0;

   static constexpr std::string_view typeName = "Pfe::NatTrapKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &NatTrapKey::aclName >( "aclName" ), Vexa::attr< &NatTrapKey::poolId >( "poolId" ),
                         Vexa::attr< &NatTrapKey::ruleId >( "ruleId" ) );
   }
   friend auto operator<=>( NatTrapKey const &, NatTrapKey const & ) = default;
};
static_assert( Vexa::describesEveryMember< NatTrapKey > );

using Vexa::operator<<;

}  // namespace Pfe
