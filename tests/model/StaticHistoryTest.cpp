// Random histories of static rules. RC_PARAMS="max_success=5000" makes a longer run of it, RC_PARAMS="seed=..." the
// same one again; a failing history is printed shrunk, and what `reproduce=` it names can be run with
// MODEL_TRACE=8, which writes the programmer's traces between the steps.
#include "StaticWorld.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <array>
#include <cstdlib>
#include <iostream>
#include <sstream>

namespace {

using Ip::Nat::NatTarget;
using Model::Rule;
using Model::StaticWorld;
using Support::StaticEntry;
using Support::StaticFields;
using Support::StaticKey;

enum class Event : U8 {
   add,
   touch,
   update,
   change,
   remove,
   moveRows,
   addAgain,
   settle,
   rest,
   faults,
   retryFailed,
   fragmentation,
   startCleanup,
   endCleanup,
   replay,
   pool,
   restart,
};

struct EventWeight {
   Event event;
   char const * name;
   unsigned weight;
};
constexpr std::array eventWeights{ EventWeight{ Event::add, "add", 24 },
                                   EventWeight{ Event::touch, "touch", 2 },
                                   EventWeight{ Event::update, "update", 8 },
                                   EventWeight{ Event::change, "change", 10 },
                                   EventWeight{ Event::remove, "remove", 9 },
                                   EventWeight{ Event::moveRows, "moveRows", 4 },
                                   EventWeight{ Event::addAgain, "addAgain", 4 },
                                   EventWeight{ Event::settle, "settle", 14 },
                                   EventWeight{ Event::rest, "rest", 5 },
                                   EventWeight{ Event::faults, "faults", 6 },
                                   EventWeight{ Event::retryFailed, "retryFailed", 3 },
                                   EventWeight{ Event::fragmentation, "fragmentation", 2 },
                                   EventWeight{ Event::startCleanup, "startCleanup", 2 },
                                   EventWeight{ Event::endCleanup, "endCleanup", 3 },
                                   EventWeight{ Event::replay, "replay", 2 },
                                   EventWeight{ Event::pool, "pool", 2 },
                                   EventWeight{ Event::restart, "restart", 1 } };

// One thing that happens. What exactly is drawn from `choice` when it happens, so that steps can be left out of a
// history.
struct Step {
   Event event = Event::settle;
   U32 choice = 0;
};

std::ostream & operator<<( std::ostream & out, Step const & step ) {
   return out << eventWeights[ static_cast< std::size_t >( step.event ) ].name << ' ' << step.choice;
}

rc::Gen< Step > anyStep() {
   static auto const drawn = [] {
      std::vector< Event > events;
      for ( auto const & [ event, name, weight ] : eventWeights ) {
         events.insert( events.end(), weight, event );
      }
      return events;
   }();
   return rc::gen::map( rc::gen::pair( rc::gen::elementOf( drawn ), rc::gen::inRange< U32 >( 0, 1'000'000 ) ),
                        []( std::pair< Event, U32 > const & p ) {
                           return Step{ p.first, p.second };
                        } );
}

// --- Rules out of a small world, so that they meet -------------------------------------------------------------------

class Choices {
 public:
   explicit Choices( U32 seed ) : random_( seed ) {}
   U32 below( U32 count ) { return random_() % count; }
   bool oneIn( U32 count ) { return below( count ) == 0; }
   template< class T > T of( std::initializer_list< T > values ) {
      return *( values.begin() + below( static_cast< U32 >( values.size() ) ) );
   }

