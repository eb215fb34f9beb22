// The framework's collections, what watches them, and the bitmap.
#include <Brix/HBitmap.h>
#include <Netix/RangeMaskGen.h>
#include <Vexa/HashMap.h>
#include <Vexa/InlineList.h>
#include <Vexa/OrderedSet.h>
#include <Vexa/Reactor.h>
#include <Vexa/Type.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <map>
#include <set>
#include <sstream>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

using Map = Vexa::HashMap< U32, U32, 0x11111111 >;
using Lines = std::vector< std::string >;

std::string change( U32 key, U32 const * previous, U32 const * current ) {
   auto const text = []( U32 const * value ) { return value ? std::to_string( *value ) : "none"; };
   return std::to_string( key ) + ": " + text( previous ) + " -> " + text( current );
}

// Writes down what it is told, and then does what the test wants done inside the change.
struct Recorder final : Vexa::KeyWatcher< U32, U32 > {
   explicit Recorder( Map const & m ) : map( m ) { map.watcherIs( *this ); }
   ~Recorder() { map.watcherDel( *this ); }
   void onKey( U32 const & key, U32 const * previous, U32 const * current ) override {
      lines.push_back( change( key, previous, current ) );
      if ( auto const action = std::exchange( then, {} ) ) {
         action();
      }
   }
   Map const & map;
   Lines lines;
   std::function< void() > then;
};

// --- Maps ------------------------------------------------------------------------------------------------------------

TEST( HashMap, TellsEachChangeOnceWithPreviousAndCurrentValue ) {
   Map map;
   map.is( 1, 9 );
   Recorder told( map );
   map.is( 1, 10 );
   map.is( 2, 20 );
   map.is( 2, 20 );
   EXPECT_TRUE( map.del( 1 ) );
   EXPECT_FALSE( map.del( 1 ) );
   map.is( 3, 30 );
   EXPECT_THAT( told.lines,
                ElementsAre( "1: 9 -> 10", "2: none -> 20", "2: 20 -> 20", "1: 10 -> none", "3: none -> 30" ) );

   told.lines.clear();
   map.delAll();
   EXPECT_THAT( told.lines, UnorderedElementsAre( "2: 20 -> none", "3: 30 -> none" ) );
   EXPECT_EQ( map.count(), 0U );

   EXPECT_TRUE( map.refOrEmplace( 4 ).second );
   map.refOrEmplace( 4 ).first = 44;
   EXPECT_FALSE( map.refOrEmplace( 4 ).second );
   EXPECT_EQ( map.valueOr( 4 ), 44U );
   EXPECT_EQ( map.valueOr( 5, 7 ), 7U );
   EXPECT_EQ( told.lines.size(), 2U );
}

TEST( HashMap, AWatcherSeesTheMapAsItIsAfterTheChange ) {
   Map map;
   Recorder told( map );
   std::vector< std::optional< U32 > > seen;
   auto const look = [ & ] { seen.push_back( map.has( 1 ) ? std::optional( *map.find( 1 ) ) : std::nullopt ); };
   told.then = look;
   map.is( 1, 10 );
   told.then = look;
   map.del( 1 );
   map.is( 1, 11 );
   told.then = look;
   map.delAll();
   EXPECT_THAT( seen, ElementsAre( 10U, std::nullopt, std::nullopt ) );
}

TEST( HashMap, AWatcherMayTakeItselfOffWhileTold ) {
   for ( std::size_t leaving = 0; leaving < 3; ++leaving ) {
      SCOPED_TRACE( leaving );
      Map map;
      Recorder watchers[ 3 ]{ Recorder( map ), Recorder( map ), Recorder( map ) };
      watchers[ leaving ].then = [ & ] { map.watcherDel( watchers[ leaving ] ); };
      map.is( 1, 1 );
      map.is( 2, 2 );
      for ( std::size_t i = 0; i < 3; ++i ) {
         EXPECT_EQ( watchers[ i ].lines.size(), i == leaving ? 1U : 2U ) << i;
      }
   }
}

