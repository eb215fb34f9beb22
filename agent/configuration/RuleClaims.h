// Which rules cannot be configured side by side.
#pragma once

#include "agent/configuration/Configuration.h"

#include <Vexa/HashMap.h>
#include <Vexa/Value.h>

#include <optional>
#include <string>
#include <vector>

namespace Agent {

// What the rules of one configuration hold for themselves: the rows that they derive, the packets that these match, and
// the keys that the programmer knows them by.
class RuleClaims {
 public:
   struct Conflict {
      std::string why;  // names the other rule's mapping entry
      std::string allowed;
   };

   // Of rules that no configuration holds yet. `inWords`: whether texts are wanted, which take a walk over all rules.
   // Absent: none of the rules before it is in its way.
   std::optional< Conflict > claim( Connection const & connection, Configuration const & configuration, bool inWords );

 private:
   // The packets that a row matches, whatever their protocol, of those for which its rule applies.
   struct Matched {
      Pfe::IngNatTableKey row;  // without what it translates to, and without the protocol
      Orla::String condition;   // access list and filters
      U16 vlanId = 0;           // 0: any

      static constexpr std::string_view typeName = "Agent::Matched";
      static constexpr auto attributes() {
         return std::tuple( Vexa::attr< &Matched::row >( "row" ), Vexa::attr< &Matched::condition >( "condition" ),
                            Vexa::attr< &Matched::vlanId >( "vlanId" ) );
      }
      friend auto operator<=>( Matched const &, Matched const & ) = default;
   };
   // One that matches them.
   struct Holder {
      U32 index;    // of the entry
      U32 before;   // the place behind that of another one; 0: none
      U8 protocol;  // 0: any
   };

   // Each yields the mapping entry that holds it, if any does.
   template< class AnyRule >
   std::optional< U32 > claimMatched( Pfe::IngNatTableKey const & row, AnyRule const & rule, U32 index );
   // What the row of the rule's own target or direction matches, as far as the rule's key does not tell it.
   std::optional< U32 > claimOwn( StaticRule const & rule, U32 index, Configuration const & configuration );
   std::optional< U32 > claimOwn( TwiceRule const & rule, U32 index, Configuration const & configuration );
   std::optional< U32 > claimOwn( DynamicRule const & rule, U32 index, Configuration const & configuration );
   template< class AnyRule >
   std::optional< Conflict > claim( AnyRule const & rule, Connection const & connection,
                                    Configuration const & configuration, bool inWords );

   // Of the static rules so far: whether they have one target and no access list, so that no two of different keys
   // match the same by their own rows, or derive the same rows. Else these are claimed as well.
   bool keysSuffice_ = true;
   std::optional< Ip::Nat::NatTarget > target_;
   Vexa::HashMap< Pfe::IngNatTableKey, U32, 0x7F4A7C15 > indexOfRow_;  // of static rules
   Vexa::HashMap< Matched, U32, 0x51ED270B > lastOfMatched_;           // the place behind that of the last holder
   std::vector< Holder > holders_;
};

}  // namespace Agent
