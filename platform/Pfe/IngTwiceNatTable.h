// The ingress match table of twice rules, which translate source and destination together.
#pragma once

#include <Asic/SwTable.h>
#include <Netix/IntfId.h>
#include <Netix/IpAndPort.h>
#include <Vexa/Value.h>

namespace [[gnu::visibility( "default" )]] Pfe {

struct IngTwiceNatTableKey {
   Netix::IntfId natIntf;
   U32 vrfId = 0;
   Netix::IpAndPort srcIpAndPortOld;  // what the packet carries
   Netix::IpAndPort dstIpAndPortOld;
   Netix::IpAndPort srcIpAndPortNew;  // what it is translated to
   Netix::IpAndPort dstIpAndPortNew;
   bool forward = false;
   bool fragment = false;
   bool mcast = false;

   static constexpr std::string_view typeName = "Pfe::IngTwiceNatTableKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &IngTwiceNatTableKey::natIntf >( "natIntf" ),
                         Vexa::attr< &IngTwiceNatTableKey::vrfId >( "vrfId" ),
                         Vexa::attr< &IngTwiceNatTableKey::srcIpAndPortOld >( "srcIpAndPortOld" ),
                         Vexa::attr< &IngTwiceNatTableKey::dstIpAndPortOld >( "dstIpAndPortOld" ),
                         Vexa::attr< &IngTwiceNatTableKey::srcIpAndPortNew >( "srcIpAndPortNew" ),
                         Vexa::attr< &IngTwiceNatTableKey::dstIpAndPortNew >( "dstIpAndPortNew" ),
                         Vexa::attr< &IngTwiceNatTableKey::forward >( "forward" ),
                         Vexa::attr< &IngTwiceNatTableKey::fragment >( "fragment" ),
                         Vexa::attr< &IngTwiceNatTableKey::mcast >( "mcast" ) );
   }
   friend auto operator<=>( IngTwiceNatTableKey const &, IngTwiceNatTableKey const & ) = default;
};
static_assert( Vexa::describesEveryMember< IngTwiceNatTableKey > );

struct IngTwiceNatEntry : Asic::ReferringEntry {
   U32 nextHopId = 0;  // 0: forwarded by the routes

   friend bool operator==( IngTwiceNatEntry const &, IngTwiceNatEntry const & ) = default;
   friend std::ostream & operator<<( std::ostream & out, IngTwiceNatEntry const & entry );
};

struct IngTwiceNatTableTraits {
   using Key = IngTwiceNatTableKey;
   using Entry = IngTwiceNatEntry;
   static constexpr std::string_view tableName = "ingTwiceNatTable";
   static constexpr std::string_view typeName = "Pfe::IngTwiceNatTable";
   static constexpr U32 hashConstant = 0x7D15A4E9;
};
using IngTwiceNatTable = Asic::SwTable< IngTwiceNatTableTraits >;

using Vexa::operator<<;

}  // namespace Pfe