// The first watcher grows the map until it moves; what the second is told must not point into what was there.
TEST( HashMap, AChangeInsideAChangeReachesLaterWatchersToo ) {
   Map map;
   Recorder first( map ), second( map );
   first.then = [ & ] {
      for ( U32 key = 100; key < 200; ++key ) {
         map.is( key, key );
      }
   };
   map.is( 1, 10 );
   EXPECT_EQ( second.lines.size(), 101U );
   EXPECT_EQ( second.lines.back(), "1: none -> 10" );

   second.lines.clear();
   first.then = [ & ] { map.del( 1 ); };
   map.is( 1, 11 );
   EXPECT_THAT( second.lines, ElementsAre( "1: 11 -> none", "1: 10 -> none" ) );
}

TEST( HashMap, IterationSurvivesRemovalOfTheElementItStandsOn ) {
   Map map;
   std::map< U32, U32 > seen;
   for ( U32 key = 0; key < 500; ++key ) {
      map.is( key, key * 3 );
   }
   map.forEach( [ & ]( U32 key, U32 value ) {
      EXPECT_TRUE( seen.emplace( key, value ).second );
      if ( key % 2 == 0 ) {
         map.del( key );
      } else {
         map.is( key, value + 1 );
      }
   } );
   EXPECT_EQ( seen.size(), 500U );
   EXPECT_EQ( map.count(), 250U );
   for ( auto const & [ key, value ] : map ) {
      EXPECT_EQ( key % 2, 1U );
      EXPECT_EQ( value, key * 3 + 1 );
   }
}

// --- Sets ------------------------------------------------------------------------------------------------------------

using Set = Vexa::HashSet< U32, 0x22222222 >;

std::set< U32 > membersOf( Set const & set ) {
   std::set< U32 > members;
   set.forEach( [ & ]( U32 key ) { RC_ASSERT( members.insert( key ).second ); } );
   RC_ASSERT( set.count() == members.size() );
   return members;
}

Set setOf( std::set< U32 > const & keys ) {
   Set set;
   for ( auto const key : keys ) {
      set.is( key );
   }
   return set;
}

RC_GTEST_PROP( HashSet, BehavesAsASetOfKeysWhateverItsSize, ( std::vector< std::pair< U8, U8 > > const & steps ) ) {
   Set sets[ 2 ];
   std::set< U32 > models[ 2 ];
   for ( auto const & [ operation, operand ] : steps ) {
      auto & set = sets[ operand & 1 ];
      auto & model = models[ operand & 1 ];
      U32 const key = operand >> 1 & 3;  // few keys: none, one, two and many members come and go
      switch ( operation % 8 ) {
      case 0:
      case 1:
      case 2: RC_ASSERT( set.is( key ) == model.insert( key ).second ); break;
      case 3:
      case 4: RC_ASSERT( set.del( key ) == ( model.erase( key ) != 0 ) ); break;
      case 5:
         set = sets[ operation >> 3 & 1 ];
         model = models[ operation >> 3 & 1 ];
         break;
      case 6:
         set = Set( sets[ operation >> 3 & 1 ] );
         model = models[ operation >> 3 & 1 ];
         break;
      default: set.delAll(); model.clear();
      }
      for ( std::size_t i = 0; i < 2; ++i ) {
         RC_ASSERT( membersOf( sets[ i ] ) == models[ i ] );
         for ( U32 k = 0; k < 4; ++k ) {
            RC_ASSERT( sets[ i ].has( k ) == models[ i ].contains( k ) );
         }
      }
      RC_ASSERT( ( sets[ 0 ] == sets[ 1 ] ) == ( models[ 0 ] == models[ 1 ] ) );
   }
}

TEST( HashSet, IsEmptyAfterItsMembersWereMovedAway ) {
   for ( auto const & keys : { std::set< U32 >{}, { 1 }, { 1, 2 } } ) {
      auto from = setOf( keys );
      auto const to = std::move( from );
      EXPECT_EQ( membersOf( to ), keys );
      EXPECT_EQ( membersOf( from ), std::set< U32 >{} );
      EXPECT_EQ( from, Set() );
      EXPECT_FALSE( from.del( 1 ) );
      EXPECT_TRUE( from.is( 1 ) );
   }
}

