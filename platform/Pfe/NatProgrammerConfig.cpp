#include <Pfe/NatProgrammerConfig.h>

#include <Pfe/NatProgrammerStatus.h>
#include <Vexa/Type.h>

namespace [[gnu::visibility( "default" )]] Pfe {

Vexa::TypeData const & NatProgrammerConfig::typeData() const {
   static constexpr Vexa::Attribute< Orla::Entity > attributes[] = {
      Vexa::attribute< Orla::Entity, &NatProgrammerConfig::fragmentationEnabled,
                       &NatProgrammerConfig::fragmentationEnabledIs >( "fragmentationEnabled" ),
      Vexa::attribute< Orla::Entity, &NatProgrammerConfig::vrfLess, &NatProgrammerConfig::vrfLessIs >( "vrfLess" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatProgrammerConfig", .attributes = attributes };
   return type;
}

Vexa::TypeData const & NatVlanProfileConfig::typeData() const {
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatVlanProfileConfig" };
   return type;
}

Vexa::TypeData const & NatProgrammerStatus::typeData() const {
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatProgrammerStatus" };
   return type;
}

}  // namespace Pfe
