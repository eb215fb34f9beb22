#include "StaticWorld.h"

#include <algorithm>
#include <utility>

namespace Model {

using PfeHelper::NatHwResult;

unsigned StaticWorld::programmersAlive = 0;

// --- The programmer under observation --------------------------------------------------------------------------------

class StaticWorld::Observed final : public Pfe::NatSwTableProgrammerSm {
 public:
   Observed( StaticWorld & world, Support::Surroundings const & around, Pfe::NatProgrammerStatus::Ptr const & status )
      : NatSwTableProgrammerSm( around.config, status, nullptr, around.natIdInfo ), world_( world ) {
      ++programmersAlive;
   }
   ~Observed() override { --programmersAlive; }

   void addStaticConnection( StaticKey const & key, StaticEntry const & entry ) override {
      if ( inUpdate_ ) {
         NatSwTableProgrammerSm::addStaticConnection( key, entry );
         return;
      }
      world_.adding( { key, entry }, false );
      told( [ & ] { NatSwTableProgrammerSm::addStaticConnection( key, entry ); } );
   }

   void updateStaticConnection( StaticKey const & key, StaticEntry const & entry ) override {
      world_.adding( { key, entry }, true );
      inUpdate_ = true;
      told( [ & ] { NatSwTableProgrammerSm::updateStaticConnection( key, entry ); } );
   }

   void deleteStaticConnection( StaticKey const & key, StaticEntry const & entry ) override {
      world_.deleting( { key, entry } );
      NatSwTableProgrammerSm::deleteStaticConnection( key, entry );
   }

   void replayReconcile() override {
      world_.sweeping();
      NatSwTableProgrammerSm::replayReconcile();
   }

 private:
   template< class Operation > void told( Operation && operation ) {
      try {
         operation();
      } catch ( Vexa::RangeException const & ) {
         inUpdate_ = false;
         world_.refused();
         throw;
      }
      inUpdate_ = false;
      world_.accepted();
   }

