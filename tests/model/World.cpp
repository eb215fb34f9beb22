#include "World.h"
#include "FreshProgrammer.h"

#include <algorithm>
#include <utility>

namespace Model {

using PfeHelper::NatHwResult;

unsigned World::programmersAlive = 0;

// --- The programmer under observation --------------------------------------------------------------------------------

class World::Observed final : public Pfe::NatSwTableProgrammerSm {
 public:
   Observed( World & world, Support::Surroundings const & around, Pfe::NatProgrammerStatus::Ptr const & status )
      : NatSwTableProgrammerSm( around.config, status, around.capabilities, around.natIdInfo ), world_( world ) {
      ++programmersAlive;
   }
   ~Observed() override { --programmersAlive; }

   using Sm = NatSwTableProgrammerSm;
   using StaticEntry = Pfe::NatProgrammerStaticEntry::PtrConst;
   using TwiceEntry = Pfe::NatProgrammerTwiceEntry::PtrConst;
   using DynamicEntry = Pfe::NatProgrammerDynamicEntry::PtrConst;
   using StaticKey = Pfe::NatProgrammerStaticKey;
   using TwiceKey = Pfe::NatProgrammerTwiceKey;
   using DynamicKey = Pfe::NatProgrammerDynamicKey;

   void addStaticConnection( StaticKey const & key, StaticEntry const & entry ) override {
      adding( Support::StaticRule{ key, entry }, false, [ & ] { Sm::addStaticConnection( key, entry ); } );
   }
   void updateStaticConnection( StaticKey const & key, StaticEntry const & entry ) override {
      adding( Support::StaticRule{ key, entry }, true, [ & ] { Sm::updateStaticConnection( key, entry ); } );
   }
   void deleteStaticConnection( StaticKey const & key, StaticEntry const & entry ) override {
      world_.deleting( Support::StaticRule{ key, entry } );
      Sm::deleteStaticConnection( key, entry );
   }
   void addTwiceConnection( TwiceKey const & key, TwiceEntry const & entry ) override {
      adding( Support::TwiceRule{ key, entry }, false, [ & ] { Sm::addTwiceConnection( key, entry ); } );
   }
   void updateTwiceConnection( TwiceKey const & key, TwiceEntry const & entry ) override {
      adding( Support::TwiceRule{ key, entry }, true, [ & ] { Sm::updateTwiceConnection( key, entry ); } );
   }
   void deleteTwiceConnection( TwiceKey const & key, TwiceEntry const & entry ) override {
      world_.deleting( Support::TwiceRule{ key, entry } );
      Sm::deleteTwiceConnection( key, entry );
   }
   void addDynamicConnection( DynamicKey const & key, DynamicEntry const & entry ) override {
      adding( Support::DynamicRule{ key, entry }, false, [ & ] { Sm::addDynamicConnection( key, entry ); } );
   }
   void updateDynamicConnection( DynamicKey const & key, DynamicEntry const & entry ) override {
      adding( Support::DynamicRule{ key, entry }, true, [ & ] { Sm::updateDynamicConnection( key, entry ); } );
   }
   void deleteDynamicConnection( DynamicKey const & key, DynamicEntry const & entry ) override {
      world_.deleting( Support::DynamicRule{ key, entry } );
      Sm::deleteDynamicConnection( key, entry );
   }

   void replayReconcile() override {
      world_.sweeping();
      NatSwTableProgrammerSm::replayReconcile();
   }

 private:
   // The add that an update calls is not told again.
   template< class Operation > void adding( AnyRule const & rule, bool isUpdate, Operation && operation ) {
      if ( inUpdate_ ) {
         operation();
         return;
      }
      world_.adding( rule, isUpdate );
      inUpdate_ = isUpdate;
      try {
         operation();
      } catch ( Vexa::RangeException const & error ) {
         inUpdate_ = false;
         world_.refused( error.what() == std::string_view( Pfe::NatId::rangeError ) );
         throw;
      }
      inUpdate_ = false;
      world_.accepted();
   }

