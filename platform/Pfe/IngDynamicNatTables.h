// The four ingress match tables of learned connections. Their keys have equal fields but are distinct types, one per
// table, so that a key of one can never be looked up in another.
#pragma once

#include <Asic/SwTable.h>
#include <Netix/IpAddr.h>
#include <Netix/VrfId.h>
#include <Vexa/Value.h>

namespace [[gnu::visibility( "default" )]] Pfe {

// Source and destination NAPT. `Tag` gives the table's names and constant.
template< class Tag > struct IngDynamicNaptKey {
   Netix::VrfId vrfId;
   U16 intfQualifier = 0;
   Netix::IpAddr firstIp;
   U16 firstPort = 0;
   Netix::IpAddr secondIp;
   U16 secondPort = 0;
   U8 protocol = 0;
   U8 fragment = 0;  // 1 matches later fragments, which have no ports
   bool l4Detected = false;

   static constexpr std::string_view typeName = Tag::keyTypeName;
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &IngDynamicNaptKey::vrfId >( "vrfId" ),
                         Vexa::attr< &IngDynamicNaptKey::intfQualifier >( "intfQualifier" ),
                         Vexa::attr< &IngDynamicNaptKey::firstIp >( "firstIp" ),
                         Vexa::attr< &IngDynamicNaptKey::firstPort >( "firstPort" ),
                         Vexa::attr< &IngDynamicNaptKey::secondIp >( "secondIp" ),
                         Vexa::attr< &IngDynamicNaptKey::secondPort >( "secondPort" ),
                         Vexa::attr< &IngDynamicNaptKey::protocol >( "protocol" ),
                         Vexa::attr< &IngDynamicNaptKey::fragment >( "fragment" ),
                         Vexa::attr< &IngDynamicNaptKey::l4Detected >( "l4Detected" ) );
   }
   friend auto operator<=>( IngDynamicNaptKey const &, IngDynamicNaptKey const & ) = default;
};

// Address-only translation of the source or the destination.
template< class Tag > struct IngDynamicAddrOnlyKey {
   Netix::VrfId vrfId;
   U16 intfQualifier = 0;
   Netix::IpAddr ip;

   static constexpr std::string_view typeName = Tag::keyTypeName;
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &IngDynamicAddrOnlyKey::vrfId >( "vrfId" ),
                         Vexa::attr< &IngDynamicAddrOnlyKey::intfQualifier >( "intfQualifier" ),
                         Vexa::attr< &IngDynamicAddrOnlyKey::ip >( "ip" ) );
   }
   friend auto operator<=>( IngDynamicAddrOnlyKey const &, IngDynamicAddrOnlyKey const & ) = default;
};

// The destination tables use the next-hop id; the source tables leave it 0.
struct IngDynamicNatEntry : Asic::ReferringEntry {
   U16 natId = 0;
   U32 nextHopId = 0;

   friend bool operator==( IngDynamicNatEntry const &, IngDynamicNatEntry const & ) = default;
   friend std::ostream & operator<<( std::ostream & out, IngDynamicNatEntry const & entry );
};

struct IngDynamicSnaptTableTraits {
   static constexpr std::string_view tableName = "ingDynamicSnaptTable";
   static constexpr std::string_view typeName = "Pfe::IngDynamicSnaptTable";
   static constexpr std::string_view keyTypeName = "Pfe::IngDynamicSnaptTable::Key";
   static constexpr U32 hashConstant = 0x1F83D9AB;
   using Key = IngDynamicNaptKey< IngDynamicSnaptTableTraits >;
   using Entry = IngDynamicNatEntry;
};
struct IngDynamicDnaptTableTraits {
   static constexpr std::string_view tableName = "ingDynamicDnaptTable";
   static constexpr std::string_view typeName = "Pfe::IngDynamicDnaptTable";
   static constexpr std::string_view keyTypeName = "Pfe::IngDynamicDnaptTable::Key";
   static constexpr U32 hashConstant = 0x5BE0CD19;
   using Key = IngDynamicNaptKey< IngDynamicDnaptTableTraits >;
   using Entry = IngDynamicNatEntry;
};
struct IngDynamicSnatAddrOnlyTableTraits {
   static constexpr std::string_view tableName = "ingDynamicSnatAddrOnlyTable";
   static constexpr std::string_view typeName = "Pfe::IngDynamicSnatAddrOnlyTable";
   static constexpr std::string_view keyTypeName = "Pfe::IngDynamicSnatAddrOnlyTable::Key";
   static constexpr U32 hashConstant = 0x9B05688C;
   using Key = IngDynamicAddrOnlyKey< IngDynamicSnatAddrOnlyTableTraits >;
   using Entry = IngDynamicNatEntry;
};
struct IngDynamicDnatAddrOnlyTableTraits {
   static constexpr std::string_view tableName = "ingDynamicDnatAddrOnlyTable";
   static constexpr std::string_view typeName = "Pfe::IngDynamicDnatAddrOnlyTable";
   static constexpr std::string_view keyTypeName = "Pfe::IngDynamicDnatAddrOnlyTable::Key";
   static constexpr U32 hashConstant = 0xC1059ED8;
   using Key = IngDynamicAddrOnlyKey< IngDynamicDnatAddrOnlyTableTraits >;
   using Entry = IngDynamicNatEntry;
};

using IngDynamicSnaptTable = Asic::SwTable< IngDynamicSnaptTableTraits >;
using IngDynamicDnaptTable = Asic::SwTable< IngDynamicDnaptTableTraits >;
using IngDynamicSnatAddrOnlyTable = Asic::SwTable< IngDynamicSnatAddrOnlyTableTraits >;
using IngDynamicDnatAddrOnlyTable = Asic::SwTable< IngDynamicDnatAddrOnlyTableTraits >;

static_assert( Vexa::describesEveryMember< IngDynamicSnaptTable::Key > );
static_assert( Vexa::describesEveryMember< IngDynamicSnatAddrOnlyTable::Key > );

using Vexa::operator<<;

}  // namespace Pfe
