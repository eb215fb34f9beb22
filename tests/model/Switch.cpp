#include "Switch.h"

#include <Asic/SwTableWorkaround.h>

#include <algorithm>
#include <iterator>
#include <regex>
#include <sstream>
#include <unordered_map>

namespace Model {

using Agent::Packet;
using Netix::IpAndPort;
using Pfe::IngNatTableKey;
using PfeHelper::NatHwResult;
using Support::DynamicRule;
using Support::Lines;
using Support::StaticRule;
using Support::TwiceRule;

// --- What happens ----------------------------------------------------------------------------------------------------

template< class Key, class Entry >
using StatusWatcher = Vexa::KeyWatcher< Key, Pfe::NatProgrammerStatusEntry< Entry > >;

class Switch::Watcher final : StatusWatcher< Pfe::NatProgrammerStaticKey, Pfe::NatProgrammerStaticEntry >,
                              StatusWatcher< Pfe::NatProgrammerTwiceKey, Pfe::NatProgrammerTwiceEntry >,
                              StatusWatcher< Pfe::NatProgrammerDynamicKey, Pfe::NatProgrammerDynamicEntry > {
 public:
   Watcher( Switch & told, Pfe::NatProgrammerStatus::Ptr status ) : told_( told ), status_( std::move( status ) ) {
      status_->staticStatus().watcherIs( *this );
      status_->twiceStatus().watcherIs( *this );
      status_->dynamicStatus().watcherIs( *this );
   }
   ~Watcher() {
      status_->staticStatus().watcherDel( *this );
      status_->twiceStatus().watcherDel( *this );
      status_->dynamicStatus().watcherDel( *this );
   }

 private:
   void onKey( Pfe::NatProgrammerStaticKey const &, Pfe::NatProgrammerStaticStatusEntry const *,
               Pfe::NatProgrammerStaticStatusEntry const * ) override {
      changed();
   }
   void onKey( Pfe::NatProgrammerTwiceKey const &, Pfe::NatProgrammerTwiceStatusEntry const *,
               Pfe::NatProgrammerTwiceStatusEntry const * ) override {
      changed();
   }
   void onKey( Pfe::NatProgrammerDynamicKey const &, Pfe::NatProgrammerDynamicStatusEntry const *,
               Pfe::NatProgrammerDynamicStatusEntry const * ) override {
      changed();
   }
   void changed() {
      if ( !told_.watcherRuns_ && told_.whenStatusChanges ) {
         told_.watcherRuns_ = true;
         told_.whenStatusChanges();
         told_.watcherRuns_ = false;
      }
   }

   Switch & told_;
   Pfe::NatProgrammerStatus::Ptr status_;
};

Switch::Switch( Chip const & chip, U32 freeIds ) : freeIds_( freeIds ) {
   surroundings_.chip->talkative = chip.talkative;
   surroundings_.config->vrfLessIs( chip.vrfLess );
   surroundings_.capabilities->fullConeProgrammedIs( chip.fullConeProgrammed );
   settings_.vrfLess = chip.vrfLess;
   settings_.fullConeProgrammed = chip.fullConeProgrammed;
   settings_.l4Detected.set( 17 );
   surroundings_.mcast->accepts = []( AnyRule const & rule ) {
      auto const * const twice = std::get_if< TwiceRule >( &rule );
      auto const translated = twice ? twice->entry->connection().translatedDestination
                                    : std::get< StaticRule >( rule ).entry->connection().translated;
      return translated.ip.value() % 4 != 3;
   };
   start();
}

Switch::~Switch() = default;

void Switch::start() {
   running_ = std::make_unique< Support::Programmer >( surroundings_ );
   watcher_ = std::make_unique< Watcher >( *this, running_->status );
   multicastRows_.clear();
   surroundings_.mcast->cleaned.clear();
   freeIdsAre( freeIds_ );
   running_->sm->replay();
   watcherRuns_ = false;
}

void Switch::stop() {
   watcher_ = nullptr;
   running_ = nullptr;
}

void Switch::restart() {
   stop();
   start();
}

void Switch::freeIdsAre( U32 last ) {
   freeIds_ = last;
   if ( last == allIds ) {
      return;
   }
   running_->freeIdsAre( last );
}

void Switch::configure( AnyRule const & rule ) {
   noteHolders();
   auto const rows = rowsOf( rule );
   for ( auto const & [ key, other ] : configured() ) {
      auto const others = rowsOf( other );
      if ( key != keyOf( rule ) && std::ranges::find_first_of( others, rows ) != others.end() ) {
         return;
      }
   }
   Support::configure( config(), rule );
   noteTwins( rule );
}

void Switch::noteHolders() {
   running_->sm->natIdManager()->matchKeyToIngKeySet().forEach( [ & ]( auto const & matchKey, auto const & set ) {
      auto & known = holders_[ matchKey ];
      set.entry().forEach( [ & ]( IngNatTableKey const & key ) { known.insert( key ); } );
   } );
}

void Switch::settle() {
   noteHolders();
   auto & chip = hardware();
   std::vector< std::size_t > before;
   for ( auto const * const table : running_->tables.hardware->tables() ) {
      before.push_back( table->hardwareRowCount() );
   }
   running_->settle();
   auto had = before.begin();
   for ( auto const * const table : running_->tables.hardware->tables() ) {
      expect( table->hardwareRowCount() <= std::max( *had++, chip.capacity ), "a table holds more than it can",
              table->name() );
   }
}

void Switch::fragmentationIs( bool enabled ) {
   config().fragmentationEnabledIs( enabled );
   settings_.fragmentation = enabled;
   if ( !isCleaningUp() ) {
      running_->sm->replay();
   }
}

// Whoever is told of a result meanwhile would put in what nobody takes out again.
void Switch::startCleanup() {
   watcherRuns_ = true;
   running_->sm->deleteAllConnections();
   running_->sm->cleanupInProgressIs( true );
   watcherRuns_ = false;
}

void Switch::endCleanup() {
   running_->sm->cleanupInProgressIs( false );
   running_->sm->replay();
}

void Switch::deleteAndAddAll() {
   watcherRuns_ = true;
   running_->sm->deleteAllConnections();
   watcherRuns_ = false;
   running_->sm->addAllConnections();
}

bool Switch::turnUntilAtRest() {
   for ( int turn = 0; turn < 40; ++turn ) {
      settle();
      if ( running_->tables.hardware->outstanding() == 0 ) {
         running_->sm->atRest();
         if ( running_->tables.hardware->outstanding() == 0 ) {
            return true;
         }
      }
   }
   return false;
}

// What the pool refused is retried as long as that helps; then no rule waits for ids that are free.
void Switch::rest() {
   if ( !turnUntilAtRest() ) {
      return;
   }
   check();
   auto refused = running_->sm->refusedCount();
   for ( auto before = refused + 1; refused < before && !isCleaningUp(); refused = running_->sm->refusedCount() ) {
      for ( auto tries = before = refused; tries > 0; --tries ) {
         running_->sm->retryRefused();
      }
      if ( !turnUntilAtRest() ) {
         return;
      }
      check();
   }
}

std::string Switch::takeFaults() { return std::exchange( faults_, {} ); }

// --- Rows ------------------------------------------------------------------------------------------------------------

std::vector< IngNatTableKey > Switch::rowsOf( AnyRule const & rule ) const {
   std::vector< IngNatTableKey > rows;
   try {
      std::visit(
         [ & ]( auto const & r ) {
            using Key = std::remove_cvref_t< decltype( r.key ) >;
            using Entry = std::remove_cvref_t< decltype( *r.entry ) >;
            for ( auto const & row : ingressRowsOf( Agent::Rule< Key, Entry >{ r.key, r.entry }, settings_ ) ) {
               rows.push_back( row );
            }
         },
         rule );
   } catch ( Vexa::RangeException const & ) {
      rows.clear();  // no key can hold the rule
   }
   return rows;
}

bool Switch::isElsewhere( AnyRule const & rule ) const {
   auto const * const dynamic = std::get_if< DynamicRule >( &rule );
   return dynamic && dynamic->entry->connection().fullCone && !settings_.fullConeProgrammed;
}

namespace {

// Of text as rows describe themselves; they come again and again.
template< class Key > Key keyFrom( Asic::EntryHandle const & row ) {
   static std::unordered_map< std::string, Key > known;
   std::ostringstream out;
   row.describe( out );
   auto const text = std::move( out ).str();
   auto const found = known.find( text );
   return found != known.end() ? found->second : known.emplace( text, Vexa::parseWhole< Key >( text ) ).first->second;
}

template< class Function > void forEachRow( Asic::SwTableBase & table, Function && function ) {
   table.forEachRow( []( void * context, Asic::Row & row ) { ( *static_cast< Function * >( context ) )( row ); },
                     &function );
}

}  // namespace

bool Switch::isRejected( AnyRule const & rule ) const {
   auto const rows = rowsOf( rule );
   return !rows.empty() && isMulticast( rows[ 0 ] ) && !surroundings_.mcast->accepts( rule );
}

Switch::Rows Switch::rowsLeft( Support::Programmer const & programmer ) {
   Rows rows;
   programmer.tables.all.forEachIngress( [ & ]( auto & table ) {
      forEachRow( table, [ & ]( Asic::Row & row ) {
         IngNatTableKey const key( keyFrom< typename std::remove_cvref_t< decltype( table ) >::Key >( row ) );
         rows.matches.emplace( key, &row );
         rows.matchOf.emplace( &row, key );
      } );
   } );
   programmer.tables.all.forEachEgress( [ & ]( auto & table ) {
      forEachRow( table, [ & ]( Asic::Row & row ) {
         auto const key = keyFrom< typename std::remove_cvref_t< decltype( table ) >::Key >( row );
         auto const * const entry = table.entry( key );
         bool namesPorts = false;
         if constexpr ( requires { entry->srcPort; } ) {
            namesPorts = entry && ( entry->srcPort != 0 || entry->dstPort != 0 );
         }
         rows.rewrites.emplace( &row, Rows::Rewrite{ &row, key.natId.value(), namesPorts } );
      } );
   } );
   auto const & ids = programmer.natIdInfo->matchKeyToNatId();
   programmer->natIdManager()->matchKeyToIngKeySet().forEach( [ & ]( auto const & matchKey, auto const & set ) {
      auto const * const id = ids.find( matchKey );
      set.entry().forEach( [ & ]( IngNatTableKey const & key ) {
         rows.natIdOf[ key ] = id ? id->value() : 0;
         rows.ids.insert( id ? id->value() : 0 );
         if ( id && !isFragment( key ) ) {
            rows.idsOfWholePackets.insert( id->value() );
         }
      } );
   } );
   return rows;
}

// --- What holds at every moment --------------------------------------------------------------------------------------

void Switch::check() {
   noteHolders();
   auto & tables = running_->tables;
   if ( !hardware().talkative ) {
      auto const rows = rowsLeft( *running_ );
      for ( auto const & [ key, row ] : rows.matches ) {
         for ( auto * const version : { row->newest, row->inHardware } ) {
            if ( version ) {
               checkRow( *row, version, rows );
            }
         }
         expect( row->newest || row->inHardware || row->outstanding != 0, "nothing is left of it but a holder", key );
         bool const isQuiet = row->newest && row->outstanding == 0 && row->state() == Asic::EntryState::settled;
         expect( !isQuiet || row->newest == row->inHardware, "settled, but the hardware holds something else", key );
      }
      checkIds( rows );
      checkMulticastHook( rows );
   }
   if ( tables.hardware->outstanding() == 0 ) {
      running_->sm->atRest();
   }
   if ( tables.hardware->outstanding() == 0 ) {
      checkAtRest( rowsLeft( *running_ ) );
   }
}

void Switch::checkRow( Asic::Row const & row, Asic::Version * version, Rows const & rows ) {
   auto const & key = rows.matchOf.at( &row );
   auto const & entry = *row.referringEntryOf( *version );
   bool const held = version == row.inHardware;
   std::size_t rewrites = 0;
   entry.egrHdl.forEach( [ & ]( Asic::EntryHandle::PtrConst const & handle, bool failureCounts ) {
      ++rewrites;
      auto const found = rows.rewrites.find( handle.ptr() );
      expect( found != rows.rewrites.end() && found->second.row->newest, "its rewrite is not in its table", key );
      expect( failureCounts, "a failure of its rewrite would not be heard of", key );
      expect( !held || handle->heldByHardware(), "in the hardware without its rewrite", key );
      auto const id = rows.natIdOf.find( key );
      expect( found == rows.rewrites.end() || ( id != rows.natIdOf.end() && id->second == found->second.natId ),
              "its rewrite has another NAT id than it holds", key );
   } );
   expect( rewrites != 0, "it has no rewrite", key );
   if ( entry.fragHdl != Asic::SwTableWorkaround::dontCareHandle( 0 ) ) {
      auto const twin = rows.matchOf.find( entry.fragHdl.ptr() );
      expect( twin != rows.matchOf.end() && isFragment( twin->second ), "its twin is not in the table", key );
      expect( !held || entry.fragHdl->heldByHardware() || entry.fragHdl->state() != Asic::EntryState::settled,
              "in the hardware without its twin", key );
   }
}

// Ids are held by the rows of which anything is left, are on disk as long, and are taken in the pool.
void Switch::checkIds( Rows const & rows ) {
   for ( auto const & [ key, row ] : rows.matches ) {
      expect( rows.natIdOf.contains( key ), "a row holds no NAT id", key );
   }
   for ( auto const & [ key, id ] : rows.natIdOf ) {
      expect( rows.matches.contains( key ), "a NAT id is held by a row that is gone", key );
      expect( id != 0, "a NAT id that is held is not persisted", key );
   }
   std::set< U32 > persisted;
   running_->natIdInfo->matchKeyToNatId().forEach( [ & ]( Pfe::NatMatchKey const & matchKey, Pfe::NatId id ) {
      expect( persisted.insert( id.value() ).second, "a NAT id is given twice", matchKey );
      expect( rows.ids.contains( id.value() ), "a NAT id that nobody holds is persisted", matchKey );
   } );
   persisted.insert( 0 );
   auto const last = std::max( std::min( freeIds_, 500U ), *persisted.rbegin() );
   for ( U32 id = 0; id <= last; ++id ) {
      bool const taken = running_->sm->natIdManager()->natIdBitmap()->bit( id );
      expect( taken == persisted.contains( id ) || ( taken && id > freeIds_ ), "the pool is wrong about id", id );
   }
}

// It is told of every row that left the hardware; some have come back since.
void Switch::checkMulticastHook( Rows const & rows ) {
   std::set< IngNatTableKey > present;
   for ( auto const & [ key, row ] : rows.matches ) {
      if ( isMulticast( key ) ) {
         present.insert( key );
      }
   }
   for ( auto const & key : std::exchange( surroundings_.mcast->cleaned, {} ) ) {
      multicastRows_.erase( key );
   }
   for ( auto const & key : multicastRows_ ) {
      expect( present.contains( key ), "the multicast hook is not told of a row that is gone", key );
   }
   multicastRows_ = std::move( present );
}

// --- What holds at rest ----------------------------------------------------------------------------------------------

void Switch::checkAtRest( Rows const & rows ) {
   auto const outcomes = Support::outcomes( *running_->status );
   std::set< IngNatTableKey > wanted;
   std::size_t refused = 0;
   for ( auto const & [ key, rule ] : configured() ) {
      auto const own = rowsOf( rule );
      auto const visible = std::ranges::count_if( own, [ & ]( auto const & row ) { return rows.isVisible( row ); } );
      auto const settled = std::ranges::count_if( own, [ & ]( auto const & row ) { return rows.isSettled( row ); } );
      auto const found = outcomes.find( key );
      auto const name = Support::textOf( key );
      if ( found != outcomes.end() ) {
         expect( found->second.rule == rule, "a result of another entry", name );
      }
      if ( isElsewhere( rule ) ) {
         expect( visible == 0 && found == outcomes.end(), "programmed though it is done elsewhere", name );
      } else if ( isCleaningUp() ) {
         expect( visible == 0, "programmed during a clean-up", name );
      } else if ( isRejected( rule ) ) {
         expect( visible == 0 && found != outcomes.end() && found->second.result == NatHwResult::rejectedMulticast,
                 "not rejected", name );
      } else {
         bool const isProgrammed = !own.empty() && settled == static_cast< std::ptrdiff_t >( own.size() );
         expect( found != outcomes.end() &&
                    found->second.result == ( isProgrammed ? NatHwResult::programmed : NatHwResult::failed ),
                 "wrong result", name );
         expect( visible == 0 || visible == static_cast< std::ptrdiff_t >( own.size() ), "programmed by half", name );
         wanted.insert( own.begin(), own.end() );
         refused += visible == 0;
         if ( isProgrammed && !hardware().talkative ) {
            checkPacket( rule, Packet::Part::whole );
            checkPacket( rule, Packet::Part::firstFragment );
            checkPacket( rule, Packet::Part::laterFragment );
         }
      }
   }
   for ( auto const & [ key, outcome ] : outcomes ) {
      expect( configured().contains( key ), "a result of no rule", Support::textOf( key ) );
   }
   if ( hardware().talkative ) {
      return;
   }
   expect( isCleaningUp() || refused == running_->sm->refusedCount(), "another number of rules is refused", refused );
   expect( running_->sm->checkStaleStatus().empty(), "a stale status at rest", 0 );

   // No row of no rule, no twin and no rewrite of no row.
   std::set< Asic::EntryHandle const * > held;
   for ( auto const & [ key, row ] : rows.matches ) {
      expect( !row->newest || isFragment( key ) || wanted.contains( key ), "a row of no rule", key );
      for ( auto * const version : { row->newest, row->inHardware } ) {
         if ( version ) {
            auto const & entry = *row->referringEntryOf( *version );
            entry.egrHdl.forEach( [ & ]( auto const & handle, bool ) { held.insert( handle.ptr() ); } );
            held.insert( entry.fragHdl.ptr() );
         }
      }
   }
   for ( auto const & [ key, row ] : rows.matches ) {
      expect( !isFragment( key ) || held.contains( row ), "a twin of no row", key );
   }
   for ( auto const & [ handle, rewrite ] : rows.rewrites ) {
      expect( held.contains( handle ), "a rewrite of no row, NAT id", rewrite.natId );
   }
}

}  // namespace Model
