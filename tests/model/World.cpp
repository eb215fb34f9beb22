#include "World.h"

#include <algorithm>
#include <utility>

namespace Model {

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
      if ( world_.now_.inUpdate ) {
         operation();
         return;
      }
      world_.adding( rule, isUpdate );
      world_.now_.inUpdate = isUpdate;
      try {
         operation();
      } catch ( Vexa::RangeException const & error ) {
         world_.now_.inUpdate = false;
         world_.refused( error.what() == std::string_view( Pfe::NatId::rangeError ) );
         throw;
      }
      world_.now_.inUpdate = false;
      world_.accepted();
   }

   World & world_;
};

class World::ResultWatcher final {
 public:
   ResultWatcher( World & world, Pfe::NatProgrammerStatus const & status )
      : ofStatic_( world, status.staticStatus() ),
        ofTwice_( world, status.twiceStatus() ),
        ofDynamic_( world, status.dynamicStatus() ) {}

 private:
   template< class Results > struct Of final : Results::Watcher {
      Of( World & w, Results const & r ) : world( w ), results( r ) { results.watcherIs( *this ); }
      ~Of() { results.watcherDel( *this ); }
      void onKey( typename Results::Key const &, typename Results::Value const *,
                  typename Results::Value const * ) override {
         world.resultChanged();
      }
      World & world;
      Results const & results;
   };

   Of< Pfe::NatProgrammerStatus::StaticStatus > ofStatic_;
   Of< Pfe::NatProgrammerStatus::TwiceStatus > ofTwice_;
   Of< Pfe::NatProgrammerStatus::DynamicStatus > ofDynamic_;
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

bool World::isConfigured( AnyRule const & rule ) const {
   auto const rules = configured();
   auto const known = rules.find( keyOf( rule ) );
   return known != rules.end() && known->second == rule;
}

void World::adding( AnyRule const & rule, bool isUpdate ) {
   auto const key = keyOf( rule );
   auto const known = handedOver_.find( key );
   auto const nextToRetry = std::ranges::find_if( refused_, &Refused::byPool );
   expect( isConfigured( rule ), "handed over, but configured otherwise", key );
   expect( !now_.undoing, "the rule before it was not undone", key );
   expect( isUpdate == ( known != handedOver_.end() ), "add and update confused", key );
   expect( !isUpdate || haveSameRows( known->second, rule ), "update changes rows", key );
   expect( !now_.retrying || ( nextToRetry != refused_.end() && keyOf( nextToRetry->rule ) == key &&
                               !( now_.refusedAgain && isRefused( *now_.refusedAgain ) ) ),
           "retried out of turn", key );
   std::erase_if( refused_, [ & ]( Refused const & other ) { return keyOf( other.rule ) == key; } );
   handedOver_.insert_or_assign( key, rule );
   ++handOvers_[ key ];
   if ( !cleaningUp_ ) {
      now_.mustRaise =
         isOutOfRange( rule, chip_ ) ||
         ( !isRejected( rule ) && !tables_.program( directionsOf( rule ), config().fragmentationEnabled() ) );
      programmed_.insert( key );
   }
   now_.inFlight = rule;
}

bool World::haveSameRows( AnyRule const & a, AnyRule const & b ) const {
   return std::ranges::equal( directionsOf( a ), directionsOf( b ), {}, &Direction::key, &Direction::key );
}

void World::accepted() {
   expect( !now_.mustRaise, "accepted without a free id, or out of range", keyOf( *now_.inFlight ) );
   now_.mustRaise = false;
   now_.inFlight.reset();
}

void World::refused( bool byPool ) {
   expect( now_.mustRaise, "refused though ids are free", keyOf( *now_.inFlight ) );
   expect( byPool != isOutOfRange( *now_.inFlight, chip_ ), "refused for another reason", keyOf( *now_.inFlight ) );
   now_.mustRaise = false;
   now_.refusedAgain = keyOf( *now_.inFlight );
   refusedMeanwhile_ = true;
   now_.undoing = std::exchange( now_.inFlight, std::nullopt );
}

void World::deleting( AnyRule const & rule ) {
   auto const key = keyOf( rule );
   if ( now_.undoing ) {
      expect( *now_.undoing == rule, "something else is undone", key );
      handedOver_.erase( key );
      refused_.push_back( { rule, !isOutOfRange( rule, chip_ ) } );
      now_.undoing.reset();
   } else if ( now_.deletingAll ) {
      expect( isConfigured( rule ), "deleted, but configured otherwise", key );
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
   catchUp();
   now_.retrying = true;
   now_.refusedAgain.reset();
   refusedMeanwhile_ = false;
}

// What runs goes on afterwards, whatever was changed meanwhile.
void World::resultChanged() {
   if ( whenResultChanges ) {
      if ( settling_ ) {
         catchUp();
      }
      auto const before = std::exchange( now_, {} );
      whenResultChanges();
      now_ = before;
   }
}

void World::retryOver() {
   if ( !refusedMeanwhile_ && std::ranges::any_of( refused_, &Refused::byPool ) ) {
      fault( "a refused rule was not retried" );
   }
   now_.retrying = false;
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
   watcher_ = std::make_unique< ResultWatcher >( *this, *running_->status );
   freeIdsAre( freeIds_ );
   replay();
}

void World::restart() {
   watcher_.reset();
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

void World::settle() {
   settling_ = true;
   running_->settle();
   settling_ = false;
}

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
   now_.deletingAll = deletingAll_ = true;
   running_->sm->deleteAllConnections();
   now_.deletingAll = deletingAll_ = false;
}

void World::retryRefused() {
   now_.retrying = true;
   now_.refusedAgain.reset();
   refusedMeanwhile_ = false;
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

bool World::rest() {
   settling_ = true;
   bool const rests = running_->settleToRest();
   settling_ = false;
   return rests;
}

bool World::collides( AnyRule const & rule ) const {
   auto const directions = directionsOf( rule );
   return std::ranges::any_of( configured(), [ & ]( auto const & known ) {
      auto const others = directionsOf( known.second );
      return known.first != keyOf( rule ) && std::ranges::any_of( directions, [ & ]( Direction const & own ) {
                return std::ranges::find( others, own.key, &Direction::key ) != others.end();
             } );
   } );
}

void World::checkEmpty() {
   if ( !running_->isEmpty() ) {
      fault( "something is left of deleted rules" );
   }
   watcher_.reset();
   running_.reset();
   if ( programmersAlive != 0 ) {
      fault( "the programmer was not destroyed" );
   }
}

}  // namespace Model
