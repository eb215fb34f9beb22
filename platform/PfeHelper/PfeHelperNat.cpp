#include <PfeHelper/PfeHelperNat.h>

#include <Vexa/Type.h>

namespace [[gnu::visibility( "default" )]] PfeHelper {

PfeHelperNat::~PfeHelperNat() = default;

Vexa::TypeData const & PfeHelperNat::typeData() const {
   static constexpr Vexa::Attribute< Orla::Entity > attributes[] = {
      Vexa::readOnlyAttribute< Orla::Entity, &PfeHelperNat::name >( "name" ) };
   static constexpr Vexa::TypeData type{ .name = "PfeHelper::PfeHelperNat", .attributes = attributes };
   return type;
}

}  // namespace PfeHelper
