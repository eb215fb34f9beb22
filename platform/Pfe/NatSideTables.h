// What the programmer writes beside the software tables: access-list ids, trap ACLs, profiles.
#pragma once

#include <Orla/Entity.h>
#include <Orla/Ptr.h>
#include <Orla/String.h>
#include <Pfe/NatProgrammerKeys.h>
#include <Vexa/HashMap.h>

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

// One trap ACL. Its rules are what the hardware traps packets by.
class NatTrapAcl {
 public:
   NatTrapAcl() = default;
   explicit NatTrapAcl( NatTrapKey const & key ) : key_( key ) {}
   NatTrapKey const & key() const { return key_; }

 private:
   NatTrapKey key_;
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
