/// @file
/// The table programmer: turns NAT rules into rows of the forwarding chip's tables, and reports what became of each.
#pragma once

#include "PfeNat/PfeNatSwTableProgrammerSm/EgrMcastEntry.h"
#include "PfeNat/PfeNatSwTableProgrammerSm/IngNatTableKey.h"
#include "PfeNat/PfeNatSwTableProgrammerSm/NatIdManager.h"
#include "PfeNat/PfeNatSwTableProgrammerSm/ProgrammerHooks.h"

#include <IpNat/HwCapabilities.h>
#include <Orla/Ptr.h>
#include <Pfe/EgrNatTables.h>
#include <Pfe/IngDynamicNatTables.h>
#include <Pfe/IngStaticNatTable.h>
#include <Pfe/IngTwiceNatTable.h>
#include <Pfe/NatBaseProgrammerSm.h>
#include <Pfe/NatIdInfo.h>
#include <Pfe/NatMatchKey.h>
#include <Pfe/NatProgrammerConfig.h>
#include <Pfe/NatProgrammerStatus.h>
#include <Pfe/NatSideTables.h>

namespace [[gnu::visibility( "default" )]] Pfe {

/// The base programmer calls the operations, once per rule that is added, changed or removed. Writes settle later: each
/// row carries a response, and only responses write the status (but for rules that are rejected before any write).
///
/// Life: created with no tables; the agent attaches tables and hooks, sets programmerMode and `initialized`, and calls
/// replay(). Rows hold their responses and these the programmer, so an agent ends by clear() of the tables. Every
/// operation runs on the agent's one activity thread.
class NatSwTableProgrammerSm : public NatBaseProgrammerSm {
 public:
   using Ptr = Orla::Ptr< NatSwTableProgrammerSm >;

   /// The last two may be null. Notifications are off; see NatSwTableProgrammerSmIs().
   NatSwTableProgrammerSm( NatProgrammerConfig::PtrConst const & natProgrammerConfig,
                           NatProgrammerStatus::Ptr const & natProgrammerStatus,
                           Ip::Nat::HwCapabilities::PtrConst const & hwCapabilities, NatIdInfo::Ptr const & natIdInfo );
   /// Gives up tables and hooks; rows, NAT ids and status stay.
   ~NatSwTableProgrammerSm() override;

   // --- Attributes ---------------------------------------------------------------------------------------------------

   /// Null: full-cone connections are programmed like others.
   Ip::Nat::HwCapabilities::PtrConst const & hwCapabilities() const { return hwCapabilities_; }
   /// Null: there are no NAT ids, and nothing can be programmed.
   NatIdInfo::Ptr const & natIdInfo() const { return natIdInfo_; }

