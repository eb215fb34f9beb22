// The software-table configuration: static NAT rules as interface mode hands them on, each shared by all interfaces
// that have it.
#pragma once

#include <Bridging/VlanId.h>
#include <Bridging/VlanIdSet.h>
#include <Netix/IpAndPort.h>
#include <Orla/Entity.h>
#include <Orla/Ptr.h>
#include <Orla/String.h>
#include <Pfe/NatProgrammerEntries.h>
#include <Vexa/HashMap.h>
#include <Vexa/Value.h>

#include <utility>

namespace [[gnu::visibility( "default" )]] Pfe {

// One direction of a static rule, whatever the interface. Matches the old pair and writes the new one: forward the
// packets that leave the NATed network, reverse their replies.
struct NatSwTableStaticKey {
   Orla::String aclName;
   U32 vrfId = 0;
   Netix::IpAndPort ipAndPortOld;
   Netix::IpAndPort ipAndPortNew;
   Bridging::VlanIdOrNone vlanId;  // none in forward keys
   bool reverse = false;
   U8 protocol = 0;  // IANA protocol number; 0 matches every protocol
   bool mcast = false;

   static constexpr std::string_view typeName = "Pfe::NatSwTableStaticKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &NatSwTableStaticKey::aclName >( "aclName" ),
                         Vexa::attr< &NatSwTableStaticKey::vrfId >( "vrfId" ),
                         Vexa::attr< &NatSwTableStaticKey::ipAndPortOld >( "ipAndPortOld" ),
                         Vexa::attr< &NatSwTableStaticKey::ipAndPortNew >( "ipAndPortNew" ),
                         Vexa::attr< &NatSwTableStaticKey::vlanId >( "vlanId" ),
                         Vexa::attr< &NatSwTableStaticKey::reverse >( "reverse" ),
                         Vexa::attr< &NatSwTableStaticKey::protocol >( "protocol" ),
                         Vexa::attr< &NatSwTableStaticKey::mcast >( "mcast" ) );
   }
   friend auto operator<=>( NatSwTableStaticKey const &, NatSwTableStaticKey const & ) = default;
};
static_assert( Vexa::describesEveryMember< NatSwTableStaticKey > );

// What a key stands for. Filled by whoever creates it; once it is in a collection it does not change any more.
class NatSwTableStaticEntry final : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< NatSwTableStaticEntry >;
   using PtrConst = Orla::Ptr< NatSwTableStaticEntry const >;

   // The rule that the entry was made from. Null until set.
   NatProgrammerStaticEntry::PtrConst const & programmerEntry() const { return programmerEntry_; }
   void programmerEntryIs( NatProgrammerStaticEntry::PtrConst const & entry ) { programmerEntry_ = entry; }

   // Whether later fragments are matched as well.
   bool fragment() const { return fragment_; }
   void fragmentIs( bool fragment ) { fragment_ = fragment; }

   // The VLANs of all interfaces that share the entry.
   Bridging::VlanIdSet const & vlanId() const { return vlanId_; }
   void vlanIdsAre( Bridging::VlanIdSet vlanIds ) { vlanId_ = std::move( vlanIds ); }
   void vlanIdIs( Bridging::VlanId vlanId ) { vlanId_.is( vlanId ); }
   void vlanIdDel( Bridging::VlanId vlanId ) { vlanId_.del( vlanId ); }
   void vlanIdDelAll() { vlanId_ = {}; }
   bool vlanIdHas( Bridging::VlanId vlanId ) const { return vlanId_.has( vlanId ); }

   Vexa::TypeData const & typeData() const override;

 private:
   NatProgrammerStaticEntry::PtrConst programmerEntry_;
   bool fragment_ = false;
   Bridging::VlanIdSet vlanId_;
};

class NatSwTableConfig final : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< NatSwTableConfig >;
   using PtrConst = Orla::Ptr< NatSwTableConfig const >;
   using StaticEntries = Vexa::HashMap< NatSwTableStaticKey, NatSwTableStaticEntry::PtrConst, 0xC25A59B5 >;

   StaticEntries const & staticEntry() const { return staticEntry_; }
   // Null when the key is absent.
   NatSwTableStaticEntry::PtrConst staticEntry( NatSwTableStaticKey const & key ) const {
      return staticEntry_.valueOr( key );
   }
   bool staticEntryHas( NatSwTableStaticKey const & key ) const { return staticEntry_.has( key ); }
   // Inserts or replaces.
   void staticEntryIs( NatSwTableStaticKey const & key, NatSwTableStaticEntry::PtrConst entry ) {
      staticEntry_.is( key, std::move( entry ) );
   }
   void staticEntryDel( NatSwTableStaticKey const & key ) { staticEntry_.del( key ); }
   void staticEntryDelAll() { staticEntry_.delAll(); }

   Vexa::TypeData const & typeData() const override;

 private:
   StaticEntries staticEntry_;
};

using Vexa::operator<<;

}  // namespace Pfe
