/// @file
/// The programmer of interface mode: turns static NAT rules into entries of the software-table configuration, each
/// shared by all interfaces that have the rule.
#pragma once

#include "PfeNat/PfeNatProgrammerConfigSm.h"

#include <Bridging/VlanId.h>
#include <Bridging/VlanIdSet.h>
#include <Bridging/VlanUsers.h>
#include <Orla/Entity.h>
#include <Orla/Ptr.h>
#include <Pfe/NatProgrammerConfig.h>
#include <Pfe/NatProgrammerEntries.h>
#include <Pfe/NatProgrammerKeys.h>
#include <Pfe/NatProgrammerStatus.h>
#include <Pfe/NatSwTableConfig.h>
#include <Pfe/NatSwTableStatus.h>
#include <Vexa/HashMap.h>
#include <Vexa/Optional.h>

#include <cstddef>
#include <vector>

namespace [[gnu::visibility( "default" )]] Pfe {

/// Which software-table keys each programmer key feeds, and which programmer keys each software-table key depends on.
///
/// Invariant, kept by the dependency operations: a pair is in both directions or in none, and no set is empty. The
/// collection operations touch one direction only; VLANs are counted all the same (see vlanIds()).
class NatProgrammerStaticMap final : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< NatProgrammerStaticMap >;
   using PtrConst = Orla::Ptr< NatProgrammerStaticMap const >;

   ~NatProgrammerStaticMap() override { progKeyToSwTableKeysMapDelAll(); }

   /// What one programmer key feeds.
   class SwTableKeySet final : public Orla::Entity {
    public:
      using Ptr = Orla::Ptr< SwTableKeySet >;
      using Keys = Vexa::HashSet< NatSwTableStaticKey, 0xCA417918 >;  ///< In no order.

      /// Empty.
      explicit SwTableKeySet( NatProgrammerStaticKey const & progKey ) : progKey_( progKey ) {}

      /// Whose set this is.
      NatProgrammerStaticKey const & progKey() const { return progKey_; }

      /// @{
      /// Of the latest addDependency for the key; null until then. What the key feeds moves to the entry's VLAN.
      NatProgrammerStaticEntry::PtrConst const & progEntry() const { return progEntry_; }
      void progEntryIs( NatProgrammerStaticEntry::PtrConst const & progEntry );
      /// @}

      /// @{
      /// The set: whole, put in, look up, take out, count. Absent keys may be taken out, present ones put in.
      Keys const & entry() const { return entry_; }
      void entryIs( NatSwTableStaticKey const & swTableKey ) { entry_.is( swTableKey ); }
      bool entryHas( NatSwTableStaticKey const & swTableKey ) const { return entry_.has( swTableKey ); }
      void entryDel( NatSwTableStaticKey const & swTableKey );
      void entryDelAll();
      std::size_t entrys() const { return entry_.count(); }
      /// @}

      static Vexa::TypeData const & classType();
      Vexa::TypeData const & typeData() const override { return classType(); }

    private:
      friend NatProgrammerStaticMap;

      // What the key feeds can no longer count on it.
      void endCounting() const;

      NatProgrammerStaticKey const progKey_;
      NatProgrammerStaticEntry::PtrConst progEntry_;
      Keys entry_;
      NatProgrammerStaticMap * map_ = nullptr;  // that holds it
   };

   /// What one software-table key depends on.
   class ProgrammerKeySet final : public Orla::Entity {
    public:
      using Ptr = Orla::Ptr< ProgrammerKeySet >;
      using Keys = Vexa::HashSet< NatProgrammerStaticKey, 0xB8DB38EF >;  ///< In no order.

      /// Empty.
      explicit ProgrammerKeySet( NatSwTableStaticKey const & swTableKey ) : swTableKey_( swTableKey ) {}

      /// Whose set this is.
      NatSwTableStaticKey const & swTableKey() const { return swTableKey_; }

      /// @{
      /// As in SwTableKeySet.
      Keys const & entry() const { return entry_; }
      void entryIs( NatProgrammerStaticKey const & progKey );
      bool entryHas( NatProgrammerStaticKey const & progKey ) const { return entry_.has( progKey ); }
      void entryDel( NatProgrammerStaticKey const & progKey );
      void entryDelAll();
      std::size_t entrys() const { return entry_.count(); }
      /// @}

      /// The VLANs of all its programmer keys, as getVlanIdsForSwTableEntry() finds them by walking. Null when only
      /// that can tell: one of them is no VLAN, or a set of one of the two directions was changed without the other.
      Bridging::VlanIdSet const * vlanIds() const { return isCounted_ ? vlanUsers_.vlanIds() : nullptr; }

      static Vexa::TypeData const & classType();
      Vexa::TypeData const & typeData() const override { return classType(); }

    private:
      friend NatProgrammerStaticMap;

      NatSwTableStaticKey const swTableKey_;
      Keys entry_;
      Bridging::VlanUsers vlanUsers_;  // meaningless once they are
      bool isCounted_ = true;          // no more
   };

