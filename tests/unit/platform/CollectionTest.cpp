// The framework's collections, what watches them, and the bitmap.
#include <Brix/HBitmap.h>
#include <Vexa/HashMap.h>
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

RC_GTEST_PROP( HashSet, BehavesAsASetOfKeysWhateverItsSize, ( std::vector< std::pair< U8, U8 > > const & steps ) ) {
   Set sets[ 2 ];
   std::set< U32 > models[ 2 ];
   for ( auto const & [ operation, operand ] : steps ) {
      auto & set = sets[ operand & 1 ];
      auto & model = models[ operand & 1 ];
      auto const other = operation >> 3 & 1;
      U32 const key = operand >> 1 & 3;  // few keys: none, one, two and many members come and go
      switch ( operation % 8 ) {
      case 0:
         set.delAll();
         model.clear();
         break;
      case 1: set = sets[ other ], model = models[ other ]; break;
      case 2: set = Set( sets[ other ] ), model = models[ other ]; break;
      case 3:
         set = std::move( sets[ 1 - ( operand & 1 ) ] ), model = std::exchange( models[ 1 - ( operand & 1 ) ], {} );
         break;
      case 4: RC_ASSERT( set.del( key ) == ( model.erase( key ) != 0 ) ); break;
      default: RC_ASSERT( set.is( key ) == model.insert( key ).second );
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
   Map old, next;
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

}  // namespace
