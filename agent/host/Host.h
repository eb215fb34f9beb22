// What an agent is to the programmer: owner of configuration, tables, status and NAT ids, and the one that runs the
// activity.
#pragma once

#include "agent/configuration/Configuration.h"
#include "agent/host/McastReplications.h"
#include "agent/host/NatIdStore.h"
#include "agent/host/NatTables.h"

#include <Asic/Hardware.h>
#include <Pfe/NatIdInfo.h>
#include <Pfe/NatProgrammerStatus.h>
#include <Pfe/NatSideTables.h>

#include <memory>
#include <optional>
#include <vector>

namespace Agent {

// Every operation ends at rest: nothing is outstanding, and what was asked for has its result. All of them throw
// UnusableInput when the store does not take the ids; the host is of no use then.
class Host {
 public:
   // `store` may be null: the NAT ids last as long as the host. Else it must outlive the host.
   Host( Configuration configuration, std::shared_ptr< Asic::HardwarePolicy > policy, NatIdStore * store );
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

   // Whether every connection is programmed and every row of every table accepted.
   bool isComplete() const;
   // Null: no result yet, or none for such a rule.
   PfeHelper::NatHwResult const * resultOf( Connection const & connection ) const;

   Configuration const & configuration() const { return configuration_; }
   NatTables const & tables() const { return tables_; }
   Pfe::NatIdInfo const & natIdInfo() const { return *natIdInfo_; }
   Pfe::NatSwTableProgrammerSm const & programmer() const { return *programmer_; }
   NatIdStore const * store() const { return store_; }  // null: none
   // Settles so far.
   U64 turns() const { return turns_; }

 private:
   class L4Detection;

   void runUntilAtRest();
   void retryRefused();
   void replay();
   // Makes the rules those of `next`, what goes before what comes, and the settings.
   void take( Configuration next );
   void settingsAre( Settings const & settings );

   Configuration configuration_;
   std::optional< Configuration > kept_;  // to be taken when rules come back
   NatIdStore * store_;
   Asic::Hardware::Ptr hardware_;
   NatTables tables_;
   Pfe::NatProgrammerStatus::Ptr status_;
   Pfe::NatIdInfo::Ptr natIdInfo_;
   Ip::Nat::HwCapabilities::Ptr capabilities_;
   Orla::Ptr< McastReplications > replications_;
   Orla::Ptr< L4Detection > detection_;
   Pfe::NatVlanProfileConfig::Ptr profiles_;
   Pfe::NatSwTableProgrammerSm::Ptr programmer_;
   U64 turns_ = 0;
};

}  // namespace Agent
