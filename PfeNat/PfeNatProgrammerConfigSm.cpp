#include "PfeNat/PfeNatProgrammerConfigSm.h"

#include <Vexa/Type.h>

#include <array>
#include <utility>

namespace [[gnu::visibility( "default" )]] Pfe {

namespace {

std::array const unitTypes{ &NatProgrammerConfigSm::classType() };
Vexa::Module const unitModule{ "PfeNatProgrammerConfigSm", unitTypes };
[[maybe_unused]] auto const registration = Vexa::vexaModuleIs( unitModule );

NatSwTableStatus::StaticEntries const * entriesOf( NatSwTableStatus::PtrConst const & status ) {
   return status ? &status->staticEntry() : nullptr;
}

}  // namespace

NatProgrammerConfigSm::NatProgrammerConfigSm( NatProgrammerConfig::PtrConst const & natProgrammerConfig,
                                              NatProgrammerStatus::Ptr const & natProgrammerStatus,
                                              NatSwTableConfig::Ptr const & natSwTableConfig,
                                              NatSwTableStatus::PtrConst const & natSwTableStatus )
   : NatBaseProgrammerSm( natProgrammerConfig, natProgrammerStatus ),
     natSwTableConfig_( natSwTableConfig ),
     natSwTableStatus_( natSwTableStatus ),
     statusReactor_( *this ) {
   // Present entries are handed over later: here the operation that takes them is still abstract.
   statusReactor_.watchedIs( entriesOf( natSwTableStatus_ ) );
}

NatProgrammerConfigSm::~NatProgrammerConfigSm() = default;

void NatProgrammerConfigSm::vexaDoZombieReactors( bool zombie ) {
   if ( vexaZombie() != zombie ) {
      NatBaseProgrammerSm::vexaDoZombieReactors( zombie );
   }
}

void NatProgrammerConfigSm::natSwTableStatusIs( NatSwTableStatus::PtrConst natSwTableStatus ) {
   if ( natSwTableStatus != natSwTableStatus_ ) {
      natSwTableStatus_.swap( natSwTableStatus );  // the old one lives until the reactor has left it
      statusReactor_.replacedBy( entriesOf( natSwTableStatus_ ) );
   }
}

void NatProgrammerConfigSm::on_staticEntry( NatSwTableStaticKey const & key, NatSwTableStatusEntry const *,
                                            NatSwTableStatusEntry const * current ) {
   handleStaticSwTableStatus( key, current ? Vexa::Optional< NatSwTableStatusEntry >( *current ) : std::nullopt );
}

Vexa::TypeData const & NatProgrammerConfigSm::classType() {
   using Entity = Orla::Entity;
   using Sm = NatProgrammerConfigSm;
   static constexpr Vexa::Attribute< Entity > attributes[] = {
      Vexa::readOnlyAttribute< Entity, &NatBaseProgrammerSm::natProgrammerConfig >( "natProgrammerConfig" ),
      Vexa::readOnlyAttribute< Entity, &NatBaseProgrammerSm::natProgrammerStatus >( "natProgrammerStatus" ),
      Vexa::readOnlyAttribute< Entity, &Sm::natSwTableConfig >( "natSwTableConfig" ),
      Vexa::attribute< Entity, &Sm::natSwTableStatus, &Sm::natSwTableStatusIs >( "natSwTableStatus" ),
      Vexa::methodAttribute< Entity, &Sm::handleStaticSwTableStatus >( "handleStaticSwTableStatus" ) };
   static constexpr Vexa::TypeData type{
      .name = "Pfe::NatProgrammerConfigSm", .base = &NatBaseProgrammerSm::classType, .attributes = attributes };
   return type;
}

}  // namespace Pfe
