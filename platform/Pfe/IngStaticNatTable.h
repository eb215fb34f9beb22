// The ingress match table of static rules.
#pragma once

#include <Asic/SwTable.h>
#include <IpNat/NatStatic.h>
#include <Netix/IpAndPort.h>
#include <Orla/String.h>
#include <Vexa/RareList.h>
#include <Vexa/Value.h>

namespace [[gnu::visibility( "default" )]] Pfe {

struct IngStaticNatTableKey {
   Orla::String natIntf;  // the interface's name
   U32 vrfId = 0;
   Netix::IpAndPort ipAndPortOld;  // what the packet carries
   Netix::IpAndPort ipAndPortNew;  // what it is translated to
   Ip::Nat::NatTarget target = Ip::Nat::NatTarget::source;
   U8 protocol = 0;
   bool fragment = false;  // matches later fragments, which have no ports
   bool mcast = false;

   static constexpr std::string_view typeName = "Pfe::IngStaticNatTableKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &IngStaticNatTableKey::natIntf >( "natIntf" ),
                         Vexa::attr< &IngStaticNatTableKey::vrfId >( "vrfId" ),
                         Vexa::attr< &IngStaticNatTableKey::ipAndPortOld >( "ipAndPortOld" ),
                         Vexa::attr< &IngStaticNatTableKey::ipAndPortNew >( "ipAndPortNew" ),
                         Vexa::attr< &IngStaticNatTableKey::target >( "target" ),
                         Vexa::attr< &IngStaticNatTableKey::protocol >( "protocol" ),
                         Vexa::attr< &IngStaticNatTableKey::fragment >( "fragment" ),
                         Vexa::attr< &IngStaticNatTableKey::mcast >( "mcast" ) );
   }
   friend auto operator<=>( IngStaticNatTableKey const &, IngStaticNatTableKey const & ) = default;
};
static_assert( Vexa::describesEveryMember< IngStaticNatTableKey > );

struct IngStaticNatEntry : Asic::ReferringEntry {
   void filterIs( Ip::Nat::NatFilter const & filter ) { filters.push( filter ); }

   U32 nextHopId = 0;  // 0: forwarded by the routes
   U32 aclId = 0;      // 0: no access list
   Vexa::RareList< Ip::Nat::NatFilter > filters;

   friend bool operator==( IngStaticNatEntry const &, IngStaticNatEntry const & ) = default;
   friend std::ostream & operator<<( std::ostream & out, IngStaticNatEntry const & entry );
};

struct IngStaticNatTableTraits {
   using Key = IngStaticNatTableKey;
   using Entry = IngStaticNatEntry;
   static constexpr std::string_view tableName = "ingStaticNatTable";
   static constexpr std::string_view typeName = "Pfe::IngStaticNatTable";
   static constexpr U32 hashConstant = 0x3B9F21C7;
};
using IngStaticNatTable = Asic::SwTable< IngStaticNatTableTraits >;

using Vexa::operator<<;

}  // namespace Pfe
