/// @file
/// The NAT base programmer: reacts to the programmer's configuration, calls the operations of a concrete programmer,
/// and keeps the status true.
#pragma once

#include <Orla/Entity.h>
#include <Orla/Ptr.h>
#include <Pfe/NatIdDemand.h>
#include <Pfe/NatIdInfo.h>
#include <Pfe/NatProgrammerConfig.h>
#include <Pfe/NatProgrammerStatus.h>
#include <PfeHelper/NatHwResult.h>
#include <Vexa/Reactor.h>

#include <memory>
#include <string>
#include <vector>

namespace [[gnu::visibility( "default" )]] Pfe {

/// Per key the programmer remembers the entry that it last handed over, and decides from it what a change calls: add,
/// update, or delete of the remembered entry and add of the new one. Range errors that leave an operation are caught
/// here, per key.
class NatBaseProgrammerSm : public Orla::Entity {
 public:
   /// What becomes of an add that raised. A programmer of tables has it undone, and the rule is marked refused with
   /// result 2; a programmer of interfaces leaves what it wrote and has no results.
   enum class Mode : U8 { interfaces, tables };

   /// Leaves what is programmed as it is.
   ~NatBaseProgrammerSm() override;

   // The operations, in the order of their slots. All of them are called on the agent's activity thread.

   /// The names of the rules whose status was not written for the entry last handed over. None at rest.
   virtual std::vector< std::string > checkStaleStatus() const;

   /// @{
   /// The VLAN (1 to 4094) has this NAT profile from now on, or has none any more.
   virtual void setNatProfile( U16 vlanId, U16 profileId ) = 0;
   virtual void clearNatProfile( U16 vlanId ) = 0;
   /// @}

   /// @{
   /// A rule is new, has changed in what leaves its rows the same, or is gone. `entry` is never null; that of a delete
   /// is the one last handed over. Addresses are IPv4 in host byte order, port 0 stands for every port. What becomes of
   /// the rule is told later, in the status. A Vexa::RangeException is caught by the caller, per rule.
   virtual void addStaticConnection( NatProgrammerStaticKey const & key,
                                     NatProgrammerStaticEntry::PtrConst const & entry ) = 0;
   virtual void updateStaticConnection( NatProgrammerStaticKey const & key,
                                        NatProgrammerStaticEntry::PtrConst const & entry ) = 0;
   virtual void deleteStaticConnection( NatProgrammerStaticKey const & key,
                                        NatProgrammerStaticEntry::PtrConst const & entry ) = 0;
   virtual void addTwiceConnection( NatProgrammerTwiceKey const & key,
                                    NatProgrammerTwiceEntry::PtrConst const & entry ) = 0;
   virtual void updateTwiceConnection( NatProgrammerTwiceKey const & key,
                                       NatProgrammerTwiceEntry::PtrConst const & entry ) = 0;
   virtual void deleteTwiceConnection( NatProgrammerTwiceKey const & key,
                                       NatProgrammerTwiceEntry::PtrConst const & entry ) = 0;
   virtual void addDynamicConnection( NatProgrammerDynamicKey const & key,
                                      NatProgrammerDynamicEntry::PtrConst const & entry ) = 0;
   virtual void updateDynamicConnection( NatProgrammerDynamicKey const & key,
                                         NatProgrammerDynamicEntry::PtrConst const & entry ) = 0;
   virtual void deleteDynamicConnection( NatProgrammerDynamicKey const & key,
                                         NatProgrammerDynamicEntry::PtrConst const & entry ) = 0;
   /// @}

   /// @{
   /// A trap rule is new or has changed, or is gone; traps have no status.
   virtual void addTrap( NatProgrammerTrapKey const & key, NatProgrammerTrapEntry::PtrConst const & entry ) = 0;
   virtual void deleteTrap( NatProgrammerTrapKey const & key, NatProgrammerTrapEntry::PtrConst const & entry ) = 0;
   /// @}

   /// Ends a replay: every configured rule has been handed over, and what has not been belongs to none.
   virtual void replayReconcile();

   /// What is to be programmed; the agent's, never null.
   NatProgrammerConfig::PtrConst const & natProgrammerConfig() const { return natProgrammerConfig_; }
   /// What became of each rule; the agent's, written by the status writers below.
   NatProgrammerStatus::Ptr const & natProgrammerStatus() const { return natProgrammerStatus_; }

   /// @{
   /// Set before the first replay; interfaces unless set.
   Mode programmerMode() const { return mode_; }
   void programmerModeIs( Mode mode ) { mode_ = mode; }
   /// @}

   /// @{
   /// Where profiles come from; null, as for a programmer that refuses profiles: nowhere. What a new source holds
   /// already is delivered by the next replay.
   NatVlanProfileConfig::PtrConst const & natVlanProfileConfig() const { return natVlanProfileConfig_; }
   void natVlanProfileConfigIs( NatVlanProfileConfig::PtrConst config );
   /// @}

   /// @{
   /// The ids in use, whose number tells whether one is free. Null: unknown, so retries just try. Set before the first
   /// replay.
   NatIdInfo::PtrConst const & natIdPool() const { return natIdPool_; }
   void natIdPoolIs( NatIdInfo::PtrConst pool );
   /// @}
   /// Which ids a rule asks for: in table mode none is added or tried again while the pool cannot hold it. Null, as at
   /// first: unknown, so a rule is added at once, and tried again while any id is free.
   void natIdDemandIs( std::shared_ptr< NatIdDemand const > demand );