   World & world_;
   bool inUpdate_ = false;
};

// --- What the base programmer must call ------------------------------------------------------------------------------

void World::expect( bool holds, std::string const & text, AnyKey const & key ) {
   if ( !holds ) {
      fault( text + ": " + Support::textOf( key ) );
   }
}

bool World::isRejected( AnyRule const & rule ) const {
   return isMulticast( rule ) && !surroundings_.mcast->accepts( rule );
}

bool World::isRefused( AnyKey const & key ) const {
   return std::ranges::any_of( refused_, [ & ]( Refused const & one ) { return keyOf( one.rule ) == key; } );
}

void World::adding( AnyRule const & rule, bool isUpdate ) {
   auto const key = keyOf( rule );
   auto const known = handedOver_.find( key );
   auto const nextToRetry = std::ranges::find_if( refused_, &Refused::byPool );
   expect( configured().at( key ) == rule, "handed over, but configured otherwise", key );
   expect( !undoing_, "the rule before it was not undone", key );
   expect( isUpdate == ( known != handedOver_.end() ), "add and update confused", key );
   expect( !isUpdate || haveSameRows( known->second, rule ), "update changes rows", key );
   expect( !retrying_ || ( nextToRetry != refused_.end() && keyOf( nextToRetry->rule ) == key && !retryRaised_ ),
           "retried out of turn", key );
   std::erase_if( refused_, [ & ]( Refused const & other ) { return keyOf( other.rule ) == key; } );
   handedOver_.insert_or_assign( key, rule );
   ++handOvers_[ key ];
   if ( !cleaningUp_ ) {
      mustRaise_ = isOutOfRange( rule, chip_ ) ||
                   ( !isRejected( rule ) && !tables_.program( directionsOf( rule ), config().fragmentationEnabled() ) );
      programmed_.insert( key );
   }
   inFlight_ = rule;
}

bool World::haveSameRows( AnyRule const & a, AnyRule const & b ) const {
   return std::ranges::equal( directionsOf( a ), directionsOf( b ), {}, &Direction::key, &Direction::key );
}

void World::accepted() {
   expect( !mustRaise_, "accepted without a free id, or out of range", keyOf( *inFlight_ ) );
   mustRaise_ = false;
   inFlight_.reset();
}

void World::refused( bool byPool ) {
   expect( mustRaise_, "refused though ids are free", keyOf( *inFlight_ ) );
   expect( byPool != isOutOfRange( *inFlight_, chip_ ), "refused for another reason", keyOf( *inFlight_ ) );
   mustRaise_ = false;
   retryRaised_ = true;
   undoing_ = std::exchange( inFlight_, std::nullopt );
}

void World::deleting( AnyRule const & rule ) {
   auto const key = keyOf( rule );
   if ( undoing_ ) {
      expect( *undoing_ == rule, "something else is undone", key );
      handedOver_.erase( key );
      refused_.push_back( { rule, !isOutOfRange( rule, chip_ ) } );
      undoing_.reset();
   } else if ( deletingAll_ ) {
      expect( configured().at( key ) == rule, "deleted, but configured otherwise", key );
   } else {
      auto const known = handedOver_.find( key );
      expect( known != handedOver_.end() && known->second == rule, "not the entry handed over last", key );
      handedOver_.erase( key );
   }
   programmed_.erase( key );
   if ( !cleaningUp_ ) {
      tables_.remove( directionsOf( rule ) );
   }
}

void World::sweeping() {
   tables_.catchUp( Snapshot( running_->tables ) );
   retrying_ = true;
   retryRaised_ = false;
}

void World::retryOver() {
   if ( !retryRaised_ && std::ranges::any_of( refused_, &Refused::byPool ) ) {
      fault( "a refused rule was not retried" );
   }
   retrying_ = false;
}

// --- What happens ----------------------------------------------------------------------------------------------------

World::World( U32 freeIds, Chip const & chip, bool talkativeHardware ) : freeIds_( freeIds ), chip_( chip ) {
   surroundings_.chip->talkative = talkativeHardware;
   surroundings_.config->vrfLessIs( chip.vrfLess );
   surroundings_.capabilities->fullConeProgrammedIs( chip.fullConeProgrammed );
   surroundings_.mcast->accepts = []( AnyRule const & rule ) {
      auto const * const twice = std::get_if< Support::TwiceRule >( &rule );
      auto const translated = twice ? twice->entry->connection().translatedDestination
                                    : std::get< Support::StaticRule >( rule ).entry->connection().translated;
      return translated.ip.value() % 4 != 3;
   };
   start();
}

World::~World() = default;

void World::start() {
   running_ = std::make_unique< Support::Programmer >(
      surroundings_, [ this ]( Support::Surroundings const & around, Pfe::NatProgrammerStatus::Ptr const & status ) {
         auto const programmer = Orla::make< Observed >( *this, around, status );
         programmer->hasNotificationActiveIs( true );
         return Pfe::NatSwTableProgrammerSm::Ptr( programmer );
      } );
   freeIdsAre( freeIds_ );
   replay();
}

void World::restart() {
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

void World::freeIdsAre( U32 last ) {
   freeIds_ = last;
   running_->freeIdsAre( last );
   tables_.freeIdsAre( last );
}

void World::configure( AnyRule const & rule ) { Support::configure( *surroundings_.config, rule ); }

void World::unconfigure( AnyKey const & key ) {
   std::erase_if( refused_, [ & ]( Refused const & one ) { return keyOf( one.rule ) == key; } );
   Support::unconfigure( *surroundings_.config, key );
}

void World::settle() { running_->settle(); }

void World::handsOverEverything( std::function< void() > const & action ) {
   handOvers_.clear();
   action();
   for ( auto const & [ key, rule ] : configured() ) {
      expect( handOvers_[ key ] >= 1, "left out", key );
   }
}

void World::replay() {
   handsOverEverything( [ & ] { running_->sm->replay(); } );
   retryOver();
}

void World::addAll() {
   handsOverEverything( [ & ] { running_->sm->addAllConnections(); } );
}

void World::deleteAll() {
   deletingAll_ = true;
   running_->sm->deleteAllConnections();
   deletingAll_ = false;
}

void World::retryRefused() {
   retrying_ = true;
   retryRaised_ = false;
   running_->sm->retryRefused();
   retryOver();
}

void World::fragmentationIs( bool enabled ) {
   surroundings_.config->fragmentationEnabledIs( enabled );
   if ( !cleaningUp_ ) {
      replay();
   }
}

void World::startCleanup() {
   deleteAll();
   running_->sm->cleanupInProgressIs( true );
   cleaningUp_ = true;
}

void World::endCleanup() {
   running_->sm->cleanupInProgressIs( false );
   cleaningUp_ = false;
   replay();
}

bool World::rest() { return running_->settleToRest(); }

bool World::collides( AnyRule const & rule ) const {
   auto const directions = directionsOf( rule );
   return std::ranges::any_of( configured(), [ & ]( auto const & known ) {
      auto const others = directionsOf( known.second );
      return known.first != keyOf( rule ) && std::ranges::any_of( directions, [ & ]( Direction const & own ) {
                return std::ranges::find( others, own.key, &Direction::key ) != others.end();
             } );
   } );
}

// --- Checks ----------------------------------------------------------------------------------------------------------

void World::check() {
   if ( surroundings_.chip->wrongCalls != 0 ) {
      fault( "the chip was given at once what must come one after the other" );
   }
   if ( surroundings_.chip->talkative ) {
      faults_.clear();
      if ( running_->tables.hardware->outstanding() == 0 ) {
         running_->sm->atRest();
         checkStatus( Snapshot( running_->tables ) );
      }
      return;
   }
   Snapshot const seen( running_->tables );
   tables_.catchUp( seen );
   checkHandOvers();
   auto const & manager = *running_->sm->natIdManager();
   tables_.check( seen, manager, faults_ );

   auto const gone = std::exchange( surroundings_.mcast->cleaned, {} );
   std::set< IngressKey > present;
   for ( auto const & [ key, row ] : seen.matches ) {
      if ( isMulticast( key ) ) {
         present.insert( key );
      }
   }
   std::set< IngressKey > const cleaned( gone.begin(), gone.end() );
   std::erase_if( mcastRows_, [ & ]( IngressKey const & key ) { return present.contains( key ); } );
   if ( cleaned != mcastRows_ || cleaned.size() != gone.size() ) {
      fault( "the multicast hook was not told of exactly the rows that left the hardware" );
   }
   mcastRows_ = std::move( present );

   if ( running_->tables.hardware->outstanding() == 0 ) {
      running_->sm->atRest();
      tables_.checkAtRest( seen, faults_ );
      checkStatus( seen );
      checkPackets( seen );
   }
   for ( auto const & [ key, outcome ] : Support::outcomes( *running_->status ) ) {
      expect( outcome.result == NatHwResult::programmed || outcome.result == NatHwResult::failed ||
                 outcome.result == NatHwResult::rejectedMulticast,
              "no such result", key );
   }
}

// Whatever is configured is handed over as it is configured, or refused.
void World::checkHandOvers() {
   auto remembered = handedOver_;
   for ( auto const & [ rule, byPool ] : refused_ ) {
      remembered.insert_or_assign( keyOf( rule ), rule );
   }
   if ( remembered != configured() || undoing_ || inFlight_ ) {
      fault( "what is handed over is not what is configured" );
   }
   if ( running_->sm->refusedCount() != refused_.size() ) {
      fault( "wrong number of refused rules" );
   }
}

void World::checkStatus( Snapshot const & seen ) {
   std::map< AnyKey, Support::Outcome > expected;
   for ( auto const & [ rule, byPool ] : refused_ ) {
      expected.insert( { keyOf( rule ), { NatHwResult::failed, rule } } );
   }
   for ( auto const & key : programmed_ ) {
      auto const & rule = handedOver_.at( key );
      if ( isRejected( rule ) ) {
         expected.insert( { key, { NatHwResult::rejectedMulticast, rule } } );
      } else if ( auto const directions = directionsOf( rule ); !directions.empty() ) {
         bool const settled = std::ranges::all_of( directions, [ & ]( Direction const & direction ) {
            auto const row = seen.matches.find( direction.key );
            return row != seen.matches.end() && row->second.visible && row->second.state == Asic::EntryState::settled;
         } );
         expected.insert( { key, { settled ? NatHwResult::programmed : NatHwResult::failed, rule } } );
      }
   }
   auto const found = Support::outcomes( *running_->status );
   for ( auto const & [ key, outcome ] : found ) {
      // A rule that took over another's row, was never written, and whose removal the hardware refused: from then on
      // the row reports to the other. Its result goes with the replay that ends the clean-up.
      bool const mayLinger = cleaningUp_ && !expected.contains( key ) && outcome.result == NatHwResult::failed &&
                             configured().contains( key );
      auto const known = expected.find( key );
      expect( mayLinger || ( known != expected.end() && known->second == outcome ), "wrong status", key );
   }
   for ( auto const & [ key, outcome ] : expected ) {
      expect( found.contains( key ), "no status", key );
   }
   if ( !running_->sm->checkStaleStatus().empty() ) {
      fault( "a stale status at rest" );
   }
}

// What goes out is translated and comes back, wherever the rule's rows are what it wants them to be.
void World::checkPackets( Snapshot const & seen ) {
   for ( auto const & key : programmed_ ) {
      auto const & rule = handedOver_.at( key );
      auto const directions = isRejected( rule ) ? std::vector< Direction >() : directionsOf( rule );
      auto const all = [ & ]( bool ofTwins ) {
         return !directions.empty() && std::ranges::all_of( directions, [ & ]( Direction const & direction ) {
            bool const hasTwin = direction.twin == Direction::Twin::held;
            return tables_.isAsWanted( direction, ofTwins && hasTwin, seen );
         } );
      };
      if ( all( false ) ) {
         checkExchange( rule, Agent::Packet::Part::whole );
         checkExchange( rule, Agent::Packet::Part::firstFragment );
      }
      if ( config().fragmentationEnabled() && all( true ) ) {
         checkExchange( rule, Agent::Packet::Part::laterFragment );
      }
   }
}

void World::checkExchange( AnyRule const & rule, Agent::Packet::Part part ) {
   auto const exchange = exchangeOf( rule, chip_ );
   auto const key = keyOf( rule );
   auto const asPart = [ & ]( Agent::Packet packet ) {
      packet.part = part;
      if ( part == Agent::Packet::Part::laterFragment ) {
         packet.source.port = packet.destination.port = 0;
      }
      return packet;
   };
   // What leaves of a packet that meets a row of the rule. It may meet one of another rule that matches it better or as
   // well; then nothing.
   auto const walked = [ & ]( Agent::Packet const & packet ) {
      auto const passage = walk( running_->tables.all, packet, exchange.interfaces );
      expect( !passage.matches.empty(), "a packet meets no row", key );
      std::vector< Agent::Packet > leaving;
      if ( passage.matches.size() == 1 &&
           std::ranges::any_of( directionsOf( rule ), [ & ]( Direction const & direction ) {
              return passage.matches[ 0 ].key == direction.key || passage.matches[ 0 ].key == direction.twinKey;
           } ) ) {
         std::ranges::transform( passage.copies, std::back_inserter( leaving ), &Agent::Copy::packet );
         expect( !leaving.empty(), "a packet is lost", key );
      }
      return leaving;
   };
   auto const sent = asPart( exchange.sent );
   auto const out = walked( sent );
   if ( out.empty() ) {
      return;
   }
   ++exchangesChecked[ rule.index() ];
   expect( std::ranges::equal( out, exchange.received, {}, {}, asPart ), "a packet is not translated", key );
   if ( isMulticast( rule ) || out.size() != 1 ) {
      return;
   }
   auto const back = walked( replyTo( out[ 0 ] ) );
   if ( back.empty() ) {
      return;
   }
   auto const & [ destination, source ] = std::tie( back[ 0 ].destination, back[ 0 ].source );
   bool const samePorts = destination.port == sent.source.port && source.port == sent.destination.port;
   expect( destination.ip == sent.source.ip && source.ip == sent.destination.ip &&
              ( samePorts || !exchange.portsComeBack ),
           "an answer does not come back", key );
}

bool World::isAllProgrammed() const {
   return std::ranges::none_of( refused_, &Refused::byPool ) &&
          programmed_.size() + refused_.size() == configured().size() && running_->tables.failedRowCount() == 0;
}

void World::checkAgainstFresh() {
   std::ranges::copy( differencesFromFresh( *running_ ), std::back_inserter( faults_ ) );
}

void World::checkEmpty() {
   if ( !running_->isEmpty() ) {
      fault( "something is left of deleted rules" );
   }
   running_.reset();
   if ( programmersAlive != 0 ) {
      fault( "the programmer was not destroyed" );
   }
}

}  // namespace Model
