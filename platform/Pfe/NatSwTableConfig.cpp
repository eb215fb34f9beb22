#include <Pfe/NatSwTableConfig.h>

#include <Pfe/NatSwTableStatus.h>
#include <Vexa/Type.h>

namespace [[gnu::visibility( "default" )]] Pfe {

Vexa::TypeData const & NatSwTableStaticEntry::typeData() const {
   using Entry = NatSwTableStaticEntry;
   static constexpr Vexa::Attribute< Orla::Entity > attributes[] = {
      Vexa::attribute< Orla::Entity, &Entry::programmerEntry, &Entry::programmerEntryIs >( "programmerEntry" ),
      Vexa::attribute< Orla::Entity, &Entry::fragment, &Entry::fragmentIs >( "fragment" ),
      Vexa::collectionAttribute< Orla::Entity, &Entry::vlanIdHas >( "vlanId" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatSwTableStaticEntry", .attributes = attributes };
   return type;
}

Vexa::TypeData const & NatSwTableConfig::typeData() const {
   using EntryOf = NatSwTableStaticEntry::PtrConst ( NatSwTableConfig::* )( NatSwTableStaticKey const & ) const;
   static constexpr Vexa::Attribute< Orla::Entity > attributes[] = {
      Vexa::collectionAttribute< Orla::Entity, static_cast< EntryOf >( &NatSwTableConfig::staticEntry ) >(
         "staticEntry" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatSwTableConfig", .attributes = attributes };
   return type;
}

Vexa::TypeData const & NatSwTableStatus::typeData() const {
   using EntryOf = Vexa::Optional< NatSwTableStatusEntry > ( NatSwTableStatus::* )( NatSwTableStaticKey const & ) const;
   static constexpr Vexa::Attribute< Orla::Entity > attributes[] = {
      Vexa::collectionAttribute< Orla::Entity, static_cast< EntryOf >( &NatSwTableStatus::staticEntry ) >(
         "staticEntry" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatSwTableStatus", .attributes = attributes };
   return type;
}

}  // namespace Pfe
