// Rules that the NAT id pool refused, ordered so that a look finds one that it would hold now.
#pragma once

#include <Pfe/NatIdDemand.h>
#include <Pfe/NatIdInfo.h>
#include <Vexa/HashMap.h>

#include <array>
#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <variant>
#include <vector>

namespace Pfe {

// A change of an id costs those that wait for it, a look nothing that depends on how many wait.
class WaitingRules final : private NatIdInfo::MatchKeyToNatId::Watcher {
 public:
   using Key = std::variant< NatProgrammerStaticKey, NatProgrammerTwiceKey, NatProgrammerDynamicKey >;
   using MatchKeys = NatIdDemand::MatchKeys;

   WaitingRules() = default;
   ~WaitingRules() { poolIs( nullptr ); }

   // Null: unknown, so every rule may be tried. Only while none waits.
   void poolIs( NatIdInfo::PtrConst pool );

   // Whether the pool has too few free ids for those of these match keys that have none.
   bool lacks( MatchKeys const & matchKeys ) const { return lackedOf( matchKeys ) > freeIds(); }
   // More than a rule can ask for when the pool is unknown.
   std::size_t freeIds() const { return pool_ ? NatId::max - pool_->matchKeyToNatId().count() : NatIdDemand::most; }

   // The rule waits, under a number that none waits under; `matchKeys` null: unknown, and it lacks one id.
   void add( U64 number, Key const & key, MatchKeys const * matchKeys );
   // An unknown number: nothing.
   void del( U64 number );

   // The rule with the lowest number, up to `last`, that the free ids suffice for.
   std::optional< Key > next( U64 last ) const;

 private:
   struct Rule {
      Key key;
      std::vector< NatMatchKey > matchKeys;
      std::size_t lacked;
   };

   void onKey( NatMatchKey const & key, NatId const * previous, NatId const * current ) override;
   std::size_t lackedOf( MatchKeys const & matchKeys ) const;

   NatIdInfo::PtrConst pool_;
   std::map< U64, Rule > rules_;
   std::array< std::set< U64 >, NatIdDemand::most + 1 > byLacked_;
   Vexa::HashMap< NatMatchKey, Vexa::HashSet< U64, 0x6A09E667 >, 0xBB67AE85 > waiting_;  // for or with an id of the key
};

}  // namespace Pfe
