// Rewrites that rules share, since their rows have the same match key: the rule that wrote last decides. When it goes,
// one of those that stay has to write again.
#pragma once

#include "agent/configuration/Configuration.h"

#include <Vexa/HashMap.h>

#include <cstddef>
#include <optional>
#include <set>
#include <tuple>
#include <vector>

namespace Agent {

// What rules that go leave to those that stay.
class SharedRewrites {
 public:
   // Before the rule is taken back. Costs its rows, and nothing that depends on who shares them.
   void leave( Connection const & connection, Settings const & settings, Pfe::NatIdManager const & ids );
   bool empty() const { return left_.empty(); }
   // Whether the connection, which stays and has its rows, shares something that was left; that is its own from then
   // on.
   bool takeOver( Connection const & connection, Settings const & settings );

 private:
   using Rewrite = std::tuple< Pfe::NatMatchKey, U16, std::size_t >;  // match key, qualifier, kind of row

   static Rewrite rewriteOf( Pfe::IngNatTableKey const & row, Connection const & connection );

   std::set< Rewrite > left_;
};

// Which dynamic connections share a twin: such a row does not say what it is translated to, and it stays when one of
// them goes.
class TwinSharers {
 public:
   // Begins with those of a configuration, whose settings it keeps.
   explicit TwinSharers( Configuration const & configuration );

   void add( DynamicRule const & rule );
   void del( DynamicRule const & rule );
   // Per twin of a rule that went, one that it is left to; only where the other is translated to another address.
   std::vector< Pfe::NatProgrammerDynamicKey > heirsOf( DynamicRule const & rule,
                                                        Pfe::NatProgrammerConfig const & rules ) const;

 private:
   using Sharers = std::set< Pfe::NatProgrammerDynamicKey >;

   Settings settings_;
   Vexa::HashMap< Pfe::IngNatTableKey, Sharers, 0x3C6EF372 > sharers_;
};

}  // namespace Agent
