#include <Pfe/NatIdInfo.h>

#include <Vexa/Type.h>

namespace [[gnu::visibility( "default" )]] Pfe {

Vexa::TypeData const & NatIdInfo::typeData() const {
   using Entity = Orla::Entity;
   static constexpr Vexa::Attribute< Entity > attributes[] = {
      Vexa::mapAttribute< Entity, Vexa::MapOf< NatIdInfo, MatchKeyToNatId >( &NatIdInfo::matchKeyToNatId ),
                          &NatIdInfo::matchKeyToNatIdIs, &NatIdInfo::matchKeyToNatIdDel >( "matchKeyToNatId" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatIdInfo", .attributes = attributes };
   return type;
}

}  // namespace Pfe
