#include "agent/host/InterfaceHost.h"

#include "agent/basics/UnusableInput.h"

#include <utility>

namespace Agent {

namespace {

void requireUsable( Configuration const & configuration ) {
   Faults faults;
   auto const allowed = []( std::string const & what ) { return "; allowed in interface mode: " + what; };
   auto const instance = configuration.file + ": " + std::string( pointerToInstance );
   if ( !configuration.profiles.empty() ) {
      faults.add( [ & ] { return instance + "/pfe-nat:vlan-profile: a list" + allowed( "no profiles" ); } );
   }
   std::size_t place = 0;
   for ( auto const & connection : configuration.connections ) {
      auto const * const rule = std::get_if< StaticRule >( &connection.rule );
      if ( rule && rule->entry->vlanId() == 0 ) {
         faults.add( [ & ] {
            return instance + std::string( pointerToEntries ) + std::to_string( place ) +
                   ": an object lacks pfe-nat:vlan" +
                   allowed( "the VLAN of " + Vexa::stringOf( rule->key.natIntf ) + ", 1 to 4094" );
         } );
      }
      ++place;
   }
   faults.throwAll( configuration.file );
}

}  // namespace

InterfaceHost::InterfaceHost( Configuration configuration )
   : configuration_( std::move( configuration ) ),
     swTableConfig_( Orla::make< Pfe::NatSwTableConfig >() ),
     swTableStatus_( Orla::make< Pfe::NatSwTableStatus >() ) {
   requireUsable( configuration_ );
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
