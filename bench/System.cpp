#include "System.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace Bench {

System::System() : System( Orla::make< Pfe::NatProgrammerConfig >(), Orla::make< Pfe::NatIdInfo >() ) { start(); }

System::System( Pfe::NatProgrammerConfig::Ptr config, Pfe::NatIdInfo::Ptr natIdInfo )
   : config_( std::move( config ) ),
     status_( Orla::make< Pfe::NatProgrammerStatus >() ),
     natIdInfo_( std::move( natIdInfo ) ),
     hardware_( Orla::make< Asic::Hardware >() ),
     tables_( hardware_ ),
     programmer_( Pfe::NatSwTableProgrammerSmIs( config_, status_, nullptr, natIdInfo_ ) ) {
   programmer_->programmerModeIs( Pfe::NatBaseProgrammerSm::Mode::tables );
   programmer_->natIdPoolIs( natIdInfo_ );
   tables_.attachTo( *programmer_ );
}

// Rows hold their responses, and these the programmer.
System::~System() {
   tables_.forEach( []( auto & table ) { table.clear(); } );
}

void System::start() {
   programmer_->initializedIs( true );
   programmer_->replay();
   settle();
}

void System::deleteAll() {
   programmer_->deleteAllConnections();
   programmer_->cleanupInProgressIs( true );
}

void System::addAll() {
   programmer_->cleanupInProgressIs( false );
   programmer_->replay();
}

void System::settle() {
   hardware_->settle();
   programmer_->atRest();
}

void System::requireProgrammed( std::size_t rules, std::size_t ingressRows, std::size_t natIds ) const {
   require( hardware_->outstanding() == 0, "nothing is outstanding" );
   std::size_t seen = 0;
   std::size_t inHardware = 0;
   tables_.forEachIngress( [ & ]( auto const & table ) {
      seen += table.rowCount();
      inHardware += table.hardwareRowCount();
   } );
   require( seen == ingressRows && inHardware == ingressRows, "every ingress row is in the hardware" );
   std::size_t rewrites = 0;
   tables_.forEachEgress( [ & ]( auto const & table ) { rewrites += table.rowCount(); } );
   require( rewrites == natIds, "there is one rewrite per NAT id" );
   require( natIdInfo_->matchKeyToNatId().count() == natIds, "as many NAT ids as expected are in use" );
   std::size_t programmed = 0;
   auto const count = [ & ]( auto const & statuses ) {
      for ( auto const & [ key, status ] : statuses ) {
         require( status.result == PfeHelper::NatHwResult::programmed, "every status says programmed" );
      }
      programmed += statuses.count();
   };
   count( status_->staticStatus() );
   count( status_->twiceStatus() );
   count( status_->dynamicStatus() );
   require( programmed == rules, "every rule has a status" );
}

void require( bool condition, char const * what ) {
   if ( !condition ) {
      std::fprintf( stderr, "nat-bench: not so: %s\n", what );
      std::exit( EXIT_FAILURE );
   }
}

}  // namespace Bench
