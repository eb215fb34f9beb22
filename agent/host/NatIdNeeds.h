// Which NAT ids, and with them which rewrites, a rule asks for.
#pragma once

#include "agent/configuration/Connection.h"

#include <Pfe/NatIdDemand.h>

namespace Agent {

// The key under which the row shares its NAT id with others.
Pfe::NatMatchKey matchKeyOf( Pfe::IngNatTableKey const & row );

// Calls function( row ) for every row of the rule: each that matches whole packets, behind its twin for later
// fragments.
template< class Rule, class Function >
void forEachRow( Rule const & rule, Settings const & settings, Function && function ) {
   for ( auto const & row : ingressRowsOf( rule, settings ) ) {
      auto const twin = fragmentRowOf( row );
      bool const hasTwin =
         settings.fragmentation && twin != row && ( std::is_same_v< Rule, DynamicRule > || !ignoresPorts( row ) );
      if ( hasTwin ) {
         function( twin );
      }
      function( row );
   }
}

// Of the rules of one host, under its settings.
class NatIdNeeds final : public Pfe::NatIdDemand {
 public:
   // `mcast` knows which multicast rules get no row, and so no id.
   explicit NatIdNeeds( Orla::Ptr< Pfe::NatMcastProgrammerHelper > mcast ) : mcast_( std::move( mcast ) ) {}

   void settingsAre( Settings const & settings ) { settings_ = settings; }
   Settings const & settings() const { return settings_; }

   MatchKeys matchKeysOf( Pfe::NatProgrammerStaticKey const & key,
                          Pfe::NatProgrammerStaticEntry::PtrConst const & entry ) const override;
   MatchKeys matchKeysOf( Pfe::NatProgrammerTwiceKey const & key,
                          Pfe::NatProgrammerTwiceEntry::PtrConst const & entry ) const override;
   MatchKeys matchKeysOf( Pfe::NatProgrammerDynamicKey const & key,
                          Pfe::NatProgrammerDynamicEntry::PtrConst const & entry ) const override;

 private:
   Orla::Ptr< Pfe::NatMcastProgrammerHelper > mcast_;
   Settings settings_;
};

}  // namespace Agent
