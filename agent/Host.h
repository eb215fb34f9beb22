// What an agent is to the programmer: owner of configuration, tables, status and NAT ids, and the one that runs the
// activity.
#pragma once

#include "agent/Configuration.h"
#include "agent/NatIdStore.h"
#include "agent/NatTables.h"

#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <Asic/Hardware.h>
#include <Pfe/NatIdInfo.h>
#include <Pfe/NatProgrammerStatus.h>
#include <Pfe/NatSideTables.h>

#include <memory>

namespace Agent {

class Host {
 public:
   // `store` may be null: the NAT ids last as long as the host. Else it must outlive the host.
   Host( Configuration configuration, std::shared_ptr< Asic::HardwarePolicy > policy, NatIdStore * store );
   // Drops the tables; the NAT ids stay in the store.
   ~Host();
   Host( Host const & ) = delete;
   Host & operator=( Host const & ) = delete;

   // Programs the configuration and returns when nothing is outstanding any more. Called once. Throws UnusableInput
   // when the store does not take the ids.
   void program();

   // Whether every connection is programmed and every row of every table accepted.
   bool isComplete() const;

   Configuration const & configuration() const { return configuration_; }
   NatTables const & tables() const { return tables_; }
   Pfe::NatProgrammerStatus const & status() const { return *status_; }
   Pfe::NatIdInfo const & natIdInfo() const { return *natIdInfo_; }
   Pfe::NatSwTableProgrammerSm const & programmer() const { return *programmer_; }
   NatIdStore const * store() const { return store_; }  // null: none
   // Settles so far.
   U64 turns() const { return turns_; }

 private:
   void runUntilAtRest();
   void retryRefused();

   Configuration configuration_;
   NatIdStore * store_;
   Asic::Hardware::Ptr hardware_;
   NatTables tables_;
   Pfe::NatProgrammerStatus::Ptr status_;
   Pfe::NatIdInfo::Ptr natIdInfo_;
   Pfe::NatSwTableProgrammerSm::Ptr programmer_;
   U64 turns_ = 0;
};

}  // namespace Agent
