#include <Pfe/NatProgrammerConfig.h>

#include <Pfe/NatProgrammerStatus.h>
#include <Vexa/Type.h>

namespace [[gnu::visibility( "default" )]] Pfe {

Vexa::TypeData const & NatProgrammerConfig::typeData() const {
   using Entity = Orla::Entity;
   static constexpr Vexa::Attribute< Entity > attributes[] = {
      Vexa::attribute< Entity, &NatProgrammerConfig::fragmentationEnabled,
                       &NatProgrammerConfig::fragmentationEnabledIs >( "fragmentationEnabled" ),
      Vexa::attribute< Entity, &NatProgrammerConfig::vrfLess, &NatProgrammerConfig::vrfLessIs >( "vrfLess" ),
      Vexa::mapAttribute< Entity,
                          Vexa::MapOf< NatProgrammerConfig, StaticEntries >( &NatProgrammerConfig::staticEntry ),
                          &NatProgrammerConfig::staticEntryIs, &NatProgrammerConfig::staticEntryDel >( "staticEntry" ),
      Vexa::mapAttribute< Entity, Vexa::MapOf< NatProgrammerConfig, TwiceEntries >( &NatProgrammerConfig::twiceEntry ),
                          &NatProgrammerConfig::twiceEntryIs, &NatProgrammerConfig::twiceEntryDel >( "twiceEntry" ),
      Vexa::mapAttribute< Entity,
                          Vexa::MapOf< NatProgrammerConfig, DynamicEntries >( &NatProgrammerConfig::dynamicEntry ),
                          &NatProgrammerConfig::dynamicEntryIs, &NatProgrammerConfig::dynamicEntryDel >(
         "dynamicEntry" ),
      Vexa::mapAttribute< Entity, Vexa::MapOf< NatProgrammerConfig, TrapEntries >( &NatProgrammerConfig::trapEntry ),
                          &NatProgrammerConfig::trapEntryIs, &NatProgrammerConfig::trapEntryDel >( "trapEntry" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatProgrammerConfig", .attributes = attributes };
   return type;
}

Vexa::TypeData const & NatVlanProfileConfig::typeData() const {
   using Entity = Orla::Entity;
   static constexpr Vexa::Attribute< Entity > attributes[] = {
      Vexa::mapAttribute< Entity, &NatVlanProfileConfig::vlanProfile, &NatVlanProfileConfig::vlanProfileIs,
                          &NatVlanProfileConfig::vlanProfileDel >( "vlanProfile" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatVlanProfileConfig", .attributes = attributes };
   return type;
}

Vexa::TypeData const & NatProgrammerStatus::typeData() const {
   using Entity = Orla::Entity;
   static constexpr Vexa::Attribute< Entity > attributes[] = {
      Vexa::mapAttribute< Entity,
                          Vexa::MapOf< NatProgrammerStatus, StaticStatus >( &NatProgrammerStatus::staticStatus ),
                          &NatProgrammerStatus::staticStatusIs, &NatProgrammerStatus::staticStatusDel >(
         "staticStatus" ),
      Vexa::mapAttribute< Entity, Vexa::MapOf< NatProgrammerStatus, TwiceStatus >( &NatProgrammerStatus::twiceStatus ),
                          &NatProgrammerStatus::twiceStatusIs, &NatProgrammerStatus::twiceStatusDel >( "twiceStatus" ),
      Vexa::mapAttribute< Entity,
                          Vexa::MapOf< NatProgrammerStatus, DynamicStatus >( &NatProgrammerStatus::dynamicStatus ),
                          &NatProgrammerStatus::dynamicStatusIs, &NatProgrammerStatus::dynamicStatusDel >(
         "dynamicStatus" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatProgrammerStatus", .attributes = attributes };
   return type;
}

}  // namespace Pfe
