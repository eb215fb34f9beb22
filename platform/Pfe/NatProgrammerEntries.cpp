#include <Pfe/NatProgrammerEntries.h>

#include <Vexa/Type.h>

namespace [[gnu::visibility( "default" )]] Pfe {

bool NatProgrammerStaticEntry::derivesSameRows( NatProgrammerStaticEntry const & other ) const {
   return connection() == other.connection() && vrfId() == other.vrfId() && vlanId() == other.vlanId() &&
          intfQualifier() == other.intfQualifier();
}

bool NatProgrammerTwiceEntry::derivesSameRows( NatProgrammerTwiceEntry const & other ) const {
   return connection() == other.connection() && vrfId() == other.vrfId() && vlanId() == other.vlanId() &&
          intfQualifier() == other.intfQualifier();
}

bool NatProgrammerDynamicEntry::derivesSameRows( NatProgrammerDynamicEntry const & other ) const {
   return connection() == other.connection() && global() == other.global() && vrfId() == other.vrfId() &&
          intfQualifier() == other.intfQualifier();
}

Vexa::TypeData const & NatProgrammerStaticEntry::typeData() const {
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatProgrammerStaticEntry" };
   return type;
}

Vexa::TypeData const & NatProgrammerTwiceEntry::typeData() const {
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatProgrammerTwiceEntry" };
   return type;
}

Vexa::TypeData const & NatProgrammerDynamicEntry::typeData() const {
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatProgrammerDynamicEntry" };
   return type;
}

Vexa::TypeData const & NatProgrammerTrapEntry::typeData() const {
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatProgrammerTrapEntry" };
   return type;
}

}  // namespace Pfe
