#include "agent/host/Host.h"

#include "agent/basics/UnusableInput.h"

#include <Vexa/Assert.h>

#include <algorithm>
#include <utility>

namespace Agent {

namespace {

template< class Status, class Key > PfeHelper::NatHwResult const * resultIn( Status const & status, Key const & key ) {
   auto const * const found = status.find( key );
   return found ? &found->result : nullptr;
}

}  // namespace

class Host::L4Detection final : public Pfe::DynamicNatProgrammerHelper {
 public:
   bool getL4ProtocolDetected( U8 proto ) override { return detected[ proto ]; }
   std::bitset< 256 > detected;
};

Host::Host( Configuration configuration, std::shared_ptr< Asic::Chip > chip, NatIdStore * store,
            KernelChip * kernelChip )
   : configuration_( std::move( configuration ) ),
     store_( store ),
     chip_( std::move( chip ) ),
     kernelChip_( kernelChip ),
     hardware_( Orla::make< Asic::Hardware >() ),
     tables_( hardware_ ),
     status_( Orla::make< Pfe::NatProgrammerStatus >() ),
     natIdInfo_( Orla::make< Pfe::NatIdInfo >() ),
     capabilities_( Orla::make< Ip::Nat::HwCapabilities >() ),
     replications_( Orla::make< McastReplications >() ),
     needs_( std::make_shared< NatIdNeeds >( replications_ ) ),
     detection_( Orla::make< L4Detection >() ),
     profiles_( Orla::make< Pfe::NatVlanProfileConfig >() ) {
   hardware_->chipIs( chip_ );
   if ( store_ ) {
      store_->natIdInfoIs( natIdInfo_ );
   }
   programmer_ = Pfe::natSwTableProgrammerSmFactory( configuration_.rules, status_, capabilities_, natIdInfo_ );
   tables_.attachTo( *programmer_ );
   programmer_->aclNameIdTableIs( Orla::make< Pfe::NatAclNameIdTable >() );
   programmer_->natTrapConfigIs( Orla::make< Pfe::NatTrapConfig >() );
   programmer_->natProfileConfigIs( Orla::make< Pfe::NatProfileConfig >() );
   programmer_->mcastProgrammerHelperIs( replications_ );
   programmer_->dynamicNatProgrammerHelperIs( detection_ );
   programmer_->natVlanProfileConfigIs( profiles_ );
   programmer_->programmerModeIs( Pfe::NatBaseProgrammerSm::Mode::tables );
   programmer_->natIdPoolIs( natIdInfo_ );
   programmer_->natIdDemandIs( needs_ );
   settingsAre( configuration_.settings );
   for ( auto const & [ vlan, profile ] : configuration_.profiles ) {
      profiles_->vlanProfileIs( vlan, profile );
   }
   for ( auto const & connection : configuration_.connections ) {
      replications_->groupIs( connection, connection.group );
   }
}

// Rows hold their responses, these the programmer, and that the tables.
Host::~Host() {
   tables_.forEach( []( auto & table ) { table.clear(); } );
}

void Host::program() {
   // A new NAT id manager gives away what the replay does not claim: also ids of rows that a failed rewrite keeps.
   tables_.forEach( []( auto const & table ) { VEXA_ASSERT( table.failedRowCount() == 0 ); } );
   VEXA_ASSERT( hardware_->outstanding() == 0 );
   programmer_->initializedIs( true );
   replay();
   conclude();
   if ( chip_ ) {
      chip_->sweep();
   }
}

void Host::replay() {
   programmer_->replay();
   finish();
}

// --- Another configuration -------------------------------------------------------------------------------------------

namespace {

// The connections of a configuration by their keys.
class ConnectionsByKey {
 public:
   explicit ConnectionsByKey( std::vector< Connection > const & connections ) {
      for ( auto const & connection : connections ) {
         std::visit( [ & ]( auto const & rule ) { placeOf( rule.key ) = &connection; }, connection.rule );
      }
   }

   // Null when there is none with the key.
   template< class Key > Connection const * find( Key const & key ) const {
      auto const * const found = std::get< Places< Key > >( places_ ).find( key );
      return found ? *found : nullptr;
   }

