// The egress rewrite tables.
#pragma once

#include <Asic/SwTable.h>
#include <Netix/IpAddr.h>
#include <Pfe/NatId.h>
#include <Vexa/Value.h>

namespace [[gnu::visibility( "default" )]] Pfe {

struct EgrNatUcRewriteKey {
   NatId natId;
   U16 qualifier = 0;  // of the rule's interface

   static constexpr std::string_view typeName = "Pfe::EgrNatUcRewriteKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &EgrNatUcRewriteKey::natId >( "natId" ),
                         Vexa::attr< &EgrNatUcRewriteKey::qualifier >( "qualifier" ) );
   }
   friend auto operator<=>( EgrNatUcRewriteKey const &, EgrNatUcRewriteKey const & ) = default;
};
static_assert( Vexa::describesEveryMember< EgrNatUcRewriteKey > );

// What is written into the packet; a field of 0 leaves the packet's own.
struct EgrNatUcRewriteEntry : Asic::EntryBase {
   Netix::IpAddr srcIp;
   Netix::IpAddr dstIp;
   U16 srcPort = 0;
   U16 dstPort = 0;

   static constexpr std::string_view typeName = "Pfe::EgrNatUcRewriteEntry";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &EgrNatUcRewriteEntry::srcIp >( "srcIp" ),
                         Vexa::attr< &EgrNatUcRewriteEntry::srcPort >( "srcPort" ),
                         Vexa::attr< &EgrNatUcRewriteEntry::dstIp >( "dstIp" ),
                         Vexa::attr< &EgrNatUcRewriteEntry::dstPort >( "dstPort" ) );
   }
   friend auto operator<=>( EgrNatUcRewriteEntry const &, EgrNatUcRewriteEntry const & ) = default;
};
static_assert( Vexa::describesEveryMember< EgrNatUcRewriteEntry > );

// One replication of a multicast translation: the NAT id, and which copy.
struct EgrNatMcRewriteKey {
   NatId natId;
   U16 replication = 0;

   static constexpr std::string_view typeName = "Pfe::EgrNatMcRewriteKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &EgrNatMcRewriteKey::natId >( "natId" ),
                         Vexa::attr< &EgrNatMcRewriteKey::replication >( "replication" ) );
   }
   friend auto operator<=>( EgrNatMcRewriteKey const &, EgrNatMcRewriteKey const & ) = default;
};
static_assert( Vexa::describesEveryMember< EgrNatMcRewriteKey > );

struct EgrNatMcRewriteEntry : Asic::EntryBase {
   Netix::IpAddr srcIp;
   Netix::IpAddr dstIp;
   U32 egressIntf = 0;  // the interface that the copy leaves by, as Netix::IntfId counts them
   U8 flags = 0;        // the platform's own

   static constexpr std::string_view typeName = "Pfe::EgrNatMcRewriteEntry";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &EgrNatMcRewriteEntry::srcIp >( "srcIp" ),
                         Vexa::attr< &EgrNatMcRewriteEntry::dstIp >( "dstIp" ),
                         Vexa::attr< &EgrNatMcRewriteEntry::egressIntf >( "egressIntf" ),
                         Vexa::attr< &EgrNatMcRewriteEntry::flags >( "flags" ) );
   }
   friend auto operator<=>( EgrNatMcRewriteEntry const &, EgrNatMcRewriteEntry const & ) = default;
};
static_assert( Vexa::describesEveryMember< EgrNatMcRewriteEntry > );

struct EgrSourceNatUcRewriteTableTraits {
   using Key = EgrNatUcRewriteKey;
   using Entry = EgrNatUcRewriteEntry;
   static constexpr std::string_view tableName = "egrSourceNatUcRewriteTable";
   static constexpr std::string_view typeName = "Pfe::EgrSourceNatUcRewriteTable";
   static constexpr U32 hashConstant = 0x629A292A;
};
struct EgrDestinationNatUcRewriteTableTraits {
   using Key = EgrNatUcRewriteKey;
   using Entry = EgrNatUcRewriteEntry;
   static constexpr std::string_view tableName = "egrDestinationNatUcRewriteTable";
   static constexpr std::string_view typeName = "Pfe::EgrDestinationNatUcRewriteTable";
   static constexpr U32 hashConstant = 0x91590159;
};
struct EgrNatMcRewriteTableTraits {
   using Key = EgrNatMcRewriteKey;
   using Entry = EgrNatMcRewriteEntry;
   static constexpr std::string_view tableName = "egrNatMcRewriteTable";
   static constexpr std::string_view typeName = "Pfe::EgrNatMcRewriteTable";
   static constexpr U32 hashConstant = 0x152FECD8;
};

using EgrSourceNatUcRewriteTable = Asic::SwTable< EgrSourceNatUcRewriteTableTraits >;
using EgrDestinationNatUcRewriteTable = Asic::SwTable< EgrDestinationNatUcRewriteTableTraits >;
using EgrNatMcRewriteTable = Asic::SwTable< EgrNatMcRewriteTableTraits >;

using Vexa::operator<<;

}  // namespace Pfe
