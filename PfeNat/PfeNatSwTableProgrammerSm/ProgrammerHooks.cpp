#include "PfeNat/PfeNatSwTableProgrammerSm/ProgrammerHooks.h"

#include <Vexa/Type.h>

namespace [[gnu::visibility( "default" )]] Pfe {

PfeNatProgrammerBaseHelper::PfeNatProgrammerBaseHelper( Orla::String const & name ) : PfeHelperNat( name ) {
   skipDeferredProcessingOnInitIs( true );
}

bool PfeNatProgrammerBaseHelper::immediateCommit() const { return true; }

Vexa::TypeData const & PfeNatProgrammerBaseHelper::classType() {
   static constexpr Vexa::Attribute< Orla::Entity > attributes[] = {
      Vexa::readOnlyAttribute< Orla::Entity, &PfeHelperNat::name >( "name" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::PfeNatProgrammerBaseHelper",
                                         .attributes = attributes,
                                         .construct = Vexa::constructFromArguments< &PfeNatProgrammerBaseHelperIs > };
   return type;
}

PfeNatProgrammerBaseHelper::Ptr PfeNatProgrammerBaseHelperIs( Orla::String const & name ) {
   return Orla::make< PfeNatProgrammerBaseHelper >( name );
}

PfeNatProgrammerBaseHelper::Ptr pfeNatProgrammerBaseHelperFactory( Orla::String const & name ) {
   return PfeNatProgrammerBaseHelperIs( name );
}

Vexa::TypeData const & NatMcastProgrammerHelper::classType() {
   using Helper = NatMcastProgrammerHelper;
   static constexpr Vexa::Attribute< Orla::Entity > attributes[] = {
      Vexa::methodAttribute< Orla::Entity, &Helper::getStaticEgrMcastEntry >( "getStaticEgrMcastEntry" ),
      Vexa::methodAttribute< Orla::Entity, &Helper::getTwiceEgrMcastEntry >( "getTwiceEgrMcastEntry" ),
      Vexa::methodAttribute< Orla::Entity, &Helper::isValidMcastStaticTranslation >( "isValidMcastStaticTranslation" ),
      Vexa::methodAttribute< Orla::Entity, &Helper::isValidMcastTwiceTranslation >( "isValidMcastTwiceTranslation" ),
      Vexa::methodAttribute< Orla::Entity, &Helper::cleanupNatEntry >( "cleanupNatEntry" ),
      Vexa::methodAttribute< Orla::Entity, &Helper::handleStartup >( "handleStartup" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::NatMcastProgrammerHelper", .attributes = attributes };
   return type;
}

Vexa::TypeData const & DynamicNatProgrammerHelper::classType() {
   static constexpr Vexa::Attribute< Orla::Entity > attributes[] = {
      Vexa::methodAttribute< Orla::Entity, &DynamicNatProgrammerHelper::getL4ProtocolDetected >(
         "getL4ProtocolDetected" ) };
   static constexpr Vexa::TypeData type{ .name = "Pfe::DynamicNatProgrammerHelper", .attributes = attributes };
   return type;
}

}  // namespace Pfe