   /// Hands over everything that the configuration holds, then reconciles, then retries what the id pool refused. Until
   /// the first replay changes of the configuration are left to it.
   void replay();

   /// Hands over every configured key, by the operations below: static, twice, dynamic, traps.
   void handleAllConfig();

   /// @{
   /// Hands over what `key` is configured as now, or its removal.
   void handleProgrammerStaticConfig( NatProgrammerStaticKey const & key );
   void handleProgrammerTwiceConfig( NatProgrammerTwiceKey const & key );
   void handleProgrammerDynamicConfig( NatProgrammerDynamicKey const & key );
   void handleProgrammerTrapConfig( NatProgrammerTrapKey const & key );
   /// @}

   /// @{
   /// Status writers. A write for another entry than the one last handed over is ignored, so is a removal for an older
   /// entry once the status was written for the newer one, and so is everything for a refused key.
   void addProgrammerStaticStatusEntry( NatProgrammerStaticKey const & key,
                                        NatProgrammerStaticEntry::PtrConst const & entry,
                                        PfeHelper::NatHwResult result );
   void deleteProgrammerStaticStatusEntry( NatProgrammerStaticKey const & key,
                                           NatProgrammerStaticEntry::PtrConst const & entry );
   void addProgrammerTwiceStatusEntry( NatProgrammerTwiceKey const & key,
                                       NatProgrammerTwiceEntry::PtrConst const & entry, PfeHelper::NatHwResult result );
   void deleteProgrammerTwiceStatusEntry( NatProgrammerTwiceKey const & key,
                                          NatProgrammerTwiceEntry::PtrConst const & entry );
   void addProgrammerDynamicStatusEntry( NatProgrammerDynamicKey const & key,
                                         NatProgrammerDynamicEntry::PtrConst const & entry,
                                         PfeHelper::NatHwResult result );
   void deleteProgrammerDynamicStatusEntry( NatProgrammerDynamicKey const & key,
                                            NatProgrammerDynamicEntry::PtrConst const & entry );
   /// @}

   /// Hands over, in the order of their refusal, the rules that the NAT id pool refused and that it can hold now. Stops
   /// at the first that is refused again, which goes to the end. Returns how many were handed over.
   std::size_t retryRefused();

   /// Nothing is outstanding in any table, refused removals included: drops each status that was not written for the
   /// entry last handed over.
   void atRest();

   /// How many rules are marked refused now.
   std::size_t refusedCount() const;
   /// How many range errors were caught since the start.
   U64 rangeErrorCount() const;

   static Vexa::TypeData const & classType();

 protected:
   /// Watches `config` (not null) at once; hands nothing over before the first replay.
   NatBaseProgrammerSm( NatProgrammerConfig::PtrConst config, NatProgrammerStatus::Ptr status );

 private:
   // What was handed over, and what was refused, per kind of rule.
   struct Memory;

   void handleTrap( NatProgrammerTrapKey const & key, NatProgrammerTrapEntry::PtrConst const & configured );

   void on_staticEntry( NatProgrammerStaticKey const & key, NatProgrammerStaticEntry::PtrConst const * previous,
                        NatProgrammerStaticEntry::PtrConst const * current );
   void on_twiceEntry( NatProgrammerTwiceKey const & key, NatProgrammerTwiceEntry::PtrConst const * previous,
                       NatProgrammerTwiceEntry::PtrConst const * current );
   void on_dynamicEntry( NatProgrammerDynamicKey const & key, NatProgrammerDynamicEntry::PtrConst const * previous,
                         NatProgrammerDynamicEntry::PtrConst const * current );
   void on_trapEntry( NatProgrammerTrapKey const & key, NatProgrammerTrapEntry::PtrConst const * previous,
                      NatProgrammerTrapEntry::PtrConst const * current );
   void on_vlanProfile( U16 const & vlanId, U16 const * previous, U16 const * current );

   NatProgrammerConfig::PtrConst natProgrammerConfig_;
   NatProgrammerStatus::Ptr natProgrammerStatus_;
   NatVlanProfileConfig::PtrConst natVlanProfileConfig_;
   NatIdInfo::PtrConst natIdPool_;
   Mode mode_ = Mode::interfaces;
   bool replayed_ = false;
   std::unique_ptr< Memory > memory_;

   // Last, so that they go first.
   Vexa::Reactor< NatBaseProgrammerSm, NatProgrammerConfig::StaticEntries, &NatBaseProgrammerSm::on_staticEntry >
      staticReactor_;
   Vexa::Reactor< NatBaseProgrammerSm, NatProgrammerConfig::TwiceEntries, &NatBaseProgrammerSm::on_twiceEntry >
      twiceReactor_;
   Vexa::Reactor< NatBaseProgrammerSm, NatProgrammerConfig::DynamicEntries, &NatBaseProgrammerSm::on_dynamicEntry >
      dynamicReactor_;
   Vexa::Reactor< NatBaseProgrammerSm, NatProgrammerConfig::TrapEntries, &NatBaseProgrammerSm::on_trapEntry >
      trapReactor_;
   Vexa::Reactor< NatBaseProgrammerSm, NatVlanProfileConfig::Profiles, &NatBaseProgrammerSm::on_vlanProfile >
      profileReactor_;
};

}  // namespace Pfe
