// Random histories of all kinds of rules together. RC_PARAMS="max_success=5000" makes a longer run of it,
// RC_PARAMS="seed=..." the same one again; a failing history is printed shrunk, and what `reproduce=` it names can be
// run with MODEL_TRACE=8, which writes the programmer's traces between the steps.
#include "RandomRules.h"
#include "World.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <array>
#include <cstdlib>
#include <iostream>
#include <sstream>

namespace {

using Model::AnyRule;
using Model::Choices;
using Model::World;

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

// --- Histories -------------------------------------------------------------------------------------------------------

class History {
 public:
   History( U32 freeIds, Model::Chip const & chip, bool talkativeHardware = false )
      : world_( freeIds, chip, talkativeHardware ) {
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
            replay( choices );
         }
         break;
      case Event::pool: world_.freeIdsAre( choices.of< U32 >( { 3, 6, 12, 60 } ) ); break;
      case Event::restart: world_.restart(); break;
      }
      world_.check();
      rcAssertNoFaults();
   }

   auto const & exchangesChecked() const { return world_.exchangesChecked; }

   // Everything heals: nothing fails any more, and all rules are programmed; then they all go.
   void ends() {
      world_.hardware().heal();
      world_.freeIdsAre( Model::ExpectedTables::largestId );
      if ( world_.isCleaningUp() ) {
         world_.endCleanup();
      }
      world_.retryFailed();
      world_.replay();
      RC_ASSERT( world_.rest() );
      world_.check();
      rcAssertNoFaults();
      if ( world_.hardware().talkative ) {
         world_.checkAgainstFresh();
         rcAssertNoFaults();
      } else {
         RC_ASSERT( world_.isAllProgrammed() );
      }
      while ( auto const rule = firstConfigured() ) {
         world_.unconfigure( keyOf( *rule ) );
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

   std::optional< AnyRule > firstConfigured() const {
      auto const rules = world_.configured();
      return rules.empty() ? std::nullopt : std::optional( rules.begin()->second );
   }

   std::optional< AnyRule > anyConfigured( Choices & choices ) const {
      auto const rules = world_.configured();
      return rules.empty()
                ? std::nullopt
                : std::optional(
                     std::next( rules.begin(), choices.below( static_cast< U32 >( rules.size() ) ) )->second );
   }

   // During a clean-up learned connections are only recorded: its end hands them over. Here they wait for it.
   bool mustWait( AnyRule const & rule ) const {
      return world_.isCleaningUp() && std::holds_alternative< Support::DynamicRule >( rule );
   }

   void configureIfFree( AnyRule const & rule ) {
      if ( !world_.collides( rule ) && !mustWait( rule ) ) {
         world_.configure( rule );
      }
   }

   void happensTo( AnyRule const & rule, Event event, Choices & choices ) {
      auto const key = keyOf( rule );
      if ( mustWait( rule ) ) {
         return;
      }
      switch ( event ) {
      case Event::touch:
         // A rule that stays refused during a clean-up would keep its result with nothing to tell why.
         if ( !( world_.isCleaningUp() && world_.isRefused( key ) ) ) {
            world_.configure( rule );
         }
         break;
      case Event::update: world_.configure( withOtherContents( rule, choices ) ); break;
      case Event::change: configureIfFree( withOtherRows( rule, choices ) ); break;
      case Event::remove: world_.unconfigure( key ); break;
      case Event::moveRows:
         world_.unconfigure( key );
         configureIfFree( withRowsMoved( rule, choices ) );
         break;
      case Event::addAgain:
         world_.unconfigure( key );
         world_.configure( Model::anew( rule ) );
         break;
      default: break;
      }
   }

   void replay( Choices & choices ) {
      switch ( choices.below( 3 ) ) {
      case 0: world_.replay(); break;
      case 1: world_.deleteAll(); [[fallthrough]];
      case 2: world_.addAll(); break;
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

   World world_;
};

std::vector< Step > anySteps() {
   return *rc::gen::resize( 250, rc::gen::container< std::vector< Step > >( rc::gen::noShrink( anyStep() ) ) );
}

RC_GTEST_PROP( History, LeavesExactlyWhatTheModelSays, ( bool vrfLess, bool fullConeProgrammed ) ) {
   auto const freeIds = *rc::gen::element< U32 >( 4, 8, 60 );
   auto const steps = anySteps();
   History history( freeIds, { vrfLess, fullConeProgrammed } );
   for ( auto const & step : steps ) {
      history.happens( step );
   }
   history.ends();
   auto const [ ofStatic, ofTwice, ofDynamic ] = history.exchangesChecked();
   RC_CLASSIFY( ofStatic != 0, "packets of static rules walked" );
   RC_CLASSIFY( ofTwice != 0, "packets of twice rules walked" );
   RC_CLASSIFY( ofDynamic != 0, "packets of learned connections walked" );
}

// Overtaken operations report too, in the order in which they settle.
RC_GTEST_PROP( History, ComesRightOnHardwareThatReportsEverything, ( bool vrfLess, bool fullConeProgrammed ) ) {
   auto const freeIds = *rc::gen::element< U32 >( 4, 8, 60 );
   History history( freeIds, { vrfLess, fullConeProgrammed }, true );
   for ( auto const & step : anySteps() ) {
      history.happens( step );
   }
   history.ends();
}

}  // namespace