 private:
   template< class Key > using Places = Vexa::HashMap< Key, Connection const *, 0x61C88647 >;
   template< class Key > Connection const *& placeOf( Key const & key ) {
      return std::get< Places< Key > >( places_ ).refOrEmplace( key ).first;
   }

   std::tuple< Places< Pfe::NatProgrammerStaticKey >, Places< Pfe::NatProgrammerTwiceKey >,
               Places< Pfe::NatProgrammerDynamicKey > >
      places_;
};

bool isSameGroup( Connection const & a, Connection const & b ) {
   return bool( a.group ) == bool( b.group ) && ( !a.group || *a.group == *b.group );
}

// Whether a rule that stays would get other copies.
bool changesCopies( Configuration const & from, ConnectionsByKey const & to ) {
   return std::ranges::any_of( from.connections, [ & ]( Connection const & connection ) {
      return std::visit(
         [ & ]( auto const & rule ) {
            auto const * const next = to.find( rule.key );
            return next && !isSameGroup( connection, *next );
         },
         connection.rule );
   } );
}

bool isSame( Pfe::NatProgrammerTrapEntry const & a, Pfe::NatProgrammerTrapEntry const & b ) {
   auto const & left = a.rule();
   auto const & right = b.rule();
   return a.vrfId() == b.vrfId() && left.ruleId == right.ruleId && left.poolValue == right.poolValue &&
          left.trapAll == right.trapAll && left.priority == right.priority && left.action == right.action &&
          std::equal( left.trapFilter.begin(), left.trapFilter.end(), right.trapFilter.begin(),
                      right.trapFilter.end() );
}

// With rules of its own.
Configuration copyOf( Configuration const & configuration ) {
   auto copy = configuration;
   copy.rules = Orla::make< Pfe::NatProgrammerConfig >();
   copy.rules->fragmentationEnabledIs( configuration.settings.fragmentation );
   copy.rules->vrfLessIs( configuration.settings.vrfLess );
   for ( auto const & connection : configuration.connections ) {
      std::visit( [ & ]( auto const & rule ) { configure( *copy.rules, rule ); }, connection.rule );
   }
   for ( auto const & trap : configuration.traps ) {
      copy.rules->trapEntryIs( trap.key, trap.entry );
   }
   return copy;
}

}  // namespace

void Host::reload( Configuration next ) {
   if ( kernelChip_ ) {
      kernelChip_->portsOf( next );
   }
   if ( isDeleted() ) {
      kept_ = std::move( next );
      return;
   }
   resume();
   requireStore();
   auto settings = next.settings;
   settings.fragmentation = configuration_.settings.fragmentation;
   if ( settings != configuration_.settings || changesCopies( configuration_, ConnectionsByKey( next.connections ) ) ) {
      takeOut();
      kept_ = std::move( next );
      putBack();
      return conclude();
   }
   bool const replays = next.settings.fragmentation != settings.fragmentation;
   take( std::move( next ) );
   if ( replays ) {
      programmer_->replay();
   } else if ( !shared_.empty() ) {
      for ( auto const & connection : configuration_.connections ) {
         if ( hasRows( connection ) && shared_.takeOver( connection, configuration_.settings ) ) {
            handOver( connection );
         }
      }
   }
   if ( runUntilAtRest() ) {
      hardware_->retryFailed();
   }
   finish();
   conclude();
}

bool Host::hasRows( Connection const & connection ) const {
   auto const rows = ingressRowsOf( connection, configuration_.settings );
   return std::ranges::all_of( rows, [ & ]( Pfe::IngNatTableKey const & row ) {
      bool isPresent = false;
      tables_.forEachIngress( [ & ]( auto const & table ) {
         using Key = typename std::remove_cvref_t< decltype( table ) >::Key;
         auto const * const key = std::get_if< Key >( &row.storage() );
         isPresent = isPresent || ( key && table.entryHandle( *key ) );
      } );
      return isPresent;
   } );
}

void Host::handOver( Connection const & connection ) {
   struct HandOver {
      Pfe::NatSwTableProgrammerSm & programmer;
      void operator()( StaticRule const & rule ) const { programmer.handleProgrammerStaticConfig( rule.key ); }
      void operator()( TwiceRule const & rule ) const { programmer.handleProgrammerTwiceConfig( rule.key ); }
      void operator()( DynamicRule const & rule ) const { programmer.handleProgrammerDynamicConfig( rule.key ); }
   };
   std::visit( HandOver{ *programmer_ }, connection.rule );
}

void Host::take( Configuration next ) {
   auto const rules = configuration_.rules;
   auto const settings = configuration_.settings;
   shared_ = {};
   twins_.reset();
   settingsAre( next.settings );
   for ( auto const & connection : configuration_.connections ) {
      std::visit(
         [ & ]( auto const & rule ) {
            auto const stays = configured( *next.rules, rule.key );
            if ( !stays || !stays->derivesSameRows( *rule.entry ) ) {
               shared_.leave( connection, settings, *programmer_->natIdManager() );
               unconfigure( *rules, rule );
               replications_->groupIs( connection, nullptr );
            }
         },
         connection.rule );
   }
   for ( auto & connection : next.connections ) {
      std::visit(
         [ & ]( auto & rule ) {
            replications_->groupIs( connection, connection.group );
            auto const present = configured( *rules, rule.key );
            if ( present && isSame( { rule.key, present }, rule ) ) {
               rule.entry = present;
            } else {
               configure( *rules, rule );
            }
         },
         connection.rule );
   }
   for ( auto const & trap : configuration_.traps ) {
      auto const stays = next.rules->trapEntry( trap.key );
      if ( !stays || !isSame( *stays, *trap.entry ) ) {
         rules->trapEntryDel( trap.key );
      }
   }
   for ( auto const & trap : next.traps ) {
      if ( !rules->trapEntry().has( trap.key ) ) {
         rules->trapEntryIs( trap.key, trap.entry );
      }
   }
   for ( auto const & [ vlan, profile ] : configuration_.profiles ) {
      if ( !next.profiles.contains( vlan ) ) {
         profiles_->vlanProfileDel( vlan );
      }
   }
   for ( auto const & [ vlan, profile ] : next.profiles ) {
      if ( profiles_->vlanProfile().valueOr( vlan ) != profile || !profiles_->vlanProfile().has( vlan ) ) {
         profiles_->vlanProfileIs( vlan, profile );
      }
   }
   configuration_ = std::move( next );
   configuration_.rules = rules;
}

void Host::settingsAre( Settings const & settings ) {
   configuration_.rules->fragmentationEnabledIs( settings.fragmentation );
   configuration_.rules->vrfLessIs( settings.vrfLess );
   if ( kernelChip_ && settings.vrfLess != configuration_.settings.vrfLess ) {
      kernelChip_->vrfLessIs( settings.vrfLess );
   }
   capabilities_->fullConeProgrammedIs( settings.fullConeProgrammed );
   detection_->detected = settings.l4Detected;
   needs_->settingsAre( settings );
}

void Host::learn( std::vector< Pfe::NatProgrammerDynamicKey > const & gone, std::vector< DynamicRule > const & come ) {
   if ( isDeleted() && !kept_ ) {
      kept_ = copyOf( configuration_ );
   }
   auto & configuration = isDeleted() ? *kept_ : configuration_;
   bool const sharesTwins = !isDeleted() && configuration_.settings.fragmentation;
   if ( sharesTwins && !twins_ && !gone.empty() ) {
      twins_.emplace( configuration_ );
   }
   std::vector< DynamicRule > went;
   for ( auto const & key : gone ) {
      if ( sharesTwins && configured( *configuration_.rules, key ) ) {
         went.push_back( { key, configured( *configuration_.rules, key ) } );
         twins_->del( went.back() );
      }
      remove( configuration, key );
   }
   for ( auto const & rule : come ) {
      add( configuration, { .rule = rule } );
      if ( sharesTwins && twins_ ) {
         twins_->add( rule );
      }
   }
   if ( isDeleted() ) {
      return;
   }
   for ( auto const & rule : went ) {
      for ( auto const & heir : twins_->heirsOf( rule, *configuration_.rules ) ) {
         programmer_->handleProgrammerDynamicConfig( heir );
      }
   }
   finish();
}

// --- All at once -----------------------------------------------------------------------------------------------------

bool Host::deleteAll() {
   if ( isDeleted() ) {
      return false;
   }
   resume();
   requireStore();
   takeOut();
   conclude();
   return true;
}

bool Host::addAll() {
   if ( !isDeleted() ) {
      return false;
   }
   putBack();
   conclude();
   return true;
}

// Gives ids back and takes none, so no store keeps it from its end.
void Host::takeOut() {
   programmer_->deleteAllConnections();
   programmer_->cleanupInProgressIs( true );
   runUntilAtRest();
}

void Host::putBack() {
   if ( kept_ ) {
      // While static and twice rules are not programmed: the replay hands everything over.
      take( *std::exchange( kept_, std::nullopt ) );
   }
   programmer_->cleanupInProgressIs( false );
   replay();
}

void Host::retry() {
   resume();
   requireStore();
   if ( kernelChip_ ) {
      kernelChip_->repair();
   }
   hardware_->retryFailed();
   finish();
   conclude();
}

// --- Results ---------------------------------------------------------------------------------------------------------

PfeHelper::NatHwResult const * Host::resultOf( Connection const & connection ) const {
   struct Look {
      Pfe::NatProgrammerStatus const & status;
      auto operator()( StaticRule const & rule ) const { return resultIn( status.staticStatus(), rule.key ); }
      auto operator()( TwiceRule const & rule ) const { return resultIn( status.twiceStatus(), rule.key ); }
      auto operator()( DynamicRule const & rule ) const { return resultIn( status.dynamicStatus(), rule.key ); }
   };
   return std::visit( Look{ *status_ }, connection.rule );
}

bool Host::isComplete() const {
   bool complete = true;
   tables_.forEach( [ & ]( auto const & table ) { complete = complete && table.failedRowCount() == 0; } );
   return complete && std::ranges::all_of( configuration_.connections, [ & ]( Connection const & connection ) {
             auto const * const result = resultOf( connection );
             return ( result && *result == PfeHelper::NatHwResult::programmed ) ||
                    ( !isDeleted() && isTranslatedElsewhere( connection, configuration_.settings ) );
          } );
}

// --- The activity ----------------------------------------------------------------------------------------------------

// An id is on disk before any row that uses it can settle.
bool Host::runUntilAtRest() {
   ++changes_;
   do {
      if ( store_ && store_->hasNewIds() && !commit() ) {
         return false;
      }
      hardware_->settle();
      ++turns_;
   } while ( hardware_->outstanding() != 0 );
   programmer_->atRest();
   return true;
}

bool Host::commit() {
   try {
      store_->commit();
      storeFault_.clear();
   } catch ( UnusableInput const & fault ) {
      storeFault_ = fault.what();
   }
   return storeFault_.empty();
}

void Host::conclude() {
   if ( kernelChip_ ) {
      kernelChip_->trapsAre( *programmer_->natTrapConfig() );
   }
   if ( store_ && !store_->hasNewIds() ) {
      commit();
   }
   requireStore();
}

void Host::resume() {
   if ( !storeFault_.empty() ) {
      finish();
      if ( !store_->hasNewIds() ) {
         commit();
      }
   }
}

void Host::requireStore() const {
   if ( store_ && store_->hasNewIds() ) {
      throw UnusableInput( storeFault_ );
   }
}

// What is handed over finds its ids, so every pass leaves fewer that wait.
void Host::finish() {
   if ( !runUntilAtRest() ) {
      return;
   }
   for ( auto left = programmer_->refusedCount(); left != 0 && programmer_->retryRefused() != 0; ) {
      if ( !runUntilAtRest() ) {
         return;
      }
      auto const now = programmer_->refusedCount();
      if ( now >= left ) {
         return;
      }
      left = now;
   }
}

}  // namespace Agent
