/// @file
/// The programmer of interface mode, as far as it watches what becomes of the software-table configuration.
#pragma once

#include <Orla/Ptr.h>
#include <Pfe/NatBaseProgrammerSm.h>
#include <Pfe/NatProgrammerConfig.h>
#include <Pfe/NatProgrammerStatus.h>
#include <Pfe/NatSwTableConfig.h>
#include <Pfe/NatSwTableStatus.h>
#include <Vexa/Optional.h>
#include <Vexa/Reactor.h>

namespace [[gnu::visibility( "default" )]] Pfe {

/// Holds the software-table configuration for the concrete programmer, which writes it, and hands each change of the
/// software-table status to it. Leaves the operations of the base abstract. A concrete class switches notifications off
/// and retires the reactors at the begin of its destructor.
class NatProgrammerConfigSm : public NatBaseProgrammerSm {
 public:
   ~NatProgrammerConfigSm() override;

   /// What the concrete programmer writes; the agent's.
   NatSwTableConfig::Ptr const & natSwTableConfig() const { return natSwTableConfig_; }
   /// What is watched; null: nothing.
   NatSwTableStatus::PtrConst const & natSwTableStatus() const { return natSwTableStatus_; }

   /// Watches another status (null: none) and hands over every entry of the old and of the new one, whether
   /// notifications are on or not; the same again does nothing. The programmer may be gone on return.
   void natSwTableStatusIs( NatSwTableStatus::PtrConst natSwTableStatus );

   /// Hands over every entry that the status holds. Run once when the concrete programmer has been constructed.
   void handleAllStaticSwTableStatus() { statusReactor_.handOverAll(); }

   void vexaDoZombieReactors( bool zombie ) override;

   /// The status entry of `key` is new or has changed; no value: it is gone.
   virtual void handleStaticSwTableStatus( NatSwTableStaticKey const & key,
                                           Vexa::Optional< NatSwTableStatusEntry > const & status ) = 0;

   static Vexa::TypeData const & classType();
   Vexa::TypeData const & typeData() const override { return classType(); }

 protected:
   /// Watches the status (null: none); what it holds already waits for handleAllStaticSwTableStatus().
   NatProgrammerConfigSm( NatProgrammerConfig::PtrConst const & natProgrammerConfig,
                          NatProgrammerStatus::Ptr const & natProgrammerStatus,
                          NatSwTableConfig::Ptr const & natSwTableConfig,
                          NatSwTableStatus::PtrConst const & natSwTableStatus );

 private:
   void on_staticEntry( NatSwTableStaticKey const & key, NatSwTableStatusEntry const * previous,
                        NatSwTableStatusEntry const * current );

   NatSwTableConfig::Ptr natSwTableConfig_;
   NatSwTableStatus::PtrConst natSwTableStatus_;

   // Last, so that it goes first.
   Vexa::Reactor< NatProgrammerConfigSm, NatSwTableStatus::StaticEntries, &NatProgrammerConfigSm::on_staticEntry >
      statusReactor_;
};

}  // namespace Pfe
