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
     ingress_( Orla::make< Pfe::IngStaticNatTable >( hardware_ ) ),
     sourceRewrites_( Orla::make< Pfe::EgrSourceNatUcRewriteTable >( hardware_ ) ),
     destinationRewrites_( Orla::make< Pfe::EgrDestinationNatUcRewriteTable >( hardware_ ) ),
     programmer_( Pfe::NatSwTableProgrammerSmIs( config_, status_, nullptr, natIdInfo_ ) ) {
   programmer_->programmerModeIs( Pfe::NatBaseProgrammerSm::Mode::tables );
   programmer_->natIdPoolIs( natIdInfo_ );
   programmer_->ingStaticNatTableIs( ingress_ );
   programmer_->egrSourceNatUcRewriteTableIs( sourceRewrites_ );
   programmer_->egrDestinationNatUcRewriteTableIs( destinationRewrites_ );
}

// Rows hold their responses, and these the programmer.
System::~System() {
   ingress_->clear();
   sourceRewrites_->clear();
   destinationRewrites_->clear();
}

void System::start() {
   programmer_->initializedIs( true );
   programmer_->replay();
   settle();
}

void System::configure( StaticRules const & rules ) { Bench::configure( *config_, rules ); }

void System::unconfigure( StaticRules const & rules ) {
   for ( auto const & rule : rules ) {
      config_->staticEntryDel( rule.key );
   }
}

void System::settle() {
   hardware_->settle();
   programmer_->atRest();
}

void System::requireProgrammed( std::size_t rules, std::size_t ingressRows, std::size_t natIds ) const {
   require( hardware_->outstanding() == 0, "nothing is outstanding" );
   require( ingress_->rowCount() == ingressRows && ingress_->hardwareRowCount() == ingressRows,
            "every ingress row is in the hardware" );
   auto const rewrites = sourceRewrites_->rowCount() + destinationRewrites_->rowCount();
   require( rewrites == natIds, "there is one rewrite per NAT id" );
   require( natIdInfo_->matchKeyToNatId().count() == natIds, "as many NAT ids as expected are in use" );
   require( status_->staticStatus().count() == rules, "every rule has a status" );
   for ( auto const & [ key, status ] : status_->staticStatus() ) {
      require( status.result == PfeHelper::NatHwResult::programmed, "every status says programmed" );
   }
}

void configure( Pfe::NatProgrammerConfig & config, StaticRules const & rules ) {
   for ( auto const & rule : rules ) {
      config.staticEntryIs( rule.key, rule.entry );
   }
}

void require( bool condition, char const * what ) {
   if ( !condition ) {
      std::fprintf( stderr, "nat-bench: not so: %s\n", what );
      std::exit( EXIT_FAILURE );
   }
}

}  // namespace Bench