   // Each of the four collections has a constant of its own, so that keys that share a bucket in one do not in another.

   /// @{
   /// A set per key, held by the map as well.
   using ProgKeyToSwTableKeys = Vexa::HashMap< NatProgrammerStaticKey, SwTableKeySet::Ptr, 0x8E79DCB0 >;
   using SwTableKeyToProgKeys = Vexa::HashMap< NatSwTableStaticKey, ProgrammerKeySet::Ptr, 0x603A180E >;
   /// @}

   /// @{
   /// One direction of the dependencies. Look-ups yield null for an absent key; `...Is` yields the set that is there,
   /// or a new empty one.
   ProgKeyToSwTableKeys const & progKeyToSwTableKeysMap() const { return progKeyToSwTableKeysMap_; }
   SwTableKeySet::Ptr progKeyToSwTableKeysMap( NatProgrammerStaticKey const & progKey ) const {
      return progKeyToSwTableKeysMap_.valueOr( progKey );
   }
   bool progKeyToSwTableKeysMapHas( NatProgrammerStaticKey const & progKey ) const {
      return progKeyToSwTableKeysMap_.has( progKey );
   }
   SwTableKeySet::Ptr progKeyToSwTableKeysMapIs( NatProgrammerStaticKey const & progKey );
   void progKeyToSwTableKeysMapDel( NatProgrammerStaticKey const & progKey );
   void progKeyToSwTableKeysMapDelAll();
   SwTableKeyToProgKeys const & swTableKeyToProgKeysMap() const { return swTableKeyToProgKeysMap_; }
   ProgrammerKeySet::Ptr swTableKeyToProgKeysMap( NatSwTableStaticKey const & swTableKey ) const {
      return swTableKeyToProgKeysMap_.valueOr( swTableKey );
   }
   bool swTableKeyToProgKeysMapHas( NatSwTableStaticKey const & swTableKey ) const {
      return swTableKeyToProgKeysMap_.has( swTableKey );
   }
   ProgrammerKeySet::Ptr swTableKeyToProgKeysMapIs( NatSwTableStaticKey const & swTableKey );
   void swTableKeyToProgKeysMapDel( NatSwTableStaticKey const & swTableKey ) {
      swTableKeyToProgKeysMap_.del( swTableKey );
   }
   void swTableKeyToProgKeysMapDelAll() { swTableKeyToProgKeysMap_.delAll(); }
   /// @}

   /// A pair that is there already only gets the new `progEntry`.
   void addDependency( NatSwTableStaticKey const & swTableKey, NatProgrammerStaticKey const & progKey,
                       NatProgrammerStaticEntry::PtrConst const & progEntry );
   /// The pair must be there. The keys may not be references into the sets, which let go of them.
   void delDependency( NatSwTableStaticKey const & swTableKey, NatProgrammerStaticKey const & progKey );
   /// Whether both directions hold the pair.
   bool hasDependency( NatSwTableStaticKey const & swTableKey, NatProgrammerStaticKey const & progKey ) const;

   static Vexa::TypeData const & classType();
   Vexa::TypeData const & typeData() const override { return classType(); }

 private:
   // The entry of a programmer key is another: moves it to that one's VLAN in the set of `swTableKey`.
   void moveUser( NatSwTableStaticKey const & swTableKey, NatProgrammerStaticKey const & progKey,
                  NatProgrammerStaticEntry::PtrConst const & from, NatProgrammerStaticEntry::PtrConst const & to );
   void endCounting( NatSwTableStaticKey const & swTableKey );

   ProgKeyToSwTableKeys progKeyToSwTableKeysMap_;
   SwTableKeyToProgKeys swTableKeyToProgKeysMap_;
};

/// @{
/// A new map without dependencies.
NatProgrammerStaticMap::Ptr NatProgrammerStaticMapIs();
NatProgrammerStaticMap::Ptr natProgrammerStaticMapFactory();
/// @}

/// The VLAN ids of all programmer keys that `swTableKey` depends on, one per key, from their latest entries; empty for
/// a key that nothing feeds. Throws Vexa::RangeException when one of them is no VLAN id.
std::vector< Bridging::VlanId > getVlanIdsForSwTableEntry( NatProgrammerStaticMap::PtrConst const & configMap,
                                                           NatSwTableStaticKey const & swTableKey );

/// Static rules only: twice and dynamic rules and traps are traced and ignored, profiles stop the agent. The interface
/// is no part of a software-table key, so that a rule that several interfaces have is one entry, with the VLANs of all.
///
/// Whoever watches the software-table configuration is told inside the write, and changes no rules then. Writes no
/// status. Entries stay in the software-table configuration when the programmer goes. Every operation runs on
/// the agent's one activity thread.
class NatProgrammerIntfModeSm : public NatProgrammerConfigSm {
 public:
   using Ptr = Orla::Ptr< NatProgrammerIntfModeSm >;

