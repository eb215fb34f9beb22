/// @file
/// Which NAT ids a rule asks for, so that it is not tried in vain.
#pragma once

#include <Pfe/NatMatchKey.h>
#include <Pfe/NatProgrammerEntries.h>
#include <Pfe/NatProgrammerKeys.h>
#include <Vexa/InlineList.h>

#include <cstddef>

namespace [[gnu::visibility( "default" )]] Pfe {

/// Told by whoever knows the rows of a rule; the agent.
class NatIdDemand {
 public:
   static constexpr std::size_t most = 4;  ///< Match keys of a rule: two directions, each with its fragment twin.
   using MatchKeys = Vexa::InlineList< NatMatchKey, most >;

   virtual ~NatIdDemand() = default;

   /// @{
   /// The match keys, each once, that an add of the rule takes an id of. None: the rule takes no id.
   virtual MatchKeys matchKeysOf( NatProgrammerStaticKey const & key,
                                  NatProgrammerStaticEntry::PtrConst const & entry ) const = 0;
   virtual MatchKeys matchKeysOf( NatProgrammerTwiceKey const & key,
                                  NatProgrammerTwiceEntry::PtrConst const & entry ) const = 0;
   virtual MatchKeys matchKeysOf( NatProgrammerDynamicKey const & key,
                                  NatProgrammerDynamicEntry::PtrConst const & entry ) const = 0;
   /// @}
};

}  // namespace Pfe
