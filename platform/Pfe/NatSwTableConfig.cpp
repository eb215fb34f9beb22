#include <Pfe/NatSwTableConfig.h>

#include <Pfe/NatSwTableStatus.h>
#include <Vexa/Type.h>

namespace [[gnu::visibility( "default" )]] Pfe {

Vexa::TypeData const & NatSwTableStaticEntry::typeData() const {
   using Entity = Orla::Entity;
   using Entry = NatSwTableStaticEntry;
   static constexpr Vexa::Attribute< Entity > attributes[] = {
      Vexa::attribute< Entity, &Entry::programmerEntry, &Entry::programmerEntryIs >( "programmerEntry" ),
      Vexa::attribute< Entity, &Entry::fragment, &Entry::fragmentIs >( "fragment" ),
      Vexa::collectionAttribute< Entity, &Entry::vlanIdHas, &Entry::vlanIdIs, &Entry::vlanIdDel >( "vlanId" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatSwTableStaticEntry", .attributes = attributes };
   return type;
}

Vexa::TypeData const & NatSwTableConfig::typeData() const {
   using Entity = Orla::Entity;
   static constexpr Vexa::Attribute< Entity > attributes[] = {
      Vexa::mapAttribute< Entity, Vexa::MapOf< NatSwTableConfig, StaticEntries >( &NatSwTableConfig::staticEntry ),
                          &NatSwTableConfig::staticEntryIs, &NatSwTableConfig::staticEntryDel >( "staticEntry" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatSwTableConfig", .attributes = attributes };
   return type;
}

Vexa::TypeData const & NatSwTableStatus::typeData() const {
   using Entity = Orla::Entity;
   static constexpr Vexa::Attribute< Entity > attributes[] = {
      Vexa::mapAttribute< Entity, Vexa::MapOf< NatSwTableStatus, StaticEntries >( &NatSwTableStatus::staticEntry ),
                          &NatSwTableStatus::staticEntryIs, &NatSwTableStatus::staticEntryDel >( "staticEntry" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatSwTableStatus", .attributes = attributes };
   return type;
}

}  // namespace Pfe
