// Reference counts, interned texts, traces, assertions.
#include <Netix/IntfId.h>
#include <Orla/Ptr.h>
#include <Orla/String.h>
#include <Trace/RingTrace.h>
#include <Trace/Trace.h>
#include <Vexa/Assert.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

struct Counted {
   mutable int users = 0;
   void newUser() const { ++users; }
   void userGone() const { --users; }
};
using CountedPtr = Orla::Ptr< Counted const >;

template< class T > struct HeldBy {
   Orla::Ptr< T > pointer;
   friend std::ostream & operator<<( std::ostream & out, HeldBy const & ) { return out << "held"; }
};
using Held = HeldBy< Counted const >;

// --- Ptr -------------------------------------------------------------------------------------------------------------

TEST( Ptr, DereferencingNullStops ) {
   CountedPtr const null;
   EXPECT_DEATH( static_cast< void >( null->users ), StartsWith( "object_ && \"Orla::Ptr is null\"\n" ) );
}

// --- Ring ------------------------------------------------------------------------------------------------------------

TEST( RingTrace, KeepsTheNewestMessagesAndTheValuesInThem ) {
   Counted counted;
   auto ring = std::make_unique< Trace::RingTrace >();
   EXPECT_THAT( ring->lastLines( 9 ), IsEmpty() );
   ring->message( "oldest ", true, U8{ 65 }, " ", Orla::String( "quo'te " ), Held{ CountedPtr( &counted ) } );
   EXPECT_EQ( counted.users, 1 );
   for ( U32 i = 1; i < Trace::RingTrace::capacity; ++i ) {
      ring->message( "line ", i );
   }
   auto const full = ring->lastLines( 100'000 );
   EXPECT_EQ( full.size(), Trace::RingTrace::capacity );
   EXPECT_EQ( full.front(), "oldest 165 'quo\\'te 'held" );
   EXPECT_EQ( full.back(), "line 2047" );
   EXPECT_EQ( counted.users, 1 );
   ring->message( "newest" );
   EXPECT_EQ( counted.users, 0 );
   EXPECT_THAT( ring->lastLines( 2 ), ElementsAre( "line 2047", "newest" ) );
   EXPECT_EQ( ring->lastLines( 100'000 ).front(), "line 1" );
   EXPECT_EQ( ring->written(), Trace::RingTrace::capacity + 1 );
   ring->message( Held{ CountedPtr( &counted ) } );
   ring = nullptr;
   EXPECT_EQ( counted.users, 0 );
}

// Overwriting the oldest message drops the last reference to something whose end is an assertion.
TEST( RingTrace, CanBeReadWhileAMessageIsOverwritten ) {
   Trace::RingTrace ring;
   struct Reader {
      Trace::RingTrace & ring;
      std::vector< std::string > lines;
      mutable int users = 0;
      void newUser() const { ++users; }
      void userGone() {
         if ( --users == 0 ) {
            lines = ring.lastLines( 100'000 );
         }
      }
   };
   Reader reader{ ring, {} };
   ring.message( HeldBy< Reader >{ Orla::Ptr< Reader >( &reader ) } );
   for ( U32 i = 1; i <= Trace::RingTrace::capacity; ++i ) {
      ring.message( "line ", i );
   }
   EXPECT_EQ( reader.lines.size(), Trace::RingTrace::capacity - 1 );
   EXPECT_EQ( reader.lines.back(), "line 2047" );
   EXPECT_EQ( ring.lastLines( 1 ), std::vector< std::string >{ "line 2048" } );
}

// --- Text traces -----------------------------------------------------------------------------------------------------

TEST( Trace, EvaluatesNothingAboveTheEnabledLevel ) {
   std::vector< std::string > lines;
   Trace::sinkIs( [ & ]( std::string_view name, U8 level, std::string const & line ) {
      lines.push_back( std::string( name ) + ' ' + std::to_string( level ) + ' ' + line );
   } );
   Trace::Handle const handle( "Nat" );
   int handles = 0, parts = 0;
   auto const handleOf = [ & ]() -> Trace::Handle const & { return ++handles, handle; };
   auto const part = [ & ] { return ++parts, U8{ 7 }; };

   TRACE( handleOf(), 1, "off ", part() );
   Trace::enabledLevelIs( 4 );
   TRACE( handleOf(), 5, "off ", part() );
   EXPECT_EQ( handles + parts, 0 );
   TRACE( handleOf(), 4, "on ", part(), false, Netix::ShortName{ *Netix::IntfId::fromName( "ethernet1" ) } );
   Trace::enabledLevelIs( 0 );
   TRACE( handleOf(), 1, "off again ", part() );
   Trace::sinkIs( {} );

   EXPECT_EQ( handles, 1 );
   EXPECT_EQ( parts, 1 );
   EXPECT_THAT( lines, ElementsAre( "Nat 4 on 70eth1" ) );
}

// --- Assertions ------------------------------------------------------------------------------------------------------

TEST( Assert, StopsWithTheWholeConditionAndTheLastLinesOfTheRing ) {
   std::vector< int > const srcVect[ 1 ] = {};
   std::size_t const iSrc = 0;
   auto const fail = [ & ] {
      Trace::RingTrace::defaultHandle().message( "before the end ", U8{ 1 } );
      Trace::RingTrace::defaultHandle().message( "the very last" );
      VEXA_ASSERT( srcVect[ iSrc ].size() );
   };
   EXPECT_DEATH( fail(), testing::AllOf( StartsWith( "srcVect[ iSrc ].size()\n" ),
                                         HasSubstr( "\n  before the end 1\n  the very last\n" ) ) );
   EXPECT_DEATH( ( [] { VEXA_ASSERT( std::is_same_v< int, long > ); }() ),
                 StartsWith( "std::is_same_v< int, long >\n" ) );
   int evaluated = 0;
   VEXA_ASSERT( ++evaluated == 1 );
   EXPECT_EQ( evaluated, 1 );  // once, in every build
}

}  // namespace
