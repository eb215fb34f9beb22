// Reference counts, interned texts, traces, assertions, attributes.
#include <Orla/Ptr.h>
#include <Orla/String.h>
#include <Pfe/NatMatchKey.h>
#include <Trace/RingTrace.h>
#include <Trace/Trace.h>
#include <Vexa/Assert.h>
#include <Vexa/Type.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

struct Counted {
   mutable int users = 0;
   mutable int lowest = 1000;
   void newUser() const { ++users; }
   void userGone() const { lowest = std::min( lowest, --users ); }
};
using CountedPtr = Orla::Ptr< Counted const >;

template< class T > struct HeldBy {
   Orla::Ptr< T > pointer;
   friend std::ostream & operator<<( std::ostream & out, HeldBy const & ) { return out << "held"; }
};
using Held = HeldBy< Counted const >;

struct Thing : Orla::Entity {
   explicit Thing( int & d ) : destroyed( d ) {}
   ~Thing() override { ++destroyed; }
   Vexa::TypeData const & typeData() const override;
   U16 size() const { return size_; }
   void sizeIs( U16 size ) { size_ = size; }
   U32 twiceKeyVrf() const { return key.get< Pfe::TwiceNatMatchKey >().vrfId; }
   Orla::String describe( U32 number, Orla::String const & text ) const {
      return Orla::String( std::string( text.text() ) + std::to_string( number ) );
   }
   Pfe::NatMatchKey key;
   int & destroyed;

 private:
   U16 size_ = 3;
};

// --- Ptr -------------------------------------------------------------------------------------------------------------

TEST( Ptr, CountsItsUsersThroughEveryKindOfAssignment ) {
   Counted a, b;
   {
      CountedPtr p( &a );
      CountedPtr q = p;
      EXPECT_EQ( a.users, 2 );
      q = CountedPtr( &b );
      EXPECT_EQ( a.users, 1 );
      p = q;
      EXPECT_EQ( b.users, 2 );
      EXPECT_EQ( a.users, 0 );
      p = std::move( q );
      EXPECT_EQ( b.users, 1 );
      EXPECT_FALSE( q );
      q = nullptr;
      EXPECT_TRUE( p == CountedPtr( &b ) && p != CountedPtr( &a ) && q == CountedPtr() );
   }
   EXPECT_EQ( b.users, 0 );

   CountedPtr p( &a );
   a.lowest = 1000;
   p = *&p;
   p = CountedPtr( &a );
   EXPECT_EQ( a.lowest, 1 );  // the new reference was taken before the old one was dropped
}

TEST( Ptr, CreatorHoldsTheFirstReferenceAndTheLastOneDestroys ) {
   int destroyed = 0;
   auto thing = Orla::make< Thing >( destroyed );
   EXPECT_EQ( thing->referenceCount(), 1U );
   Orla::Ptr< Orla::Entity const > base = thing;
   EXPECT_EQ( thing->referenceCount(), 2U );
   thing = nullptr;
   EXPECT_EQ( destroyed, 0 );
   base = nullptr;
   EXPECT_EQ( destroyed, 1 );
}

TEST( Ptr, DereferencingNullStops ) {
   CountedPtr const null;
   EXPECT_DEATH( static_cast< void >( null->users ), StartsWith( "object_ && \"Orla::Ptr is null\"\n" ) );
   EXPECT_DEATH( static_cast< void >( *null ), StartsWith( "object_ && \"Orla::Ptr is null\"\n" ) );
}

// --- String ----------------------------------------------------------------------------------------------------------

TEST( String, EqualTextsShareOnePlaceUntilTheLastUserIsGone ) {
   std::string text = "a text that nobody else uses";
   Orla::String first( text );
   auto const place = first.text().data();
   text[ 0 ] = 'A';  // a copy was made
   Orla::String second( "a text that nobody else uses" );
   EXPECT_EQ( second.text().data(), place );
   EXPECT_TRUE( first == second && first != Orla::String( text ) );
   first = "other";
   second = *&second;
   EXPECT_EQ( second.text(), "a text that nobody else uses" );
   Orla::String third = std::move( second );
   EXPECT_TRUE( second.empty() );
   EXPECT_EQ( third.text().data(), place );
   EXPECT_TRUE( Orla::String( "" ).empty() && Orla::String( "" ) == Orla::String() );
   EXPECT_EQ( sizeof( Orla::String ), sizeof( void * ) );
}

