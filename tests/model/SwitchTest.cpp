// Histories of all kinds of rules together, drawn and enumerated. RC_PARAMS="max_success=5000" makes a longer run of
// the drawn ones, RC_PARAMS="seed=..." the same one again; a failing history is printed shrunk, and what `reproduce=`
// it names can be run with MODEL_TRACE=8, which writes the programmer's traces between the steps. HISTORY_STEPS=3
// enumerates longer ones. HISTORY_WATCHED=1 lets whoever is told of a result change rules at once.
#include "Switch.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <cstdlib>
#include <iostream>
#include <string>

namespace {

using Model::AnyRule;
using Model::Choices;
using Model::Switch;

// --- What may happen -------------------------------------------------------------------------------------------------

// During a clean-up learned connections are only recorded: its end hands them over. Here they wait for it.
bool mustWait( Switch const & nat, AnyRule const & rule ) {
   return nat.isCleaningUp() && std::holds_alternative< Support::DynamicRule >( rule );
}

void configure( Switch & nat, AnyRule const & rule ) {
   if ( !mustWait( nat, rule ) ) {
      nat.configure( rule );
   }
}

// Does something to one of the rules that are configured, if there is any.
template< class Action > void toAny( Switch & nat, Choices & choices, Action const & action ) {
   auto const rules = nat.configured();
   if ( !rules.empty() ) {
      auto const rule = std::next( rules.begin(), choices.below( static_cast< U32 >( rules.size() ) ) )->second;
      if ( !mustWait( nat, rule ) ) {
         action( rule );
      }
   }
}

void add( Switch & nat, Choices & choices ) { configure( nat, anyRule( choices ) ); }

void change( Switch & nat, Choices & choices ) {
   toAny( nat, choices, [ & ]( AnyRule const & rule ) {
      bool const contents = choices.oneIn( 2 );
      configure( nat, contents ? withOtherContents( rule, choices ) : withOtherRows( rule, choices ) );
   } );
}

void touch( Switch & nat, Choices & choices ) {
   toAny( nat, choices, [ & ]( AnyRule const & rule ) { nat.configure( rule ); } );
}

void remove( Switch & nat, Choices & choices ) {
   toAny( nat, choices, [ & ]( AnyRule const & rule ) { nat.unconfigure( keyOf( rule ) ); } );
}

void replace( Switch & nat, Choices & choices ) {
   toAny( nat, choices, [ & ]( AnyRule const & rule ) {
      nat.unconfigure( keyOf( rule ) );
      configure( nat, choices.oneIn( 2 ) ? Model::anew( rule ) : withRowsMoved( rule, choices ) );
   } );
}

void faults( Switch & nat, Choices & choices ) {
   auto & hardware = nat.hardware();
   hardware.failEvery = choices.of( { 0u, 0u, 1u, 2u, 3u, 5u } );
   hardware.refuseEvery = choices.of( { 0u, 0u, 1u, 2u, 3u } );
   hardware.capacity = choices.of< std::size_t >( { 1'000, 1'000, 2, 5, 9 } );
   hardware.delay = choices.of< U64 >( { 0, 0, 1, 3 } );
   hardware.order.reset();
   if ( choices.oneIn( 2 ) ) {
      hardware.order.emplace( choices.below( 1'000 ) );
   }
}

void replay( Switch & nat, Choices & choices ) {
   if ( !nat.isCleaningUp() ) {
      choices.oneIn( 2 ) ? nat.programmer()->replay() : nat.deleteAndAddAll();
   }
}

struct Event {
   char const * name;
   std::size_t weight;
   void ( *happens )( Switch & nat, Choices & choices );
};
constexpr Event events[] = {
   { "add", 24, add },
   { "touch", 2, touch },
   { "change", 18, change },
   { "remove", 9, remove },
   { "replace", 8, replace },
   { "settle", 14, []( Switch & nat, Choices & ) { nat.settle(); } },
   { "rest", 5, []( Switch & nat, Choices & ) { nat.rest(); } },
   { "faults", 6, faults },
   { "retryFailed", 3, []( Switch & nat, Choices & ) { nat.programmer().tables.hardware->retryFailed(); } },
   { "fragmentation", 2,
     []( Switch & nat, Choices & ) { nat.fragmentationIs( !nat.config().fragmentationEnabled() ); } },
   { "cleanup", 4, []( Switch & nat, Choices & ) { nat.isCleaningUp() ? nat.endCleanup() : nat.startCleanup(); } },
   { "replay", 2, replay },
   { "pool", 2,
     []( Switch & nat, Choices & choices ) {
        nat.freeIdsAre( choices.of< U32 >( { 3, 6, 12, 60 } ) );
     } },
   { "restart", 1, []( Switch & nat, Choices & ) { nat.restart(); } },
};

// What whoever is told of a result does.
constexpr void ( *reactions[] )( Switch & nat, Choices & choices ) = { add, touch, change, remove, replace };

// --- Drawn histories -------------------------------------------------------------------------------------------------

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

void requireNoFaults( Switch & nat ) {
   if ( auto const faults = nat.takeFaults(); !faults.empty() ) {
      RC_FAIL( faults );
   }
}

// Not run by itself yet: an add and two changes of it can end with a rule that stays refused, with
// RC_PARAMS="seed=2414759998347732496", and whether the rule or the expectation is wrong is not known.
RC_GTEST_PROP( SwitchHistory, DISABLED_EndsAsAFreshProgrammerWouldBe,
               ( bool vrfLess, bool fullConeProgrammed, bool talkative, bool anyWatched ) ) {
   bool const watched = anyWatched && std::getenv( "HISTORY_WATCHED" );
   if ( auto const * const level = std::getenv( "MODEL_TRACE" ) ) {
      Trace::enabledLevelIs( static_cast< U8 >( std::atoi( level ) ) );
   }
   auto const freeIds = *rc::gen::element< U32 >( 4, 8, 60 );
   auto const steps =
      *rc::gen::resize( 250, rc::gen::container< std::vector< Step > >( rc::gen::noShrink( anyStep() ) ) );
   Switch nat( { vrfLess, fullConeProgrammed, talkative }, freeIds );
   for ( auto const & step : steps ) {
      if ( Trace::enabledLevel != 0 ) {
         std::cerr << "--- " << step << '\n';
      }
      Choices choices( step.choice + 1 );
      nat.whenStatusChanges = [ &nat, watched, drawn = Choices( step.choice / 2 + 1 ), left = 3 ]() mutable {
         if ( watched && left-- > 0 && drawn.oneIn( 2 ) ) {
            reactions[ drawn.below( std::size( reactions ) ) ]( nat, drawn );
         }
      };
      events[ step.event ].happens( nat, choices );
      nat.noteHolders();
      if ( step.choice % 4 == 0 ) {
         nat.check();
         requireNoFaults( nat );
      }
   }
   nat.end();
   requireNoFaults( nat );
   auto const [ ofStatic, ofTwice, ofDynamic ] = nat.exchangesChecked;
   RC_CLASSIFY( ofStatic != 0, "packets of static rules walked" );
   RC_CLASSIFY( ofTwice != 0, "packets of twice rules walked" );
   RC_CLASSIFY( ofDynamic != 0, "packets of learned connections walked" );
}

// --- Enumerated histories --------------------------------------------------------------------------------------------

// Every choice in its turn: the same history again, but for the last choice that has another alternative.
class Enumeration final : public Choices {
 public:
   U32 below( U32 count ) override {
      if ( next_ == taken_.size() ) {
         taken_.push_back( { 0, count } );
      }
      return taken_[ next_++ ].first;
   }
   bool another() {
      next_ = 0;
      while ( !taken_.empty() && ++taken_.back().first == taken_.back().second ) {
         taken_.pop_back();
      }
      return !taken_.empty();
   }

 private:
   std::vector< std::pair< U32, U32 > > taken_;  // and of how many
   std::size_t next_ = 0;
};

// Of each kind, rules that share what rules of the kind can share, each with a change of its rows.
std::vector< std::vector< std::array< AnyRule, 2 > > > smallRules() {
   using Support::dynamicRule, Support::staticEntry, Support::staticKey, Support::StaticRule, Support::twiceRule;
   auto const staticRule = []( char const * own, char const * to ) {
      return AnyRule( StaticRule{ staticKey( own ), staticEntry( to ) } );
   };
   Support::DynamicRule::Fields const addrOnly{ .intfQualifier = 5, .connection = { .addrOnly = true } };
   return { { { staticRule( "10.0.0.1:80", "192.0.2.1:80" ), staticRule( "10.0.0.1:80", "192.0.2.2:80" ) },
              { staticRule( "10.0.0.1:81", "192.0.2.1:81" ), staticRule( "10.0.0.1:81", "192.0.2.1" ) } },
            { { twiceRule( "10.0.0.1:80 > 192.0.2.9:81", "192.0.2.1:82 > 10.9.0.9:83" ),
                twiceRule( "10.0.0.1:80 > 192.0.2.9:81", "192.0.2.1 > 10.9.0.9" ) },
              { twiceRule( "10.0.0.1:90 > 192.0.2.9:91", "192.0.2.1:92 > 10.9.0.9:93" ),
                twiceRule( "10.0.0.1:90 > 192.0.2.9:91", "192.0.2.1:92 > 10.9.0.9:94" ) } },
            { { dynamicRule( "10.0.0.1:4000 > 203.0.113.1:443", "192.0.2.1:5000" ),
                dynamicRule( "10.0.0.1:4000 > 203.0.113.1:443", "192.0.2.1:5001" ) },
              { dynamicRule( "10.0.0.1:4001 > 203.0.113.1:443", "192.0.2.1:5002" ),
                dynamicRule( "10.0.0.1:4001 > 203.0.113.1:443", "192.0.2.1:5003" ) } },
            { { dynamicRule( "10.0.0.1:1 > 203.0.113.1:2", "192.0.2.1", addrOnly ),
                dynamicRule( "10.0.0.1:1 > 203.0.113.1:2", "192.0.2.2", addrOnly ) },
              { dynamicRule( "10.0.0.3:1 > 203.0.113.1:2", "192.0.2.3", addrOnly ),
                dynamicRule( "10.0.0.3:1 > 203.0.113.1:2", "192.0.2.4", addrOnly ) } },
            { { staticRule( "239.0.0.1", "239.1.0.1" ), staticRule( "239.0.0.1", "239.1.0.3" ) },
              { staticRule( "239.0.0.2", "239.1.0.2" ), staticRule( "239.0.0.2", "239.1.0.4" ) } } };
}

TEST( SwitchHistory, ComesRightInWhateverOrderFewThingsHappen ) {
   auto const * const given = std::getenv( "HISTORY_STEPS" );
   int const steps = given ? std::atoi( given ) : 2;
   U64 histories = 0;
   for ( auto const & rules : smallRules() ) {
      for ( bool const fragmentation : { false, true } ) {
         Enumeration choices;
         do {
            Switch nat( {} );
            nat.fragmentationIs( fragmentation );
            nat.configure( rules[ 0 ][ 0 ] );
            auto & hardware = *nat.programmer().tables.hardware;
            for ( int step = 0; step < steps; ++step ) {
               switch ( choices.below( hardware.outstanding() != 0 ? 8 : 5 ) ) {
               case 0: nat.configure( rules[ 0 ][ choices.below( 2 ) ] ); break;
               case 1: nat.configure( rules[ 1 ][ choices.below( 2 ) ] ); break;
               case 2: nat.unconfigure( keyOf( rules[ choices.below( 2 ) ][ 0 ] ) ); break;
               case 3: nat.programmer()->replay(); break;
               case 4: hardware.retryFailed(); break;
               case 5: hardware.settleNext( Asic::EntryState::settled ); break;
               case 6: hardware.settleNext( Asic::EntryState::full ); break;
               case 7:
                  nat.hardware().order.emplace( choices.below( 4 ) );
                  nat.settle();
                  break;
               }
            }
            nat.check();
            nat.end();
            ++histories;
            ASSERT_EQ( nat.takeFaults(), "" ) << "history " << histories;
         } while ( choices.another() );
      }
   }
   std::cout << histories << " histories of " << steps << " steps\n";
}

}  // namespace
