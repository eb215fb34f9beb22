#include <Pfe/NatNextHop.h>

#include <Vexa/Type.h>

namespace [[gnu::visibility( "default" )]] Pfe {

Vexa::TypeData const & NatNextHopInfo::typeData() const {
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatNextHopInfo" };
   return type;
}

Vexa::TypeData const & NatNextHopId::typeData() const {
   static constexpr Vexa::Attribute< Orla::Entity > attributes[] = {
      Vexa::readOnlyAttribute< Orla::Entity, &NatNextHopId::id >( "id" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatNextHopId", .attributes = attributes };
   return type;
}

}  // namespace Pfe