TEST( OrderedSet, CountsItsChangesAndFindsWhatFollows ) {
   Vexa::OrderedSet< U32 > set;
   for ( U32 const key : { 5U, 3U, 9U, 3U } ) {
      set.is( key );
   }
   EXPECT_THAT( std::vector< U32 >( set.begin(), set.end() ), ElementsAre( 3U, 5U, 9U ) );
   EXPECT_EQ( set.version(), 3U );
   set.del( 5 );
   set.del( 5 );
   EXPECT_EQ( set.version(), 4U );
   EXPECT_EQ( *set.findNext( 3 ), 9U );
   EXPECT_EQ( *set.findNext( 4 ), 9U );
   EXPECT_EQ( set.findNext( 9 ), set.end() );
   EXPECT_EQ( set.count(), 2U );
}

// Every range of 8-bit numbers.
TEST( RangeMaskGen, CoversExactlyTheRangeWithTheFewestAlignedBlocks ) {
   using Generator = Netix::RangeMaskGen< U8 >;
   for ( U32 first = 0; first < 256; ++first ) {
      for ( U32 last = first; last < 256; ++last ) {
         auto const entries = Generator::entriesOf( static_cast< U8 >( first ), static_cast< U8 >( last ) );
         U32 next = first;
         for ( std::size_t i = 0; i < entries.size(); ++i ) {
            auto const [ value, mask ] = entries[ i ];
            U32 const size = 256U - mask;
            ASSERT_TRUE( std::has_single_bit( size ) && value == next && value % size == 0 ) << first << '-' << last;
            // Two halves of one larger block would be one entry too many.
            ASSERT_FALSE( i > 0 && entries[ i - 1 ].mask == mask && entries[ i - 1 ].value % ( 2 * size ) == 0 );
            next += size;
         }
         ASSERT_EQ( next, last + 1 );
      }
   }
   EXPECT_THAT( Generator::entriesOf( 2, 1 ), IsEmpty() );
   using Ports = Netix::RangeMaskGen< U16 >;
   EXPECT_THAT( Ports::entriesOf( 0, 65535 ), ElementsAre( Ports::Entry{ 0, 0 } ) );
   EXPECT_THAT( Ports::entriesOf( 65535, 65535 ), ElementsAre( Ports::Entry{ 65535, 65535 } ) );
}

TEST( InlineList, StopsWhenOneMoreIsPushedThanItHolds ) {
   Vexa::InlineList< U32, 2 > list;
   EXPECT_TRUE( list.empty() );
   list.push( 7 );
   list.push( 8 );
   EXPECT_THAT( std::vector< U32 >( list.begin(), list.end() ), ElementsAre( 7U, 8U ) );
   EXPECT_DEATH( list.push( 9 ), testing::StartsWith( "count_ < capacity\n" ) );
}

// --- Reactors --------------------------------------------------------------------------------------------------------

struct Machine final : Orla::Entity {
   void handleNumber( U32 const & key, U32 const * previous, U32 const * current ) {
      lines.push_back( change( key, previous, current ) );
      if ( auto const action = std::exchange( then, {} ) ) {
         action();
      }
   }
   Vexa::TypeData const & typeData() const override {
      static constexpr Vexa::TypeData type{ .name = "Machine" };
      return type;
   }
   Lines lines;
   std::function< void() > then;  // inside the next handler
   Vexa::Reactor< Machine, Map, &Machine::handleNumber > reactor{ *this };
};

