// A rule of any kind, so that tests can do the same with all of them.
#pragma once

#include <Pfe/NatBaseProgrammerSm.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace Support {

// --- Words for values ------------------------------------------------------------------------------------------------

Netix::IntfId intf( std::string_view name );
Netix::IpAddr ip( std::string_view text );
Netix::IpAndPort pair( std::string_view text );  // "10.0.0.1:80"; without a port "10.0.0.1"
std::string textOf( Netix::IpAndPort const & pair );

// --- Rules -----------------------------------------------------------------------------------------------------------

template< class Key, class Entry > struct RuleOf {
   using Fields = typename Entry::Fields;

   Key key;
   Orla::Ptr< Entry const > entry;

   // The same rule is the same entry object.
   friend bool operator==( RuleOf const &, RuleOf const & ) = default;
};

using StaticRule = RuleOf< Pfe::NatProgrammerStaticKey, Pfe::NatProgrammerStaticEntry >;
using TwiceRule = RuleOf< Pfe::NatProgrammerTwiceKey, Pfe::NatProgrammerTwiceEntry >;
using DynamicRule = RuleOf< Pfe::NatProgrammerDynamicKey, Pfe::NatProgrammerDynamicEntry >;  // NAPT and address-only
using AnyRule = std::variant< StaticRule, TwiceRule, DynamicRule >;
using AnyKey = std::variant< Pfe::NatProgrammerStaticKey, Pfe::NatProgrammerTwiceKey, Pfe::NatProgrammerDynamicKey >;

AnyKey keyOf( AnyRule const & rule );
std::string textOf( AnyKey const & key );

// A twice rule on the interface, of the flow before and after translation: "source > destination" each.
TwiceRule twiceRule( std::string_view before, std::string_view after, std::string_view intfName = "ethernet1",
                     TwiceRule::Fields fields = { .intfQualifier = 5 } );
// A learned connection; TCP, qualifier 5, target source unless the fields say otherwise.
DynamicRule dynamicRule( std::string_view flow, std::string_view global,
                         DynamicRule::Fields fields = { .intfQualifier = 5 }, std::string_view intfName = "ethernet1" );

// --- What the programmer offers for each -----------------------------------------------------------------------------

struct Outcome {
   PfeHelper::NatHwResult result;
   AnyRule rule;  // that it was written for
   friend bool operator==( Outcome const &, Outcome const & ) = default;
};

void add( Pfe::NatBaseProgrammerSm & programmer, AnyRule const & rule );
void update( Pfe::NatBaseProgrammerSm & programmer, AnyRule const & rule );
void del( Pfe::NatBaseProgrammerSm & programmer, AnyRule const & rule );

void configure( Pfe::NatProgrammerConfig & config, AnyRule const & rule );
void unconfigure( Pfe::NatProgrammerConfig & config, AnyKey const & key );
std::map< AnyKey, AnyRule > configured( Pfe::NatProgrammerConfig const & config );

std::map< AnyKey, Outcome > outcomes( Pfe::NatProgrammerStatus const & status );
// Absent while the rule has none.
std::optional< PfeHelper::NatHwResult > resultOf( Pfe::NatProgrammerStatus const & status, AnyKey const & key );
// As if the programmer had written it.
void resultIs( Pfe::NatProgrammerStatus & status, AnyRule const & rule, PfeHelper::NatHwResult result );

}  // namespace Support
