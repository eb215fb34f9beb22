/// @file
/// The consumer of the software-table configuration: where a platform programs its entries.
#pragma once

#include <Orla/Entity.h>
#include <Orla/Ptr.h>
#include <Pfe/NatSwTableConfig.h>
#include <Pfe/NatSwTableStatus.h>
#include <Vexa/Reactor.h>

namespace [[gnu::visibility( "default" )]] Pfe {

/// Tells every change of the watched configuration as an add or a delete of one entry. The two, and handleInitialized,
/// only trace: a platform hangs its programming there, and puts the results into natSwTableStatus.
class NatSwTableSm final : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< NatSwTableSm >;

   /// Hands over every entry that the configuration holds. Either pointer may be null.
   NatSwTableSm( NatSwTableConfig::PtrConst const & natSwTableConfig, NatSwTableStatus::Ptr const & natSwTableStatus );
   /// Hands nothing over.
   ~NatSwTableSm() override;

   /// What is watched; null: nothing.
   NatSwTableConfig::PtrConst const & natSwTableConfig() const { return natSwTableConfig_; }
   /// Where a platform puts the results.
   NatSwTableStatus::Ptr const & natSwTableStatus() const { return natSwTableStatus_; }

   /// Watches another configuration (null: none) and hands over every entry of the old and of the new one, whether
   /// notifications are on or not; the same again does nothing. The state machine may be gone on return.
   void natSwTableConfigIs( NatSwTableConfig::PtrConst natSwTableConfig );

   /// @{
   /// A changed entry is an add of the new value. `entry` is never null; that of a delete is the one that was there.
   void addStaticSwTableEntry( NatSwTableStaticKey const & key, NatSwTableStaticEntry::PtrConst const & entry );
   void delStaticSwTableEntry( NatSwTableStaticKey const & key, NatSwTableStaticEntry::PtrConst const & entry );
   /// @}

   /// The dispatcher. A null entry: there was none before, or is none now.
   void handleStaticSwTableEntry( NatSwTableStaticKey const & key, NatSwTableStaticEntry::PtrConst const & oldEntry,
                                  NatSwTableStaticEntry::PtrConst const & newEntry );

   /// Called for each change of `initialized`, to false as well.
   void handleInitialized();
   /// @{
   /// The agent's signal that entries can be programmed; false after construction.
   bool initialized() const { return initialized_; }
   void initializedIs( bool initialized );
   /// @}

   void vexaDoZombieReactors( bool zombie ) override;

   static Vexa::TypeData const & classType();
   Vexa::TypeData const & typeData() const override { return classType(); }

 private:
   void on_staticEntry( NatSwTableStaticKey const & key, NatSwTableStaticEntry::PtrConst const * previous,
                        NatSwTableStaticEntry::PtrConst const * current );

   NatSwTableConfig::PtrConst natSwTableConfig_;
   NatSwTableStatus::Ptr natSwTableStatus_;
   bool initialized_ = false;

   // Last, so that it goes first.
   Vexa::Reactor< NatSwTableSm, NatSwTableConfig::StaticEntries, &NatSwTableSm::on_staticEntry > configReactor_;
};

/// @{
/// Creates a state machine, which hands over what the configuration holds, and switches its notifications on.
NatSwTableSm::Ptr NatSwTableSmIs( NatSwTableConfig::PtrConst const & natSwTableConfig,
                                  NatSwTableStatus::Ptr const & natSwTableStatus );
NatSwTableSm::Ptr natSwTableSmFactory( NatSwTableConfig::PtrConst const & natSwTableConfig,
                                       NatSwTableStatus::Ptr const & natSwTableStatus );
/// @}

}  // namespace Pfe