TEST( Reactor, HandsOverWhileNotificationsAreOnAndTheMachineIsNoZombie ) {
   Map map, other;
   auto const machine = Orla::make< Machine >();
   machine->reactor.watchedIs( &map );
   map.is( 1, 1 );  // off from the start
   machine->hasNotificationActiveIs( true );
   map.is( 2, 2 );
   machine->vexaDoZombieReactors( true );
   map.is( 3, 3 );
   machine->vexaDoZombieReactors( false );
   map.is( 4, 4 );
   machine->hasNotificationActiveIs( false );
   map.is( 5, 5 );
   machine->hasNotificationActiveIs( true );
   machine->reactor.watchedIs( &other );
   map.is( 6, 6 );
   other.is( 7, 7 );
   machine->reactor.watchedIs( &other );  // the same again: still told once
   other.is( 8, 8 );
   machine->reactor.watchedIs( nullptr );
   other.is( 9, 9 );
   EXPECT_THAT( machine->lines, ElementsAre( "2: none -> 2", "4: none -> 4", "7: none -> 7", "8: none -> 8" ) );
}

TEST( Reactor, GoesOffTheCollectionWithItsMachine ) {
   Map map;
   {
      auto const machine = Orla::make< Machine >();
      machine->reactor.watchedIs( &map );
   }
   map.is( 1, 1 );
   EXPECT_EQ( map.count(), 1U );
}

// --- Replacement walks -----------------------------------------------------------------------------------------------

RC_GTEST_PROP( Reactor, AReplacementTellsEachKeyOfEitherCollectionOnce,
               ( std::map< U8, U8 > const & olds, std::map< U8, U8 > const & news, bool hasOld, bool hasNew ) ) {
   Map old, next;
   Lines expected;
   for ( auto const & [ key, value ] : olds ) {
      old.is( key, value );
   }
   for ( auto const & [ key, value ] : news ) {
      next.is( key, value );
   }
   auto const valueIn = [ & ]( Map const & map, bool isWatched, U32 key ) {
      return isWatched ? map.find( key ) : nullptr;
   };
   if ( hasOld ) {
      old.forEach(
         [ & ]( U32 key, U32 value ) { expected.push_back( change( key, &value, valueIn( next, hasNew, key ) ) ); } );
   }
   if ( hasNew ) {
      next.forEach( [ & ]( U32 key, U32 value ) {
         if ( !valueIn( old, hasOld, key ) ) {
            expected.push_back( change( key, nullptr, &value ) );
         }
      } );
   }
   auto const machine = Orla::make< Machine >();
   machine->reactor.watchedIs( hasOld ? &old : nullptr );
   machine->reactor.replacedBy( hasNew ? &next : nullptr );
   RC_ASSERT( machine->lines == expected );
   RC_ASSERT( machine->referenceCount() == 1U );

   machine->lines.clear();
   machine->reactor.handOverAll();
   RC_ASSERT( machine->lines.size() == ( hasNew ? news.size() : 0 ) );
}

// What handlers do to the collections in the middle of a walk is seen by its later steps.
TEST( Reactor, AWalkGoesOnOverWhatItsHandlersChange ) {
   Map old, next, newest;
   old.is( 1, 10 );
   for ( U32 key = 2; key < 5; ++key ) {
      next.is( key, key );
   }
   auto const machine = Orla::make< Machine >();
   machine->reactor.watchedIs( &old );
   machine->then = [ & ] {
      old.del( 1 );
      for ( U32 key = 100; key < 200; ++key ) {
         next.is( key, key );  // moves the entries
      }
      next.del( 2 );
      next.is( 3, 33 );
   };
   machine->reactor.replacedBy( &next );
   EXPECT_THAT( machine->lines, UnorderedElementsAre( "1: 10 -> none", "3: none -> 33", "4: none -> 4" ) );

   // Replaced again by a handler: nothing is told of what is not watched any more.
   old.delAll();
   old.is( 1, 1 );
   old.is( 2, 2 );
   next.delAll();
   next.is( 5, 5 );
   newest.is( 6, 6 );
   machine->reactor.watchedIs( &old );
   machine->lines.clear();
   machine->then = [ & ] { machine->reactor.replacedBy( &newest ); };
   machine->reactor.replacedBy( &next );
   EXPECT_THAT( machine->lines,
                UnorderedElementsAre( "1: 1 -> none", "2: 2 -> none", "5: 5 -> none", "6: none -> 6" ) );
}

