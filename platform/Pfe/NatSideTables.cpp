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
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatAclNameIdTable" };
   return type;
}

Vexa::TypeData const & NatTrapConfig::typeData() const {
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatTrapConfig" };
   return type;
}

Vexa::TypeData const & NatProfileConfig::typeData() const {
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatProfileConfig" };
   return type;
}

}  // namespace Pfe