TEST( String, HashAndOrderFollowTheTextAndNotItsAddress ) {
   // Interned, forgotten and interned again elsewhere.
   auto const hashes = []( std::string_view text, std::string_view other ) {
      Orla::String const keepsThePlace( other );
      return Orla::String( text ).hash( 5 );
   };
   EXPECT_EQ( hashes( "some text", "x" ), hashes( "some text", "another text that is longer" ) );
   EXPECT_NE( hashes( "some text", "x" ), hashes( "some texu", "x" ) );
   EXPECT_NE( hashes( std::string_view( "a\0", 2 ), "x" ), hashes( "a", "x" ) );
   Orla::String const z( "z" ), a( "a" ), empty;
   EXPECT_TRUE( a < z && empty < a && a > empty && ( a <=> Orla::String( "a" ) ) == 0 );
}

// --- Ring ------------------------------------------------------------------------------------------------------------

TEST( RingTrace, JoinsItsPartsWithNothingBetweenAndPrintsSmallNumbersInDecimal ) {
   auto const ring = std::make_unique< Trace::RingTrace >();
   ring->message( "flag ", true, " byte ", U8{ 65 }, " target ", Ip::Nat::NatTarget::destination );
   ring->message( "word ", U16{ 65535 }, ", ", ~U64{ 0 }, Orla::String( " quo'te" ) );
   ring->message( Netix::IpAndPort{ Netix::IpAddr( 0x0a000001 ), 80 } );
   EXPECT_THAT( ring->lastLines( 9 ),
                ElementsAre( "flag 1 byte 65 target 1", "word 65535, 18446744073709551615' quo\\'te'",
                             "Value('Netix::IpAndPort', ip=10.0.0.1, port=80)" ) );
}