TEST( Reactor, AMachineMayGoWhileItIsTold ) {
   Map map;
   map.is( 1, 1 );
   map.is( 2, 2 );
   for ( bool const inWalk : { true, false } ) {
      auto machine = Orla::make< Machine >();
      machine->hasNotificationActiveIs( true );
      machine->reactor.watchedIs( &map );
      Lines lines;
      machine->then = [ & ] { std::exchange( machine, nullptr )->lines.swap( lines ); };
      if ( inWalk ) {
         machine->reactor.handOverAll();
      } else {
         map.is( 3, 3 );
      }
      EXPECT_FALSE( machine );
      EXPECT_EQ( lines.size(), 1U );
   }
}

// --- Bitmap ----------------------------------------------------------------------------------------------------------

using Brix::HBitmap;
constexpr auto lowest = Brix::IndexPreference::lowest;

RC_GTEST_PROP( HBitmap, YieldsTheLowestClearBitOfAnyHistory, ( std::vector< U32 > const & steps, U32 seed ) ) {
   static constexpr std::pair< U64, U32 > bounds[] = { { 0, 0 },   { 7, 7 },    { 0, 63 },        { 0, 64 },
                                                       { 1, 128 }, { 5, 4101 }, { 65530, 65535 }, { 0, 8191 } };
   auto const [ first, last ] = bounds[ seed % std::size( bounds ) ];
   bool const initial = seed >> 8 & 1;
   auto const bitmap = Orla::make< HBitmap >( first, last, initial ? Brix::BitState::set : Brix::BitState::clear );
   std::vector< bool > model( last - first + 1, initial );
   for ( auto const step : steps ) {
      auto const position = step / 8 % model.size();
      if ( step % 8 == 0 ) {  // fill up to there: whole words and whole summaries
         for ( std::size_t i = 0; i <= position; ++i ) {
            bitmap->setBit( first + i );
            model[ i ] = true;
         }
      } else if ( step % 8 < 5 ) {
         bitmap->setBit( first + position );
         model[ position ] = true;
      } else {
         bitmap->clearBit( first + position );
         model[ position ] = false;
      }
      RC_ASSERT( bitmap->bit( first + position ) == model[ position ] );
      auto const clear = std::ranges::find( model, false );
      auto const expected =
         clear == model.end() ? HBitmap::null() : first + static_cast< U64 >( clear - model.begin() );
      RC_ASSERT( bitmap->findBitInClearState( lowest ) == expected );
   }
}

TEST( HBitmap, HandsOutEveryBitBetweenItsBoundsOnceThenNull ) {
   auto const bitmap = Orla::make< HBitmap >( 0, 65535, Brix::BitState::clear );
   bitmap->setBit( 0 );
   for ( U64 id = 1; id <= 65535; ++id ) {
      ASSERT_EQ( bitmap->findBitInClearState( lowest ), id );
      bitmap->setBit( id );
   }
   EXPECT_EQ( bitmap->findBitInClearState( lowest ), HBitmap::null() );
   EXPECT_EQ( HBitmap::null(), ~U64{ 0 } );
   bitmap->clearBit( 65535 );
   EXPECT_EQ( bitmap->findBitInClearState( lowest ), 65535U );
}

TEST( HBitmap, StopsAtBitsOutsideItsBounds ) {
   auto const bitmap = Orla::make< HBitmap >( 5, 9, Brix::BitState::clear );
   auto const stops = testing::StartsWith( "index >= firstBit_ && index <= lastBit_\n" );
   EXPECT_DEATH( bitmap->setBit( 4 ), stops );
   EXPECT_DEATH( bitmap->clearBit( 10 ), stops );
   EXPECT_DEATH( static_cast< void >( bitmap->bit( HBitmap::null() ) ), stops );
   EXPECT_DEATH( HBitmap( 2, 1, Brix::BitState::clear ), testing::StartsWith( "firstBit <= lastBit\n" ) );
}

}  // namespace
