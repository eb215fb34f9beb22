#include <IpNat/HwCapabilities.h>

#include <Vexa/Type.h>

namespace [[gnu::visibility( "default" )]] Ip {
namespace Nat {

Vexa::TypeData const & HwCapabilities::typeData() const {
   static constexpr Vexa::Attribute< Orla::Entity > attributes[] = {
      Vexa::attribute< Orla::Entity, &HwCapabilities::fullConeProgrammed, &HwCapabilities::fullConeProgrammedIs >(
         "fullConeProgrammed" ) };
   static constexpr Vexa::TypeData type{ .name = "Ip::Nat::HwCapabilities", .attributes = attributes };
   return type;
}

}  // namespace Nat
}  // namespace Ip