   /// `natSwTableStatus` may be null. Hands nothing over, and its notifications are off: NatProgrammerIntfModeSmIs().
   NatProgrammerIntfModeSm( NatProgrammerConfig::PtrConst const & natProgrammerConfig,
                            NatProgrammerStatus::Ptr const & natProgrammerStatus,
                            NatSwTableConfig::Ptr const & natSwTableConfig,
                            NatSwTableStatus::PtrConst const & natSwTableStatus );
   ~NatProgrammerIntfModeSm() override;

   /// @{
   /// The dependencies behind what is written, and an equal map that is meant for statuses and stays empty. `...Is`
   /// yields the map that is there, or a new one; `...Del` takes it away and returns it.
   NatProgrammerStaticMap::Ptr const & staticConfigMap() const { return staticConfigMap_; }
   NatProgrammerStaticMap::Ptr staticConfigMapIs();
   NatProgrammerStaticMap::Ptr staticConfigMapDel();
   NatProgrammerStaticMap::Ptr const & staticStatusMap() const { return staticStatusMap_; }
   NatProgrammerStaticMap::Ptr staticStatusMapIs();
   NatProgrammerStaticMap::Ptr staticStatusMapDel();
   /// @}

   // --- Operations, in slot order ------------------------------------------------------------------------------------

   void vexaDoZombieReactors( bool zombie ) override;
   /// @{
   /// Stops the agent: this mode has no profiles.
   void setNatProfile( U16 vlanId, U16 profileId ) override;
   void clearNatProfile( U16 vlanId ) override;
   /// @}
   /// Throws Vexa::RangeException for a VLAN id above 4094, before anything is written, and when a rule that shares an
   /// entry has no VLAN: then the dependency is recorded and the entry not written.
   void addStaticConnection( NatProgrammerStaticKey const & key,
                             NatProgrammerStaticEntry::PtrConst const & entry ) override;
   /// Removes nothing: what the rule fed before and does not feed any more stays.
   void updateStaticConnection( NatProgrammerStaticKey const & key,
                                NatProgrammerStaticEntry::PtrConst const & entry ) override;
   /// `entry` is the one last added. Throws as the add does.
   void deleteStaticConnection( NatProgrammerStaticKey const & key,
                                NatProgrammerStaticEntry::PtrConst const & entry ) override;
   /// @{
   /// Traced and ignored.
   void addTwiceConnection( NatProgrammerTwiceKey const & key,
                            NatProgrammerTwiceEntry::PtrConst const & entry ) override;
   void updateTwiceConnection( NatProgrammerTwiceKey const & key,
                               NatProgrammerTwiceEntry::PtrConst const & entry ) override;
   void deleteTwiceConnection( NatProgrammerTwiceKey const & key,
                               NatProgrammerTwiceEntry::PtrConst const & entry ) override;
   void addDynamicConnection( NatProgrammerDynamicKey const & key,
                              NatProgrammerDynamicEntry::PtrConst const & entry ) override;
   void updateDynamicConnection( NatProgrammerDynamicKey const & key,
                                 NatProgrammerDynamicEntry::PtrConst const & entry ) override;
   void deleteDynamicConnection( NatProgrammerDynamicKey const & key,
                                 NatProgrammerDynamicEntry::PtrConst const & entry ) override;
   void addTrap( NatProgrammerTrapKey const & key, NatProgrammerTrapEntry::PtrConst const & entry ) override;
   void deleteTrap( NatProgrammerTrapKey const & key, NatProgrammerTrapEntry::PtrConst const & entry ) override;
   void handleStaticSwTableStatus( NatSwTableStaticKey const & key,
                                   Vexa::Optional< NatSwTableStatusEntry > const & status ) override;
   /// @}

   static Vexa::TypeData const & classType();
   Vexa::TypeData const & typeData() const override { return classType(); }

 private:
   // Writes what `swTableKey` stands for now: made from `entry`, with the VLANs of all that it depends on.
   void writeSwTableEntry( NatSwTableStaticKey const & swTableKey, NatProgrammerStaticEntry::PtrConst const & entry );

   NatProgrammerStaticMap::Ptr staticConfigMap_;
   NatProgrammerStaticMap::Ptr staticStatusMap_;
};

/// @{
/// Creates a programmer, lets it take what status and configuration hold, and switches its notifications on.
NatProgrammerIntfModeSm::Ptr NatProgrammerIntfModeSmIs( NatProgrammerConfig::PtrConst const & natProgrammerConfig,
                                                        NatProgrammerStatus::Ptr const & natProgrammerStatus,
                                                        NatSwTableConfig::Ptr const & natSwTableConfig,
                                                        NatSwTableStatus::PtrConst const & natSwTableStatus );
NatProgrammerIntfModeSm::Ptr natProgrammerIntfModeSmFactory( NatProgrammerConfig::PtrConst const & natProgrammerConfig,
                                                             NatProgrammerStatus::Ptr const & natProgrammerStatus,
                                                             NatSwTableConfig::Ptr const & natSwTableConfig,
                                                             NatSwTableStatus::PtrConst const & natSwTableStatus );
/// @}

}  // namespace Pfe