   /// @{
   /// The agent attaches these once, before `initialized`; all but the two helpers and the ACL table must be there for
   /// the rules that use them. Null until set.
   Orla::Ptr< NatAclNameIdTable > const & aclNameIdTable() const { return aclNameIdTable_; }
   void aclNameIdTableIs( Orla::Ptr< NatAclNameIdTable > const & v ) { aclNameIdTable_ = v; }
   Orla::Ptr< EgrSourceNatUcRewriteTable > const & egrSourceNatUcRewriteTable() const {
      return egrSourceNatUcRewriteTable_;
   }
   void egrSourceNatUcRewriteTableIs( Orla::Ptr< EgrSourceNatUcRewriteTable > const & v ) {
      egrSourceNatUcRewriteTable_ = v;
   }
   Orla::Ptr< EgrDestinationNatUcRewriteTable > const & egrDestinationNatUcRewriteTable() const {
      return egrDestinationNatUcRewriteTable_;
   }
   void egrDestinationNatUcRewriteTableIs( Orla::Ptr< EgrDestinationNatUcRewriteTable > const & v ) {
      egrDestinationNatUcRewriteTable_ = v;
   }
   Orla::Ptr< EgrNatMcRewriteTable > const & egrNatMcRewriteTable() const { return egrNatMcRewriteTable_; }
   void egrNatMcRewriteTableIs( Orla::Ptr< EgrNatMcRewriteTable > const & v ) { egrNatMcRewriteTable_ = v; }
   Orla::Ptr< IngStaticNatTable > const & ingStaticNatTable() const { return ingStaticNatTable_; }
   void ingStaticNatTableIs( Orla::Ptr< IngStaticNatTable > const & v ) { ingStaticNatTable_ = v; }
   Orla::Ptr< IngTwiceNatTable > const & ingTwiceNatTable() const { return ingTwiceNatTable_; }
   void ingTwiceNatTableIs( Orla::Ptr< IngTwiceNatTable > const & v ) { ingTwiceNatTable_ = v; }
   Orla::Ptr< IngDynamicSnaptTable > const & ingDynamicSnaptTable() const { return ingDynamicSnaptTable_; }
   void ingDynamicSnaptTableIs( Orla::Ptr< IngDynamicSnaptTable > const & v ) { ingDynamicSnaptTable_ = v; }
   Orla::Ptr< IngDynamicDnaptTable > const & ingDynamicDnaptTable() const { return ingDynamicDnaptTable_; }
   void ingDynamicDnaptTableIs( Orla::Ptr< IngDynamicDnaptTable > const & v ) { ingDynamicDnaptTable_ = v; }
   Orla::Ptr< IngDynamicSnatAddrOnlyTable > const & ingDynamicSnatAddrOnlyTable() const {
      return ingDynamicSnatAddrOnlyTable_;
   }
   void ingDynamicSnatAddrOnlyTableIs( Orla::Ptr< IngDynamicSnatAddrOnlyTable > const & v ) {
      ingDynamicSnatAddrOnlyTable_ = v;
   }
   Orla::Ptr< IngDynamicDnatAddrOnlyTable > const & ingDynamicDnatAddrOnlyTable() const {
      return ingDynamicDnatAddrOnlyTable_;
   }
   void ingDynamicDnatAddrOnlyTableIs( Orla::Ptr< IngDynamicDnatAddrOnlyTable > const & v ) {
      ingDynamicDnatAddrOnlyTable_ = v;
   }
   Orla::Ptr< NatTrapConfig > const & natTrapConfig() const { return natTrapConfig_; }
   void natTrapConfigIs( Orla::Ptr< NatTrapConfig > const & v ) { natTrapConfig_ = v; }
   Orla::Ptr< NatProfileConfig > const & natProfileConfig() const { return natProfileConfig_; }
   void natProfileConfigIs( Orla::Ptr< NatProfileConfig > const & v ) { natProfileConfig_ = v; }
   Orla::Ptr< NatMcastProgrammerHelper > const & mcastProgrammerHelper() const { return mcastProgrammerHelper_; }
   void mcastProgrammerHelperIs( Orla::Ptr< NatMcastProgrammerHelper > const & v ) { mcastProgrammerHelper_ = v; }
   Orla::Ptr< DynamicNatProgrammerHelper > const & dynamicNatProgrammerHelper() const {
      return dynamicNatProgrammerHelper_;
   }
   void dynamicNatProgrammerHelperIs( Orla::Ptr< DynamicNatProgrammerHelper > const & v ) {
      dynamicNatProgrammerHelper_ = v;
   }
   /// @}

   /// Null until `initialized`, and without NAT ids.
   NatIdManager::Ptr const & natIdManager() const { return natIdManager_; }
   /// The manager for that NAT id state: the present one if it was built on it, else a new one. Replaced only while
   /// nothing is outstanding and no row has failed, with a replay in the same turn unless the tables are empty.
   NatIdManager::Ptr natIdManagerIs( NatIdInfo::Ptr const & natIdInfo );
   /// Takes the manager away and returns it.
   NatIdManager::Ptr natIdManagerDel();

   /// @{
   /// The agent's signal that the tables are ready; each change runs handleInitialized().
   bool initialized() const { return initialized_; }
   void initializedIs( bool v );
   /// @}

   /// When `initialized`: drops the trap ACLs of a previous run and creates the NAT id manager, which reserves every
   /// persisted id.
   void handleInitialized();

   /// @{
   /// While true, adds and deletes of static and twice connections and deleteAllConnections do nothing. The agent's.
   bool cleanupInProgress() const { return cleanupInProgress_; }
   void cleanupInProgressIs( bool v ) { cleanupInProgress_ = v; }
   /// @}

   // --- Operations, in slot order ------------------------------------------------------------------------------------

