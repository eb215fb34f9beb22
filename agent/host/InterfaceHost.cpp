#include "agent/host/InterfaceHost.h"

#include "agent/basics/Text.h"
#include "agent/basics/UnusableInput.h"

#include <utility>

namespace Agent {

namespace {

void requireNoProfiles( Configuration const & configuration ) {
   auto const count = configuration.profiles.size();
   if ( count != 0 ) {
      throw UnusableInput( configuration.file + ": pfe-nat:vlan-profile: " + counted( count, "profile" ) +
                           "; allowed in interface mode: none" );
   }
}

void requireVlans( Configuration const & configuration ) {
   Faults faults;
   forEachStaticRule( configuration, [ & ]( U32 index, StaticRule const & rule ) {
      if ( rule.entry->vlanId() == 0 ) {
         faults.add( [ & ] {
            return configuration.file + ": entry " + std::to_string( index ) +
                   ": lacks pfe-nat:vlan; allowed in interface mode: the VLAN of " +
                   Vexa::stringOf( rule.key.natIntf ) + ", 1 to 4094";
         } );
      }
   } );
   faults.throwAll( configuration.file );
}

}  // namespace

InterfaceHost::InterfaceHost( Configuration configuration )
   : configuration_( std::move( configuration ) ),
     swTableConfig_( Orla::make< Pfe::NatSwTableConfig >() ),
     swTableStatus_( Orla::make< Pfe::NatSwTableStatus >() ) {
   requireNoProfiles( configuration_ );
   requireVlans( configuration_ );
   consumer_ = Pfe::natSwTableSmFactory( swTableConfig_, swTableStatus_ );
   consumer_->initializedIs( true );
   programmer_ = Pfe::natProgrammerIntfModeSmFactory( configuration_.rules, Orla::make< Pfe::NatProgrammerStatus >(),
                                                      swTableConfig_, swTableStatus_ );
}

bool InterfaceHost::isComplete() const {
   auto const & rules = *configuration_.rules;
   return programmer_->rangeErrorCount() == 0 &&
          rules.twiceEntry().count() + rules.dynamicEntry().count() + rules.trapEntry().count() == 0;
}

}  // namespace Agent