 private:
   std::minstd_rand random_;
};

Netix::IpAndPort pairIn( char const * network, Choices & choices ) {
   return { Netix::IpAddr( Support::ip( network ).value() + 1 + choices.below( 3 ) ),
            choices.of< U16 >( { 0, 80, 80, 81 } ) };
}

StaticFields fieldsOf( StaticEntry const & entry ) {
   return { entry->vrfId(),   entry->vlanId(),  entry->intfQualifier(),   entry->connection(),
            entry->nextHop(), entry->aclName(), entry->filtersDisabled(), entry->filters() };
}

StaticEntry entryOf( StaticFields fields ) {
   return Orla::make< Pfe::NatProgrammerStaticEntry const >( std::move( fields ) );
}

// The fields that an update in place may change.
void varyWhatRowsCarry( StaticFields & fields, Choices & choices ) {
   switch ( choices.below( 4 ) ) {
   case 0: break;  // nothing changes
   case 1:
      fields.nextHop = nullptr;
      if ( !choices.oneIn( 3 ) ) {
         fields.nextHop = Orla::make< Pfe::NatNextHopId >( choices.below( 3 ) );
      } else if ( choices.oneIn( 2 ) ) {
         fields.nextHop = Orla::make< Pfe::NatNextHopInfo >();
      }
      break;
   case 2: fields.aclName = choices.of( { "", "a", "b", "c" } ); break;
   case 3:
      fields.filtersDisabled = choices.oneIn( 3 );
      fields.filters.clear();
      for ( U32 i = choices.below( 3 ); i > 0; --i ) {
         fields.filters[ choices.below( 10 ) ].sourcePort = static_cast< U16 >( i );
      }
      break;
   }
}

// A field that decides keys, or whether rows exist.
void varyWhatDecidesRows( StaticFields & fields, Choices & choices ) {
   auto & connection = fields.connection;
   switch ( choices.below( 7 ) ) {
   case 0:
      connection.translated = pairIn( connection.translated.ip.isMulticast() ? "239.1.0.0" : "192.0.2.0", choices );
      break;
   case 1:
      connection.target = connection.target == NatTarget::source ? NatTarget::destination : NatTarget::source;
      break;
   case 2: connection.protocol = choices.of< U8 >( { 0, 6, 17 } ); break;
   case 3: fields.vrfId = choices.of< U32 >( { 0, 7 } ); break;
   case 4: fields.vlanId = choices.of< U16 >( { 0, 10 } ); break;
   case 5: fields.intfQualifier = choices.of< U16 >( { 5, 6 } ); break;
   case 6: connection.translated.port = choices.of< U16 >( { 0, 80, 8080 } ); break;
   }
}

Rule anyRule( Choices & choices ) {
   bool const multicast = choices.oneIn( 5 );
   auto const keyPair = pairIn( multicast ? "239.0.0.0" : "10.0.0.0", choices );
   StaticFields fields{ .intfQualifier = 5,
                        .connection = { .translated = pairIn( multicast ? "239.1.0.0" : "192.0.2.0", choices ),
                                        .target = choices.of( { NatTarget::source, NatTarget::destination } ),
                                        .protocol = 6 } };
   if ( choices.oneIn( 2 ) ) {
      varyWhatRowsCarry( fields, choices );
   }
   StaticKey const key{ Support::intf( choices.of( { "ethernet1", "ethernet1", "vlan10" } ) ),
                        { choices.oneIn( 4 ) ? "k" : "", keyPair.ip, keyPair.port } };
   return { key, entryOf( fields ) };
}

// --- Histories -------------------------------------------------------------------------------------------------------

class History {
 public:
   explicit History( U32 freeIds ) : world_( freeIds ) {
      if ( auto const * const level = std::getenv( "MODEL_TRACE" ) ) {
         Trace::enabledLevelIs( static_cast< U8 >( std::atoi( level ) ) );
      }
   }

   void happens( Step const & step ) {
      if ( Trace::enabledLevel != 0 ) {
         std::cerr << "--- " << step << '\n';
      }
      Choices choices( step.choice + 1 );
      switch ( step.event ) {
      case Event::add: configureIfFree( anyRule( choices ) ); break;
      case Event::touch:
      case Event::update:
      case Event::change:
      case Event::remove:
      case Event::moveRows:
      case Event::addAgain:
         if ( auto const rule = anyConfigured( choices ) ) {
            happensTo( *rule, step.event, choices );
         }
         break;
      case Event::settle: world_.settle(); break;
      case Event::rest: rest(); break;
      case Event::faults: faults( choices ); break;
      case Event::retryFailed: world_.retryFailed(); break;
      case Event::fragmentation: world_.fragmentationIs( !world_.config().fragmentationEnabled() ); break;
      case Event::startCleanup:
         if ( !world_.isCleaningUp() ) {
            world_.startCleanup();
         }
         break;
      case Event::endCleanup:
         if ( world_.isCleaningUp() ) {
            world_.endCleanup();
         }
         break;
      case Event::replay:
         if ( !world_.isCleaningUp() ) {
            world_.replay();
         }
         break;
      case Event::pool: world_.freeIdsAre( choices.of< U32 >( { 3, 6, 12, 60 } ) ); break;
      case Event::restart: world_.restart(); break;
      }
      world_.check();
      rcAssertNoFaults();
   }