TEST( RingTrace, KeepsTheNewestMessagesAndTheValuesInThem ) {
   Counted counted;
   auto ring = std::make_unique< Trace::RingTrace >();
   EXPECT_THAT( ring->lastLines( 9 ), IsEmpty() );
   ring->message( "oldest ", Held{ CountedPtr( &counted ) } );
   EXPECT_EQ( counted.users, 1 );
   for ( U32 i = 1; i < Trace::RingTrace::capacity; ++i ) {
      ring->message( "line ", i );
   }
   auto const full = ring->lastLines( 100'000 );
   EXPECT_EQ( full.size(), Trace::RingTrace::capacity );
   EXPECT_EQ( full.front(), "oldest held" );
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
   EXPECT_DEATH( VEXA_ASSERT( "No String constructor for IngKeySet - has collection" == nullptr ),
                 StartsWith( "\"No String constructor for IngKeySet - has collection\" == nullptr\n" ) );
   EXPECT_DEATH( VEXA_ASSERT( false && "unknown entryState" ), StartsWith( "false && \"unknown entryState\"\n" ) );
   EXPECT_DEATH( ( [] { VEXA_ASSERT( std::is_same_v< int, long > ); }() ),
                 StartsWith( "std::is_same_v< int, long >\n" ) );
   int evaluated = 0;
   VEXA_ASSERT( ++evaluated == 1 );
   EXPECT_EQ( evaluated, 1 );  // once, in every build
}

// --- Attributes ------------------------------------------------------------------------------------------------------

Vexa::TypeData const & baseOfThing() {
   static constexpr Vexa::Attribute< Orla::Entity > attributes[] = {
      Vexa::readOnlyAttribute< Orla::Entity, &Thing::twiceKeyVrf >( "twiceKeyVrf" ) };
   static constexpr Vexa::TypeData type{ .name = "Base", .attributes = attributes };
   return type;
}

Vexa::TypeData const & Thing::typeData() const {
   static constexpr Vexa::Attribute< Orla::Entity > attributes[] = {
      Vexa::attribute< Orla::Entity, &Thing::size, &Thing::sizeIs >( "size" ),
      Vexa::methodAttribute< Orla::Entity, &Thing::describe >( "describe" ) };
   static constexpr Vexa::TypeData type{ .name = "Thing", .base = &baseOfThing, .attributes = attributes };
   return type;
}

TEST( Attribute, AccessByNameOrIdAnswersWithItsResult ) {
   using enum Vexa::AttrResult;
   int destroyed = 0;
   auto const thing = Orla::make< Thing >( destroyed );
   std::any value;
   EXPECT_EQ( Vexa::attributeWrite( *thing, "size", U16{ 9 } ), done );
   EXPECT_EQ( Vexa::attributeRead( *thing, "size", value ), done );
   EXPECT_EQ( std::any_cast< U16 >( value ), 9 );
   EXPECT_EQ( Vexa::attributeWrite( *thing, "size", 9 ), notSupported );  // an int is no U16
   EXPECT_EQ( Vexa::attributeRead( *thing, "describe", value ), notSupported );
   EXPECT_EQ( Vexa::attributeRead( *thing, "Size", value ), noSuchAttribute );
   EXPECT_EQ( Vexa::attributeWrite( *thing, "twiceKeyVrf", U32{ 1 } ), notSupported );
   EXPECT_EQ( Vexa::attributeRead( *thing, "twiceKeyVrf", value ), wrongAlternative );
   thing->key = Pfe::TwiceNatMatchKey{ .vrfId = 12 };
   EXPECT_EQ( Vexa::attributeRead( *thing, "twiceKeyVrf", value ), done );
   EXPECT_EQ( std::any_cast< U32 >( value ), 12U );

   std::any const arguments[] = { U32{ 4 }, Orla::String( "number " ) };
   EXPECT_EQ( Vexa::attributeCall( *thing, "describe", arguments, value ), done );
   EXPECT_EQ( std::any_cast< Orla::String >( value ), "number 4" );
   EXPECT_EQ( Vexa::attributeCall( *thing, "describe", std::span( arguments, 1 ), value ), notSupported );
   std::any const swapped[] = { arguments[ 1 ], arguments[ 0 ] };
   EXPECT_EQ( Vexa::attributeCall( *thing, "describe", swapped, value ), notSupported );

   auto const table = thing->typeData().attributes;
   EXPECT_EQ( Vexa::attributeId( table, "size" ), 1U );
   EXPECT_EQ( Vexa::attributeId( table, "describe" ), 2U );
   EXPECT_EQ( Vexa::attributeRead< Orla::Entity >( table, *thing, 1, value ), done );
   for ( U32 const id : { 0U, 3U } ) {
      EXPECT_EQ( Vexa::attributeRead< Orla::Entity >( table, *thing, id, value ), noSuchAttribute );
      EXPECT_EQ( Vexa::attributeWrite< Orla::Entity >( table, *thing, id, value ), noSuchAttribute );
      EXPECT_EQ( Vexa::attributeCall< Orla::Entity >( table, *thing, id, {}, value ), noSuchAttribute );
   }
}

TEST( TypeRegistry, ForgetsAModuleWithItsRegistration ) {
   static constexpr Vexa::TypeData type{ .name = "Registered" };
   static constexpr Vexa::TypeData const * types[] = { &type };
   static constexpr Vexa::Module module{ "module", types };
   {
      auto const registration = Vexa::vexaModuleIs( module );
      EXPECT_EQ( Vexa::moduleOf( "module" ), &module );
      EXPECT_EQ( Vexa::typeOf( "Registered" ), &type );
      EXPECT_EQ( Vexa::typeOf( "registered" ), nullptr );
   }
   EXPECT_EQ( Vexa::moduleOf( "module" ), nullptr );
   EXPECT_EQ( Vexa::typeOf( "Registered" ), nullptr );
}

}  // namespace
