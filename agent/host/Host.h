// What an agent is to the programmer: owner of configuration, tables, status and NAT ids, and the one that runs the
// activity.
#pragma once

#include "agent/chips/KernelChip.h"
#include "agent/configuration/Configuration.h"
#include "agent/host/McastReplications.h"
#include "agent/host/NatIdNeeds.h"
#include "agent/host/NatIdStore.h"
#include "agent/host/NatTables.h"
#include "agent/host/SharedRewrites.h"

#include <Asic/Hardware.h>
#include <Pfe/NatIdInfo.h>
#include <Pfe/NatProgrammerStatus.h>
#include <Pfe/NatSideTables.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Agent {

// Every operation ends at rest: nothing is outstanding, and what was asked for has its result.
//
// Unless the store does not take the NAT ids: then nothing that uses a new one reaches the hardware, and all that was
// asked for waits until it does. Operations but learn() throw UnusableInput then, either before they have changed
// anything, or with the change made and waiting.
class Host {
 public:
   // `chip` may be null: everything settles. `store` may be null: the NAT ids last as long as the host. Else it must
   // outlive the host. `kernelChip`: the same chip where it is one in the kernel, which is told of settings and traps.
   Host( Configuration configuration, std::shared_ptr< Asic::Chip > chip, NatIdStore * store,
         KernelChip * kernelChip = nullptr );
   // Drops the tables; the NAT ids stay in the store.
   ~Host();
   Host( Host const & ) = delete;
   Host & operator=( Host const & ) = delete;

   // Programs the configuration. Called once, before what follows.
   void program();

   // Goes over to another configuration. Rows of rules that stay the same are not written again, unless later
   // fragments are to be translated from now on, or not any more; other settings, and the copies of a multicast rule,
   // change only while nothing is programmed. What failed is tried again. While all is deleted the new configuration
   // is only kept.
   void reload( Configuration configuration );

   // Learned connections go and come, in that order, in one turn. While all is deleted they only go and come in the
   // configuration that is kept.
   void learn( std::vector< Pfe::NatProgrammerDynamicKey > const & gone, std::vector< DynamicRule > const & come );

   // Takes all rules out of the tables, with their NAT ids, until addAll(). False: they are out already.
   bool deleteAll();
   // False: they are in.
   bool addAll();
   bool isDeleted() const { return programmer_->cleanupInProgress(); }

   // Tries again what the hardware did not take, and what found no NAT id.
   void retry();

   // Tries again what waits for the store.
   void resume();
   // Why the store did not take the NAT ids when it was last asked to; empty: it did.
   std::string const & storeFault() const { return storeFault_; }

   // Whether every connection is programmed, or translated elsewhere, and every row of every table accepted.
   bool isComplete() const;
   // Null: no result yet, or none for such a rule.
   PfeHelper::NatHwResult const * resultOf( Connection const & connection ) const;

   Configuration const & configuration() const { return configuration_; }
   NatTables const & tables() const { return tables_; }
   Pfe::NatIdInfo const & natIdInfo() const { return *natIdInfo_; }
   Pfe::NatSwTableProgrammerSm const & programmer() const { return *programmer_; }
   NatIdStore const * store() const { return store_; }  // null: none
   // Another number whenever configuration, tables or results may have changed.
   U64 changes() const { return changes_; }
   // What the chip counted of the packets that it rewrote under the id; absent: it does not count.
   std::optional< Asic::ChipHits > hitsOf( Pfe::NatId id ) const {
      return chip_ ? chip_->hitsOf( id.value() ) : std::nullopt;
   }
   // Settles so far.
   U64 turns() const { return turns_; }

 private:
   class L4Detection;

   // False: the store takes no ids.
   bool runUntilAtRest();
   // Runs until at rest, with what the id pool refused and can hold now.
   void finish();
   bool commit();
   // The end of an operation of somebody's own: ids that were given back are forgotten at once.
   void conclude();
   void requireStore() const;
   bool hasRows( Connection const & connection ) const;
   void handOver( Connection const & connection );
   void takeOut();
   void putBack();
   void replay();
   // Makes the rules those of `next`, what goes before what comes, and the settings.
   void take( Configuration next );
   void settingsAre( Settings const & settings );

   Configuration configuration_;
   std::optional< Configuration > kept_;  // to be taken when rules come back
   NatIdStore * store_;
   std::shared_ptr< Asic::Chip > chip_;
   KernelChip * kernelChip_;
   Asic::Hardware::Ptr hardware_;
   NatTables tables_;
   Pfe::NatProgrammerStatus::Ptr status_;
   Pfe::NatIdInfo::Ptr natIdInfo_;
   Ip::Nat::HwCapabilities::Ptr capabilities_;
   Orla::Ptr< McastReplications > replications_;
   std::shared_ptr< NatIdNeeds > needs_;
   Orla::Ptr< L4Detection > detection_;
   Pfe::NatVlanProfileConfig::Ptr profiles_;
   Pfe::NatSwTableProgrammerSm::Ptr programmer_;
   SharedRewrites shared_;               // left by what went in the present operation
   std::optional< TwinSharers > twins_;  // of what is configured; none: not looked for yet
   std::string storeFault_;
   U64 changes_ = 0;
   U64 turns_ = 0;
};

}  // namespace Agent
