#include <Pfe/NatIdInfo.h>

#include <Vexa/Type.h>

namespace [[gnu::visibility( "default" )]] Pfe {

Vexa::TypeData const & NatIdInfo::typeData() const {
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatIdInfo" };
   return type;
}

}  // namespace Pfe
