// What the programmer writes beside the software tables: access-list ids, trap ACLs, profiles.
#pragma once

#include <Netix/IpAddrWithFullMask.h>
#include <Orla/Entity.h>
#include <Orla/Ptr.h>
#include <Orla/String.h>
#include <Pfe/NatProgrammerKeys.h>
#include <Vexa/HashMap.h>
#include <Vexa/Value.h>

#include <map>
#include <string_view>

namespace [[gnu::visibility( "default" )]] Pfe {

// Ids of access lists by name, from 1 in the order in which names are first asked for. They are not given back.
class NatAclNameIdTable final : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< NatAclNameIdTable >;
   using AclIds = Vexa::HashMap< Orla::String, U32, 0x452821E6 >;

   // A known name has the id that it had before.
   U32 allocateAclId( Orla::String const & aclName );
   AclIds const & aclId() const { return aclId_; }

   Vexa::TypeData const & typeData() const override;

 private:
   AclIds aclId_;
};

// One rule of a trap ACL: what the hardware compares a packet with.
struct NatTrapRule {
   U32 sequence = 0;
   U32 vrfId = 0;
   Netix::IpAddrWithFullMask source;
   Netix::IpAddrWithFullMask destination;
   U16 sourcePort = 0;
   U16 sourcePortMask = 0;
   U16 destinationPort = 0;
   U16 destinationPortMask = 0;
   U16 trap = 0;
   U8 protocol = 0;
   U8 protocolMask = 0;

   static constexpr std::string_view typeName = "Pfe::NatTrapRule";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &NatTrapRule::sequence >( "sequence" ),
                         Vexa::attr< &NatTrapRule::vrfId >( "vrfId" ), Vexa::attr< &NatTrapRule::source >( "source" ),
                         Vexa::attr< &NatTrapRule::destination >( "destination" ),
                         Vexa::attr< &NatTrapRule::sourcePort >( "sourcePort" ),
                         Vexa::attr< &NatTrapRule::sourcePortMask >( "sourcePortMask" ),
                         Vexa::attr< &NatTrapRule::destinationPort >( "destinationPort" ),
                         Vexa::attr< &NatTrapRule::destinationPortMask >( "destinationPortMask" ),
                         Vexa::attr< &NatTrapRule::trap >( "trap" ), Vexa::attr< &NatTrapRule::protocol >( "protocol" ),
                         Vexa::attr< &NatTrapRule::protocolMask >( "protocolMask" ) );
   }
   friend auto operator<=>( NatTrapRule const &, NatTrapRule const & ) = default;
};
static_assert( Vexa::describesEveryMember< NatTrapRule > );

// One trap ACL. A rule written under a sequence number that is taken replaces the earlier one.
class NatTrapAcl {
 public:
   NatTrapAcl() = default;
   explicit NatTrapAcl( NatTrapKey const & key ) : key_( key ) {}

   NatTrapKey const & key() const { return key_; }
   std::map< U32, NatTrapRule > const & ruleBySequence() const { return ruleBySequence_; }
   void ruleBySequenceIs( U32 sequence, NatTrapRule const & rule ) {
      ruleBySequence_.insert_or_assign( sequence, rule );
   }

   // Of the dynamic trap rule.
   U16 poolValue = 0;
   U8 priority = 0;
   U8 action = 0;

 private:
   NatTrapKey key_;
   std::map< U32, NatTrapRule > ruleBySequence_;
};

class NatTrapConfig final : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< NatTrapConfig >;
   using TrapAcls = Vexa::HashMap< NatTrapKey, NatTrapAcl, 0x38D01377 >;

   TrapAcls const & trapAcl() const { return trapAcl_; }
   // Replaces any ACL of the same key.
   void trapAclIs( NatTrapAcl const & acl ) { trapAcl_.is( acl.key(), acl ); }
   void trapAclDel( NatTrapKey const & key ) { trapAcl_.del( key ); }
   void trapAclDelAll() { trapAcl_.delAll(); }

   Vexa::TypeData const & typeData() const override;

 private:
   TrapAcls trapAcl_;
};

// The profile of each VLAN, as the hardware shall use it.
class NatProfileConfig final : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< NatProfileConfig >;
   using VlanIdToProfileId = Vexa::HashMap< U16, U16, 0xBE5466CF >;

   VlanIdToProfileId const & vlanIdToProfileId() const { return vlanIdToProfileId_; }
   void vlanIdToProfileIdIs( U16 vlanId, U16 profileId ) { vlanIdToProfileId_.is( vlanId, profileId ); }
   void vlanIdToProfileIdDel( U16 vlanId ) { vlanIdToProfileId_.del( vlanId ); }

   Vexa::TypeData const & typeData() const override;

 private:
   VlanIdToProfileId vlanIdToProfileId_;
};

}  // namespace Pfe