   StaticWorld & world_;
   bool inUpdate_ = false;
};

// --- What the base programmer must call ------------------------------------------------------------------------------

void StaticWorld::expect( bool holds, std::string const & text, StaticKey const & key ) {
   if ( !holds ) {
      fault( text + ": " + Vexa::stringOf( key ) );
   }
}

bool StaticWorld::isRejected( Rule const & rule ) const {
   return isMulticast( rule ) && !surroundings_.mcast->accepts( Support::StaticRule{ rule.key, rule.entry } );
}

bool StaticWorld::isRefused( StaticKey const & key ) const {
   return std::ranges::any_of( refused_, [ & ]( Rule const & rule ) { return rule.key == key; } );
}

void StaticWorld::adding( Rule const & rule, bool isUpdate ) {
   auto const known = handedOver_.find( rule.key );
   expect( rule.entry == config().staticEntry( rule.key ), "handed over, but configured otherwise", rule.key );
   expect( !undoing_, "the rule before it was not undone", rule.key );
   expect( isUpdate == ( known != handedOver_.end() ), "add and update confused", rule.key );
   expect( !isUpdate || rowsOf( { rule.key, known->second } ) == rowsOf( rule ), "update changes rows", rule.key );
   expect( !retrying_ || ( !refused_.empty() && refused_.front().key == rule.key && !retryRaised_ ),
           "retried out of turn", rule.key );
   std::erase_if( refused_, [ & ]( Rule const & other ) { return other.key == rule.key; } );
   handedOver_[ rule.key ] = rule.entry;
   ++handOvers_[ rule.key ];
   if ( !cleaningUp_ ) {
      mustRaise_ = !isRejected( rule ) && !tables_.program( rule, config().fragmentationEnabled() );
      programmed_.insert( rule.key );
   }
   inFlight_ = rule;
}

void StaticWorld::accepted() {
   expect( !mustRaise_, "accepted without a free id", inFlight_->key );
   mustRaise_ = false;
   inFlight_.reset();
}

void StaticWorld::refused() {
   expect( mustRaise_, "refused though ids are free", inFlight_->key );
   mustRaise_ = false;
   retryRaised_ = true;
   undoing_ = std::exchange( inFlight_, std::nullopt );
}

void StaticWorld::deleting( Rule const & rule ) {
   if ( undoing_ ) {
      expect( undoing_->key == rule.key && undoing_->entry == rule.entry, "something else is undone", rule.key );
      handedOver_.erase( rule.key );
      refused_.push_back( *std::exchange( undoing_, std::nullopt ) );
   } else if ( deletingAll_ ) {
      expect( rule.entry == config().staticEntry( rule.key ), "deleted, but configured otherwise", rule.key );
   } else {
      auto const known = handedOver_.find( rule.key );
      expect( known != handedOver_.end() && known->second == rule.entry, "not the entry handed over last", rule.key );
      handedOver_.erase( rule.key );
   }
   programmed_.erase( rule.key );
   if ( !cleaningUp_ ) {
      tables_.remove( rule );
   }
}

void StaticWorld::sweeping() {
   tables_.catchUp( Snapshot( running_->tables ) );
   retrying_ = true;
   retryRaised_ = false;
}

void StaticWorld::retryOver() {
   if ( !retryRaised_ && !refused_.empty() ) {
      fault( "a refused rule was not retried" );
   }
   retrying_ = false;
}

// --- What happens ----------------------------------------------------------------------------------------------------

StaticWorld::StaticWorld( U32 freeIds ) : freeIds_( freeIds ) {
   surroundings_.mcast->accepts = []( Support::AnyRule const & rule ) {
      return std::get< Support::StaticRule >( rule ).entry->connection().translated.ip.value() % 4 != 3;
   };
   start();
}

StaticWorld::~StaticWorld() = default;

void StaticWorld::start() {
   running_ = std::make_unique< Support::Programmer >(
      surroundings_, [ this ]( Support::Surroundings const & around, Pfe::NatProgrammerStatus::Ptr const & status ) {
         auto const programmer = Orla::make< Observed >( *this, around, status );
         programmer->hasNotificationActiveIs( true );
         return Pfe::NatSwTableProgrammerSm::Ptr( programmer );
      } );
   running_->tables.hardware->policyIs( hardware_ );
   freeIdsAre( freeIds_ );
   replay();
}

void StaticWorld::restart() {
   running_.reset();
   if ( programmersAlive != 0 ) {
      fault( "the programmer outlives its tables" );
   }
   tables_.clear();
   handedOver_.clear();
   refused_.clear();
   programmed_.clear();
   mcastRows_.clear();
   surroundings_.mcast->cleaned.clear();
   cleaningUp_ = false;
   start();
}

void StaticWorld::freeIdsAre( U32 count ) {
   freeIds_ = count;
   tables_.blockedIds.clear();
   auto & bitmap = *running_->sm->natIdManager()->natIdBitmap();
   std::set< U32 > used;
   for ( auto const & [ matchKey, id ] : tables_.ids ) {
      used.insert( id );
   }
   for ( U32 id = 1; id <= ExpectedTables::largestId; ++id ) {
      if ( used.contains( id ) ) {
         continue;
      }
      if ( id <= count ) {
         bitmap.clearBit( id );
      } else {
         bitmap.setBit( id );
         tables_.blockedIds.insert( id );
      }
   }
   for ( U32 id = ExpectedTables::largestId + 1; id <= Pfe::NatId::max && !bitmap.bit( id ); ++id ) {
      bitmap.setBit( id );
   }
}

void StaticWorld::configure( Rule const & rule ) { surroundings_.config->staticEntryIs( rule.key, rule.entry ); }

void StaticWorld::unconfigure( StaticKey const & key ) {
   std::erase_if( refused_, [ & ]( Rule const & rule ) { return rule.key == key; } );
   surroundings_.config->staticEntryDel( key );
}

void StaticWorld::settle() { running_->settle(); }

void StaticWorld::replay() {
   handOvers_.clear();
   running_->sm->replay();
   retryOver();
   config().staticEntry().forEach( [ & ]( StaticKey const & key, StaticEntry const & ) {
      expect( handOvers_[ key ] >= 1, "left out of the replay", key );
   } );
}

void StaticWorld::retryRefused() {
   retrying_ = true;
   retryRaised_ = false;
   running_->sm->retryRefused();
   retryOver();
}

void StaticWorld::fragmentationIs( bool enabled ) {
   surroundings_.config->fragmentationEnabledIs( enabled );
   if ( !cleaningUp_ ) {
      replay();
   }
}

void StaticWorld::startCleanup() {
   deletingAll_ = true;
   running_->sm->deleteAllConnections();
   deletingAll_ = false;
   running_->sm->cleanupInProgressIs( true );
   cleaningUp_ = true;
}

void StaticWorld::endCleanup() {
   running_->sm->cleanupInProgressIs( false );
   cleaningUp_ = false;
   replay();
}

bool StaticWorld::rest() { return running_->settleToRest(); }

bool StaticWorld::collides( Rule const & rule ) const {
   auto const rows = rowsOf( rule );
   bool found = false;
   config().staticEntry().forEach( [ & ]( StaticKey const & key, StaticEntry const & entry ) {
      for ( auto const & row : rowsOf( { key, entry } ) ) {
         found = found || ( key != rule.key && std::ranges::find( rows, row ) != rows.end() );
      }
   } );
   return found;
}

// --- Checks ----------------------------------------------------------------------------------------------------------

void StaticWorld::check() {
   Snapshot const seen( running_->tables );
   tables_.catchUp( seen );
   checkHandOvers();
   auto const & manager = *running_->sm->natIdManager();
   tables_.check( seen, manager, faults_ );

   auto const gone = std::exchange( surroundings_.mcast->cleaned, {} );
   std::set< IngressKey > present;
   for ( auto const & [ key, row ] : seen.matches ) {
      if ( key.mcast ) {
         present.insert( key );
      }
   }
   std::set< IngressKey > cleaned;
   for ( auto const & key : gone ) {
      cleaned.insert( key.staticKey() );
   }
   std::erase_if( mcastRows_, [ & ]( IngressKey const & key ) { return present.contains( key ); } );
   if ( cleaned != mcastRows_ || cleaned.size() != gone.size() ) {
      fault( "the multicast hook was not told of exactly the rows that left the hardware" );
   }
   mcastRows_ = std::move( present );

   if ( running_->tables.hardware->outstanding() == 0 ) {
      running_->sm->atRest();
      tables_.checkAtRest( seen, faults_ );
      checkStatus();
   }
   running_->status->staticStatus().forEach( [ & ]( StaticKey const & key, auto const & status ) {
      expect( status.result == NatHwResult::programmed || status.result == NatHwResult::failed ||
                 status.result == NatHwResult::rejectedMulticast,
              "no such result", key );
   } );
}

// Whatever is configured is handed over as it is configured, or refused.
void StaticWorld::checkHandOvers() {
   auto remembered = handedOver_;
   for ( auto const & rule : refused_ ) {
      remembered[ rule.key ] = rule.entry;
   }
   std::map< StaticKey, StaticEntry > configured;
   config().staticEntry().forEach( [ & ]( StaticKey const & key, StaticEntry const & e ) { configured[ key ] = e; } );
   if ( remembered != configured || undoing_ || inFlight_ ) {
      fault( "what is handed over is not what is configured" );
   }
   if ( running_->sm->refusedCount() != refused_.size() ) {
      fault( "wrong number of refused rules" );
   }
}

void StaticWorld::checkStatus() {
   std::map< StaticKey, std::pair< NatHwResult, StaticEntry > > expected;
   for ( auto const & rule : refused_ ) {
      expected[ rule.key ] = { NatHwResult::failed, rule.entry };
   }
   for ( auto const & key : programmed_ ) {
      Rule const rule{ key, handedOver_.at( key ) };
      auto result = isRejected( rule ) ? NatHwResult::rejectedMulticast : NatHwResult::programmed;
      for ( auto const & row : isRejected( rule ) ? std::vector< IngressKey >() : rowsOf( rule ) ) {
         auto const * const handle = running_->tables.ingress->entryHandle( row );
         if ( !handle || handle->state() != Asic::EntryState::settled ) {
            result = NatHwResult::failed;
         }
      }
      expected[ key ] = { result, rule.entry };
   }
   running_->status->staticStatus().forEach( [ & ]( StaticKey const & key, auto const & status ) {
      auto const known = expected.find( key );
      if ( known == expected.end() ) {
         // A rule that took over another's row, was never written, and whose removal the hardware refused: from then on
         // the row reports to the other. Its result goes with the replay that ends the clean-up.
         bool const mayLinger =
            cleaningUp_ && status.result == NatHwResult::failed && config().staticEntry().has( key );
         expect( mayLinger, "a status of no rule", key );
      } else {
         expect( known->second == std::pair( status.result, status.entry ), "wrong status", key );
         expected.erase( known );
      }
   } );
   for ( auto const & [ key, status ] : expected ) {
      fault( "no status: " + Vexa::stringOf( key ) );
   }
   if ( !running_->sm->checkStaleStatus().empty() ) {
      fault( "a stale status at rest" );
   }
}

bool StaticWorld::isAllProgrammed() const {
   return refused_.empty() && programmed_.size() == config().staticEntry().count() &&
          running_->tables.failedRowCount() == 0;
}

void StaticWorld::checkEmpty() {
   bool anyRow = false;
   for ( auto * const table : running_->tables.hardware->tables() ) {
      table->forEachRow( []( void * any, Asic::Row & ) { *static_cast< bool * >( any ) = true; }, &anyRow );
      anyRow = anyRow || table->rowCount() != 0 || table->hardwareRowCount() != 0;
   }
   if ( anyRow || running_->idsInUse() != 0 || running_->status->staticStatus().count() != 0 ||
        running_->sm->natIdManager()->matchKeyToIngKeySet().count() != 0 || running_->sm->refusedCount() != 0 ) {
      fault( "something is left of deleted rules" );
   }
   running_.reset();
   if ( programmersAlive != 0 ) {
      fault( "the programmer was not destroyed" );
   }
}

}  // namespace Model
