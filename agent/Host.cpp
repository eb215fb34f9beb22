#include "agent/Host.h"

#include "agent/McastReplications.h"

#include <algorithm>
#include <utility>

namespace Agent {

Host::Host( Configuration configuration, std::shared_ptr< Asic::HardwarePolicy > policy, NatIdStore * store )
   : configuration_( std::move( configuration ) ),
     store_( store ),
     hardware_( Orla::make< Asic::Hardware >() ),
     tables_( hardware_ ),
     status_( Orla::make< Pfe::NatProgrammerStatus >() ),
     natIdInfo_( Orla::make< Pfe::NatIdInfo >() ) {
   hardware_->policyIs( std::move( policy ) );
   if ( store_ ) {
      store_->natIdInfoIs( natIdInfo_ );
   }
   programmer_ = Pfe::natSwTableProgrammerSmFactory( configuration_.rules, status_,
                                                     Orla::make< Ip::Nat::HwCapabilities >(), natIdInfo_ );
   programmer_->egrSourceNatUcRewriteTableIs( tables_.of< Pfe::EgrSourceNatUcRewriteTable >() );
   programmer_->egrDestinationNatUcRewriteTableIs( tables_.of< Pfe::EgrDestinationNatUcRewriteTable >() );
   programmer_->egrNatMcRewriteTableIs( tables_.of< Pfe::EgrNatMcRewriteTable >() );
   programmer_->ingStaticNatTableIs( tables_.of< Pfe::IngStaticNatTable >() );
   programmer_->ingTwiceNatTableIs( tables_.of< Pfe::IngTwiceNatTable >() );
   programmer_->ingDynamicSnaptTableIs( tables_.of< Pfe::IngDynamicSnaptTable >() );
   programmer_->ingDynamicDnaptTableIs( tables_.of< Pfe::IngDynamicDnaptTable >() );
   programmer_->ingDynamicSnatAddrOnlyTableIs( tables_.of< Pfe::IngDynamicSnatAddrOnlyTable >() );
   programmer_->ingDynamicDnatAddrOnlyTableIs( tables_.of< Pfe::IngDynamicDnatAddrOnlyTable >() );
   programmer_->aclNameIdTableIs( Orla::make< Pfe::NatAclNameIdTable >() );
   programmer_->natTrapConfigIs( Orla::make< Pfe::NatTrapConfig >() );
   programmer_->natProfileConfigIs( Orla::make< Pfe::NatProfileConfig >() );
   programmer_->mcastProgrammerHelperIs( Orla::make< McastReplications >( configuration_.connections ) );
   programmer_->programmerModeIs( Pfe::NatBaseProgrammerSm::Mode::tables );
   programmer_->natIdPoolIs( natIdInfo_ );
}

// Rows hold their responses, these the programmer, and that the tables.
Host::~Host() {
   tables_.forEach( []( auto & table ) { table.clear(); } );
}

void Host::program() {
   programmer_->initializedIs( true );
   programmer_->replay();
   runUntilAtRest();
   retryRefused();
}

bool Host::isComplete() const {
   bool complete = true;
   tables_.forEach( [ & ]( auto const & table ) { complete = complete && table.failedRowCount() == 0; } );
   return complete && std::ranges::all_of( configuration_.connections, [ & ]( StaticConnection const & connection ) {
             auto const * const status = status_->staticStatus().find( connection.key );
             return status && status->result == PfeHelper::NatHwResult::programmed;
          } );
}

// An id is on disk before any row that uses it can settle.
void Host::runUntilAtRest() {
   do {
      if ( store_ ) {
         store_->commit();
      }
      hardware_->settle();
      ++turns_;
   } while ( hardware_->outstanding() != 0 );
   if ( store_ ) {
      store_->commit();  // ids that the last removals gave back
   }
   programmer_->atRest();
}

// What the id pool refused is tried once more as long as that may have changed: ids came back, or a rule was refused
// that was not before.
void Host::retryRefused() {
   std::size_t tried = 0;
   std::size_t heldBefore = Pfe::NatId::max;
   std::size_t refusedBefore = 0;
   while ( auto const refused = programmer_->refusedCount() ) {
      auto const held = natIdInfo_->matchKeyToNatId().count();
      if ( held < heldBefore || refused > refusedBefore ) {
         tried = 0;
      }
      heldBefore = held;
      refusedBefore = refused;
      auto const handedOver = tried < refused ? programmer_->retryRefused() : 0;
      if ( handedOver == 0 ) {
         return;
      }
      tried += handedOver;
      runUntilAtRest();
   }
}

}  // namespace Agent