   void vexaDoZombieReactors( bool zombie ) override;
   /// @{
   /// Puts the VLAN's profile into natProfileConfig(), or takes it out there.
   void setNatProfile( U16 vlanId, U16 profileId ) override;
   void clearNatProfile( U16 vlanId ) override;
   /// @}
   /// @{
   /// Writes the rows of both directions (of a multicast rule: of one), or takes them out. An update replaces rows in
   /// place and removes none. The responses of the rows write the status.
   ///
   /// Throws Vexa::RangeException when an add or update finds no NAT id free, and for a dynamic rule whose VRF id has
   /// more than 24 bits. What was written by then stays until a delete with the same entry.
   void addStaticConnection( NatProgrammerStaticKey const & key,
                             NatProgrammerStaticEntry::PtrConst const & entry ) override;
   void updateStaticConnection( NatProgrammerStaticKey const & key,
                                NatProgrammerStaticEntry::PtrConst const & entry ) override;
   void deleteStaticConnection( NatProgrammerStaticKey const & key,
                                NatProgrammerStaticEntry::PtrConst const & entry ) override;
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
   /// @}
   /// @{
   /// Writes the trap rule as one access list into natTrapConfig(), or takes it out there.
   void addTrap( NatProgrammerTrapKey const & key, NatProgrammerTrapEntry::PtrConst const & entry ) override;
   void deleteTrap( NatProgrammerTrapKey const & key, NatProgrammerTrapEntry::PtrConst const & entry ) override;
   /// @}
   /// Tells the multicast helper that the replay has ended, and gives back the NAT ids that it has not claimed.
   void replayReconcile() override;

   /// @{
   /// The rule by which ingress keys share a NAT id; a derived programmer may give another one.
   virtual NatMatchKey staticNatMatchKey( IngStaticNatTable::Key const & ingKey ) const;
   virtual NatMatchKey twiceNatMatchKey( IngTwiceNatTable::Key const & ingKey ) const;
   /// @}

   // --- All at once --------------------------------------------------------------------------------------------------

   /// Takes every configured rule out of the tables; the configuration stays. Range errors are traced, per rule.
   /// Whoever watches the status may take rules away meanwhile; what is added meanwhile stays in the tables.
   void deleteAllConnections();
   /// Hands over every configured rule; per key the base programmer decides which operation to call.
   void addAllConnections();

   static Vexa::TypeData const & classType();
   Vexa::TypeData const & typeData() const override { return classType(); }

 private:
   Ip::Nat::HwCapabilities::PtrConst hwCapabilities_;
   NatIdInfo::Ptr natIdInfo_;
   Orla::Ptr< NatAclNameIdTable > aclNameIdTable_;
   Orla::Ptr< EgrSourceNatUcRewriteTable > egrSourceNatUcRewriteTable_;
   Orla::Ptr< EgrDestinationNatUcRewriteTable > egrDestinationNatUcRewriteTable_;
   Orla::Ptr< EgrNatMcRewriteTable > egrNatMcRewriteTable_;
   Orla::Ptr< IngStaticNatTable > ingStaticNatTable_;
   Orla::Ptr< IngTwiceNatTable > ingTwiceNatTable_;
   Orla::Ptr< IngDynamicSnaptTable > ingDynamicSnaptTable_;
   Orla::Ptr< IngDynamicDnaptTable > ingDynamicDnaptTable_;
   Orla::Ptr< IngDynamicSnatAddrOnlyTable > ingDynamicSnatAddrOnlyTable_;
   Orla::Ptr< IngDynamicDnatAddrOnlyTable > ingDynamicDnatAddrOnlyTable_;
   Orla::Ptr< NatTrapConfig > natTrapConfig_;
   Orla::Ptr< NatProfileConfig > natProfileConfig_;
   NatIdManager::Ptr natIdManager_;
   Orla::Ptr< NatMcastProgrammerHelper > mcastProgrammerHelper_;
   Orla::Ptr< DynamicNatProgrammerHelper > dynamicNatProgrammerHelper_;
   bool initialized_ = false;
   bool cleanupInProgress_ = false;
};

/// @{
/// Creates a programmer and switches its notifications on.
NatSwTableProgrammerSm::Ptr NatSwTableProgrammerSmIs( NatProgrammerConfig::PtrConst const & natProgrammerConfig,
                                                      NatProgrammerStatus::Ptr const & natProgrammerStatus,
                                                      Ip::Nat::HwCapabilities::PtrConst const & hwCapabilities,
                                                      NatIdInfo::Ptr const & natIdInfo );
NatSwTableProgrammerSm::Ptr natSwTableProgrammerSmFactory( NatProgrammerConfig::PtrConst const & natProgrammerConfig,
                                                           NatProgrammerStatus::Ptr const & natProgrammerStatus,
                                                           Ip::Nat::HwCapabilities::PtrConst const & hwCapabilities,
                                                           NatIdInfo::Ptr const & natIdInfo );
/// @}

}  // namespace Pfe
