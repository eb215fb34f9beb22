#include <Pfe/NatSideTables.h>

#include <Vexa/Type.h>

namespace [[gnu::visibility( "default" )]] Pfe {

U32 NatAclNameIdTable::allocateAclId( Orla::String const & aclName ) {
   auto const [ id, isNew ] = aclId_.refOrEmplace( aclName );
   if ( isNew ) {
      id = static_cast< U32 >( aclId_.count() );
   }
   return id;
}

Vexa::TypeData const & NatAclNameIdTable::typeData() const {
   using Entity = Orla::Entity;
   static constexpr Vexa::Attribute< Entity > attributes[] = {
      Vexa::methodAttribute< Entity, &NatAclNameIdTable::allocateAclId >( "allocateAclId" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatAclNameIdTable", .attributes = attributes };
   return type;
}

Vexa::TypeData const & NatTrapConfig::typeData() const {
   using Entity = Orla::Entity;
   static constexpr Vexa::Attribute< Entity > attributes[] = {
      Vexa::mapAttribute< Entity, &NatTrapConfig::trapAcl, &NatTrapConfig::trapAclIs, &NatTrapConfig::trapAclDel >(
         "trapAcl" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatTrapConfig", .attributes = attributes };
   return type;
}

Vexa::TypeData const & NatProfileConfig::typeData() const {
   using Entity = Orla::Entity;
   static constexpr Vexa::Attribute< Entity > attributes[] = {
      Vexa::mapAttribute< Entity, &NatProfileConfig::vlanIdToProfileId, &NatProfileConfig::vlanIdToProfileIdIs,
                          &NatProfileConfig::vlanIdToProfileIdDel >( "vlanIdToProfileId" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatProfileConfig", .attributes = attributes };
   return type;
}

}  // namespace Pfe