   // Everything heals: nothing fails any more, and all rules are programmed; then they all go.
   void ends() {
      world_.hardware() = Model::FaultyHardware();
      world_.freeIdsAre( Model::ExpectedTables::largestId );
      if ( world_.isCleaningUp() ) {
         world_.endCleanup();
      }
      world_.retryFailed();
      world_.replay();
      RC_ASSERT( world_.rest() );
      world_.check();
      rcAssertNoFaults();
      RC_ASSERT( world_.isAllProgrammed() );
      while ( auto const rule = firstConfigured() ) {
         world_.unconfigure( rule->key );
      }
      RC_ASSERT( world_.rest() );
      world_.check();
      world_.checkEmpty();
      rcAssertNoFaults();
   }

 private:
   void rcAssertNoFaults() {
      auto const faults = world_.takeFaults();
      if ( !faults.empty() ) {
         std::ostringstream text;
         for ( auto const & fault : faults ) {
            text << fault << '\n';
         }
         RC_FAIL( text.str() );
      }
   }

   std::optional< Rule > firstConfigured() const {
      auto const & rules = world_.config().staticEntry();
      return rules.count() == 0 ? std::nullopt : std::optional( Rule{ rules.begin()->first, rules.begin()->second } );
   }

   std::optional< Rule > anyConfigured( Choices & choices ) const {
      std::map< StaticKey, StaticEntry > rules( world_.config().staticEntry().begin(),
                                                world_.config().staticEntry().end() );
      if ( rules.empty() ) {
         return std::nullopt;
      }
      auto const & [ key, entry ] = *std::next( rules.begin(), choices.below( static_cast< U32 >( rules.size() ) ) );
      return Rule{ key, entry };
   }

   void configureIfFree( Rule const & rule ) {
      if ( !world_.collides( rule ) ) {
         world_.configure( rule );
      }
   }

   void happensTo( Rule rule, Event event, Choices & choices ) {
      auto fields = fieldsOf( rule.entry );
      switch ( event ) {
      case Event::touch:
         // A rule that stays refused during a clean-up would keep its result with nothing to tell why.
         if ( !( world_.isCleaningUp() && world_.isRefused( rule.key ) ) ) {
            world_.configure( rule );
         }
         break;
      case Event::update:
         varyWhatRowsCarry( fields, choices );
         world_.configure( { rule.key, entryOf( fields ) } );
         break;
      case Event::change:
         varyWhatDecidesRows( fields, choices );
         configureIfFree( { rule.key, entryOf( fields ) } );
         break;
      case Event::remove: world_.unconfigure( rule.key ); break;
      case Event::moveRows: {
         world_.unconfigure( rule.key );
         // The same rows in the other form, or the same form under another key.
         if ( choices.oneIn( 2 ) ) {
            auto & connection = fields.connection;
            Netix::IpAndPort const keyPair{ rule.key.key.ip, rule.key.key.port };
            rule.key.key.ip = connection.translated.ip;
            rule.key.key.port = connection.translated.port;
            connection.translated = keyPair;
            connection.target = connection.target == NatTarget::source ? NatTarget::destination : NatTarget::source;
         } else {
            rule.key.key.aclName = rule.key.key.aclName.empty() ? "k" : "";
         }
         configureIfFree( { rule.key, entryOf( fields ) } );
         break;
      }
      case Event::addAgain:
         world_.unconfigure( rule.key );
         world_.configure( { rule.key, entryOf( fields ) } );
         break;
      default: break;
      }
   }

   void rest() {
      if ( !world_.rest() ) {
         return;
      }
      world_.check();
      rcAssertNoFaults();
      if ( !world_.isCleaningUp() ) {
         world_.retryRefused();
      }
   }

   void faults( Choices & choices ) {
      auto & hardware = world_.hardware();
      hardware.failEvery = choices.of( { 0u, 0u, 1u, 2u, 3u, 5u } );
      hardware.refuseEvery = choices.of( { 0u, 0u, 1u, 2u, 3u } );
      hardware.capacity = choices.of< std::size_t >( { 1'000, 1'000, 2, 5, 9 } );
      hardware.delay = choices.of< U64 >( { 0, 0, 1, 3 } );
      hardware.order.reset();
      if ( choices.oneIn( 2 ) ) {
         hardware.order.emplace( choices.below( 1'000 ) );
      }
   }

   StaticWorld world_;
};

RC_GTEST_PROP( StaticHistory, LeavesExactlyWhatTheModelSays, () ) {
   auto const freeIds = *rc::gen::element< U32 >( 4, 8, 60 );
   auto const steps =
      *rc::gen::resize( 250, rc::gen::container< std::vector< Step > >( rc::gen::noShrink( anyStep() ) ) );
   History history( freeIds );
   for ( auto const & step : steps ) {
      history.happens( step );
   }
   history.ends();
}

}  // namespace
