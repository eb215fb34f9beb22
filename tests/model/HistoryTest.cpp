// Random histories of all kinds of rules together. RC_PARAMS="max_success=5000" makes a longer run of it,
// RC_PARAMS="seed=..." the same one again; a failing history is printed shrunk, and what `reproduce=` it names can be
// run with MODEL_TRACE=8, which writes the programmer's traces between the steps.
#include "RandomRules.h"
#include "World.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <cstdlib>
#include <iostream>
#include <string>

namespace {

using Model::AnyRule;
using Model::Choices;
using Model::World;

// --- What may happen -------------------------------------------------------------------------------------------------

void checkNoFaults( World & world ) {
   std::string text;
   for ( auto const & fault : world.takeFaults() ) {
      text += fault + '\n';
   }
   if ( !text.empty() ) {
      RC_FAIL( text );
   }
}

// During a clean-up learned connections are only recorded: its end hands them over. Here they wait for it.
bool mustWait( World const & world, AnyRule const & rule ) {
   return world.isCleaningUp() && std::holds_alternative< Support::DynamicRule >( rule );
}

void configureIfFree( World & world, AnyRule const & rule ) {
   if ( !world.collides( rule ) && !mustWait( world, rule ) ) {
      world.configure( rule );
   }
}

// Does something to one of the rules that are configured, if there is any.
template< class Action > void toAny( World & world, Choices & choices, Action const & action ) {
   auto const rules = world.configured();
   if ( !rules.empty() ) {
      auto const rule = std::next( rules.begin(), choices.below( static_cast< U32 >( rules.size() ) ) )->second;
      if ( !mustWait( world, rule ) ) {
         action( rule );
      }
   }
}

void touch( World & world, Choices & choices ) {
   toAny( world, choices, [ & ]( AnyRule const & rule ) {
      // A rule that stays refused during a clean-up would keep its result with nothing to tell why.
      if ( !( world.isCleaningUp() && world.isRefused( keyOf( rule ) ) ) ) {
         world.configure( rule );
      }
   } );
}

void update( World & world, Choices & choices ) {
   toAny( world, choices, [ & ]( AnyRule const & rule ) { world.configure( withOtherContents( rule, choices ) ); } );
}

void change( World & world, Choices & choices ) {
   toAny( world, choices, [ & ]( AnyRule const & rule ) { configureIfFree( world, withOtherRows( rule, choices ) ); } );
}

void remove( World & world, Choices & choices ) {
   toAny( world, choices, [ & ]( AnyRule const & rule ) { world.unconfigure( keyOf( rule ) ); } );
}

void moveRows( World & world, Choices & choices ) {
   toAny( world, choices, [ & ]( AnyRule const & rule ) {
      world.unconfigure( keyOf( rule ) );
      configureIfFree( world, withRowsMoved( rule, choices ) );
   } );
}

void addAgain( World & world, Choices & choices ) {
   toAny( world, choices, [ & ]( AnyRule const & rule ) {
      world.unconfigure( keyOf( rule ) );
      configureIfFree( world, Model::anew( rule ) );
   } );
}

void rest( World & world, Choices & ) {
   if ( world.rest() ) {
      world.check();
      checkNoFaults( world );
      if ( !world.isCleaningUp() ) {
         world.retryRefused();
      }
   }
}

void faults( World & world, Choices & choices ) {
   auto & hardware = world.hardware();
   hardware.failEvery = choices.of( { 0u, 0u, 1u, 2u, 3u, 5u } );
   hardware.refuseEvery = choices.of( { 0u, 0u, 1u, 2u, 3u } );
   hardware.capacity = choices.of< std::size_t >( { 1'000, 1'000, 2, 5, 9 } );
   hardware.delay = choices.of< U64 >( { 0, 0, 1, 3 } );
   hardware.batch = choices.of< std::size_t >( { 1, 2, 5, 100 } );
   hardware.order.reset();
   if ( choices.oneIn( 2 ) ) {
      hardware.order.emplace( choices.below( 1'000 ) );
   }
}

void changeCleanup( World & world, Choices & ) { world.isCleaningUp() ? world.endCleanup() : world.startCleanup(); }

void replay( World & world, Choices & choices ) {
   if ( world.isCleaningUp() ) {
      return;
   }
   switch ( choices.below( 3 ) ) {
   case 0: world.replay(); break;
   case 1: world.deleteAll(); [[fallthrough]];
   case 2: world.addAll(); break;
   }
}

struct Event {
   char const * name;
   std::size_t weight;
   void ( *happens )( World & world, Choices & choices );
};
constexpr Event events[] = {
   { "add", 24, []( World & world, Choices & choices ) { configureIfFree( world, anyRule( choices ) ); } },
   { "touch", 2, touch },
   { "update", 8, update },
   { "change", 10, change },
   { "remove", 9, remove },
   { "moveRows", 4, moveRows },
   { "addAgain", 4, addAgain },
   { "settle", 14, []( World & world, Choices & ) { world.settle(); } },
   { "rest", 5, rest },
   { "faults", 6, faults },
   { "retryFailed", 3, []( World & world, Choices & ) { world.retryFailed(); } },
   { "fragmentation", 2,
     []( World & world, Choices & ) { world.fragmentationIs( !world.config().fragmentationEnabled() ); } },
   { "cleanup", 4, changeCleanup },
   { "replay", 2, replay },
   { "pool", 2,
     []( World & world, Choices & choices ) {
        world.freeIdsAre( choices.of< U32 >( { 3, 6, 12, 60 } ) );
     } },
   { "restart", 1, []( World & world, Choices & ) { world.restart(); } },
};

// What whoever watches the results does when one changes.
constexpr void ( *reactions[] )( World & world, Choices & choices ) = {
   events[ 0 ].happens, touch, update, change, remove, moveRows, addAgain };

// One thing that happens. What exactly is drawn from `choice` when it happens, so that steps can be left out of a
// history.
struct Step {
   std::size_t event = 0;
   U32 choice = 0;
};

std::ostream & operator<<( std::ostream & out, Step const & step ) {
   return out << events[ step.event ].name << ' ' << step.choice;
}

rc::Gen< Step > anyStep() {
   static auto const drawn = [] {
      std::vector< std::size_t > numbers;
      for ( std::size_t event = 0; event < std::size( events ); ++event ) {
         numbers.insert( numbers.end(), events[ event ].weight, event );
      }
      return numbers;
   }();
   return rc::gen::map( rc::gen::pair( rc::gen::elementOf( drawn ), rc::gen::inRange< U32 >( 0, 1'000'000 ) ),
                        []( std::pair< std::size_t, U32 > const & p ) {
                           return Step{ p.first, p.second };
                        } );
}

// --- Histories -------------------------------------------------------------------------------------------------------

class History {
 public:
   // Watched: whoever is told of a result's change may change rules then.
   History( U32 freeIds, Model::Chip const & chip, bool watched, bool talkativeHardware = false )
      : world_( freeIds, chip, talkativeHardware ), watched_( watched ) {
      if ( auto const * const level = std::getenv( "MODEL_TRACE" ) ) {
         Trace::enabledLevelIs( static_cast< U8 >( std::atoi( level ) ) );
      }
   }

   void happens( Step const & step ) {
      if ( Trace::enabledLevel != 0 ) {
         std::cerr << "--- " << step << '\n';
      }
      Choices choices( step.choice + 1 );
      if ( watched_ ) {
         world_.whenResultChanges = [ this, reaction = Choices( step.choice / 2 + 1 ), left = 3U ]() mutable {
            if ( left != 0 && reaction.oneIn( 2 ) ) {
               --left;
               // What comes while all is deleted would stay.
               auto const react = reactions[ reaction.below( std::size( reactions ) ) ];
               ( world_.isDeletingAll() ? remove : react )( world_, reaction );
            }
         };
      }
      events[ step.event ].happens( world_, choices );
      world_.whenResultChanges = {};
      world_.check();
      checkNoFaults( world_ );
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
      if ( world_.hardware().talkative ) {
         world_.checkAgainstFresh();
      } else {
         RC_ASSERT( world_.isAllProgrammed() );
      }
      checkNoFaults( world_ );
      for ( auto const & [ key, rule ] : world_.configured() ) {
         world_.unconfigure( key );
      }
      RC_ASSERT( world_.rest() );
      world_.check();
      world_.checkEmpty();
      checkNoFaults( world_ );
   }

 private:
   World world_;
   bool watched_;
};

std::vector< Step > anySteps() {
   return *rc::gen::resize( 250, rc::gen::container< std::vector< Step > >( rc::gen::noShrink( anyStep() ) ) );
}

RC_GTEST_PROP( History, LeavesExactlyWhatTheModelSays, ( bool vrfLess, bool fullConeProgrammed, bool watched ) ) {
   auto const freeIds = *rc::gen::element< U32 >( 4, 8, 60 );
   auto const steps = anySteps();
   History history( freeIds, { vrfLess, fullConeProgrammed }, watched );
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
RC_GTEST_PROP( History, ComesRightOnHardwareThatReportsEverything,
               ( bool vrfLess, bool fullConeProgrammed, bool watched ) ) {
   auto const freeIds = *rc::gen::element< U32 >( 4, 8, 60 );
   History history( freeIds, { vrfLess, fullConeProgrammed }, watched, true );
   for ( auto const & step : anySteps() ) {
      history.happens( step );
   }
   history.ends();
}

}  // namespace
