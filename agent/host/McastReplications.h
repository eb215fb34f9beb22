// The agent's multicast hook: what the chip's code would do for multicast rules.
#pragma once

#include "agent/configuration/Connection.h"

#include <Vexa/HashMap.h>

#include <string_view>

namespace Agent {

// Answers with one rewrite per replication of the group that the rule names: the destination becomes the rule's
// translated group address, the source what the replication says, else what a twice rule translates it to.
class McastReplications final : public Pfe::NatMcastProgrammerHelper {
 public:
   // The connection's group from now on; null: none.
   void groupIs( Connection const & connection, std::shared_ptr< McastGroup const > const & group );

   Pfe::EgrMcastEntry getStaticEgrMcastEntry( Pfe::NatProgrammerStaticKey const & key,
                                              Pfe::NatProgrammerStaticEntry::PtrConst const & entry,
                                              Pfe::NatMatchKey const & matchKey, Pfe::NatId natId ) override;
   Pfe::EgrMcastEntry getTwiceEgrMcastEntry( Pfe::NatProgrammerTwiceKey const & key,
                                             Pfe::NatProgrammerTwiceEntry::PtrConst const & entry,
                                             Pfe::NatMatchKey const & matchKey, Pfe::NatId natId ) override;
   bool isValidMcastStaticTranslation( Pfe::NatProgrammerStaticKey const & key,
                                       Pfe::NatProgrammerStaticEntry::PtrConst const & entry ) override;
   bool isValidMcastTwiceTranslation( Pfe::NatProgrammerTwiceKey const & key,
                                      Pfe::NatProgrammerTwiceEntry::PtrConst const & entry ) override;
   // The rewrites go with the row that holds them, and nothing is kept over a restart.
   void cleanupNatEntry( Pfe::IngNatTableKey const & ) override {}
   void handleStartup() override {}

 private:
   using Group = std::shared_ptr< McastGroup const >;
   Vexa::HashMap< Pfe::NatProgrammerStaticKey, Group, 0x2545F491 > groupOfStaticRule_;
   Vexa::HashMap< Pfe::NatProgrammerTwiceKey, Group, 0x27220A95 > groupOfTwiceRule_;
};

// Why the multicast rule cannot be translated; empty when it can.
std::string_view whyInvalid( Connection const & connection );

}  // namespace Agent
