// Ingress keys of all tables, sets of them, and what hashes them.
#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <tests/support/Programmer.h>
#include <tests/support/RandomValue.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>

namespace {

using Pfe::IngKeySet;
using Pfe::IngNatTableKey;
using testing::ExitedWithCode;
using Vexa::AttrResult;

// --- The six alternatives --------------------------------------------------------------------------------------------

struct Alternative {
   std::string name;
   IngNatTableKey defaultKey;
   IngNatTableKey ( *random )( Support::Random & );
   std::any value;  // of the alternative's own type
   U32 ( *ownHash )( IngNatTableKey const & );
};

template< class Key > Alternative alternative( char const * name ) {
   return { name, Key(),
            []( Support::Random & random ) { return IngNatTableKey( Support::randomValue< Key >( random ) ); }, Key(),
            []( IngNatTableKey const & key ) { return Vexa::hash( key.get< Key >(), 0 ); } };
}

std::array const alternatives{ alternative< Pfe::IngStaticNatTable::Key >( "staticKey" ),
                               alternative< Pfe::IngTwiceNatTable::Key >( "twiceKey" ),
                               alternative< Pfe::IngDynamicSnaptTable::Key >( "dynamicSnaptKey" ),
                               alternative< Pfe::IngDynamicDnaptTable::Key >( "dynamicDnaptKey" ),
                               alternative< Pfe::IngDynamicSnatAddrOnlyTable::Key >( "dynamicSnatAddrOnlyKey" ),
                               alternative< Pfe::IngDynamicDnatAddrOnlyTable::Key >( "dynamicDnatAddrOnlyKey" ) };

TEST( IngNatTableKey, TagOrderHashAndTextFollowTheAlternativesPosition ) {
   for ( std::size_t i = 0; i < alternatives.size(); ++i ) {
      SCOPED_TRACE( alternatives[ i ].name );
      Support::Random random( static_cast< U32 >( i ) );
      EXPECT_EQ( alternatives[ i ].defaultKey.tag(), static_cast< int >( i ) );
      for ( int round = 0; round < 200; ++round ) {
         auto const key = alternatives[ i ].random( random );
         auto const text = Vexa::stringOf( key );
         EXPECT_TRUE(
            text.starts_with( "Value('Pfe::IngNatTableKey', " + alternatives[ i ].name + "=Value('Pfe::Ing" ) );
         EXPECT_EQ( Vexa::parseWhole< IngNatTableKey >( text ), key ) << text;

         Vexa::Hash hash( 77 );
         hash.mix( static_cast< U32 >( i ) );
         hash.mix( alternatives[ i ].ownHash( key ) );
         EXPECT_EQ( key.hash( 77 ), hash.result() );
         EXPECT_EQ( Vexa::hash( key ), key.hash( 0 ) );

         auto const other = random() % alternatives.size();
         auto const otherKey = alternatives[ other ].random( random );
         if ( other != i ) {
            EXPECT_NE( key, otherKey );
            EXPECT_EQ( key < otherKey, i < other );
         }
         EXPECT_EQ( isEq( key, otherKey ), key == otherKey );
         EXPECT_EQ( key <=> key, std::strong_ordering::equal );
      }
   }
}

TEST( IngNatTableKey, PrintsWhole ) {
   EXPECT_EQ( Vexa::stringOf( IngNatTableKey(
                 Pfe::IngDynamicSnatAddrOnlyTable::Key{ Netix::VrfId( 3 ), 4, Support::ip( "10.0.0.1" ) } ) ),
              "Value('Pfe::IngNatTableKey', dynamicSnatAddrOnlyKey=Value('Pfe::IngDynamicSnatAddrOnlyTable::Key', "
              "vrfId=3, intfQualifier=4, ip=10.0.0.1))" );
   EXPECT_EQ( Vexa::stringOf( IngNatTableKey(
                 Support::ingressKey( Ip::Nat::NatTarget::destination, "192.0.2.1:80", "10.0.0.1:8080" ) ) ),
              "Value('Pfe::IngNatTableKey', staticKey=Value('Pfe::IngStaticNatTableKey', natIntf='ethernet1', vrfId=0, "
              "ipAndPortOld=Value('Netix::IpAndPort', ip=192.0.2.1, port=80), "
              "ipAndPortNew=Value('Netix::IpAndPort', ip=10.0.0.1, port=8080), target=1, protocol=6, fragment=0, "
              "mcast=0))" );
}

TEST( IngNatTableKey, OnlyTheDefaultStaticKeyCountsAsNotSet ) {
   EXPECT_FALSE( IngNatTableKey() );
   EXPECT_EQ( IngNatTableKey(), alternatives[ 0 ].defaultKey );
   EXPECT_TRUE( IngNatTableKey( Pfe::IngStaticNatTable::Key{ .mcast = true } ) );
   for ( std::size_t i = 1; i < alternatives.size(); ++i ) {
      EXPECT_TRUE( alternatives[ i ].defaultKey ) << alternatives[ i ].name;
   }
}

TEST( IngNatTableKey, AlternativesAreReadWhileHeldAndWrittenAtAnyTime ) {
   auto const table = IngNatTableKey::attributeTable();
   ASSERT_EQ( table.size(), 12U );
   for ( U32 i = 0; i < 6; ++i ) {
      auto const & [ name, key, random, value, ownHash ] = alternatives[ i ];
      SCOPED_TRACE( name );
      EXPECT_EQ( table[ i ].name, name );
      auto test = "contains" + name;
      test[ 8 ] = static_cast< char >( std::toupper( test[ 8 ] ) );
      EXPECT_EQ( table[ i + 6 ].name, test );
      EXPECT_EQ( Vexa::attributeId( table, name ), i + 1 );

      // Written over each of the others.
      for ( auto const & before : alternatives ) {
         auto written = before.defaultKey;
         EXPECT_EQ( Vexa::attributeWrite( table, written, i + 1, value ), AttrResult::done );
         EXPECT_EQ( written, key );
      }
      for ( U32 read = 0; read < 6; ++read ) {
         std::any got;
         EXPECT_EQ( Vexa::attributeRead( table, key, read + 1, got ),
                    read == i ? AttrResult::done : AttrResult::wrongAlternative );
         EXPECT_EQ( got.has_value(), read == i );
         EXPECT_EQ( Vexa::attributeRead( table, key, read + 7, got ), AttrResult::done );
         EXPECT_EQ( std::any_cast< bool >( got ), read == i );
      }
      auto untouched = key;
      EXPECT_EQ( Vexa::attributeWrite( table, untouched, i + 7, std::any( true ) ), AttrResult::notSupported );
      EXPECT_EQ( Vexa::attributeWrite( table, untouched, i + 1, std::any( 1 ) ), AttrResult::notSupported );
      EXPECT_EQ( untouched, key );
   }
   std::any value;
   IngNatTableKey key;
   for ( U32 const id : { 0u, 13u } ) {
      EXPECT_EQ( Vexa::attributeRead( table, key, id, value ), AttrResult::noSuchAttribute );
      EXPECT_EQ( Vexa::attributeWrite( table, key, id, value ), AttrResult::noSuchAttribute );
   }
   EXPECT_EQ( Vexa::attributeCall( table, key, 1, {}, value ), AttrResult::notSupported );
   EXPECT_THROW( key.twiceKey(), Vexa::BadUnionAccessException );
}

// --- Parsing ---------------------------------------------------------------------------------------------------------

template< class Exception > std::string errorOf( std::string_view text ) {
   try {
      Vexa::parseWhole< IngNatTableKey >( text );
   } catch ( Exception const & error ) {
      return error.what();
   } catch ( Vexa::Exception const & error ) {
      return "of another kind: " + std::string( error.what() );
   }
   return "none";
}

TEST( IngNatTableKey, NamesWhatItCanNotRead ) {
   struct {
      char const *text, *error;
   } const rangeErrors[] = {
      { "Value('Pfe::IngNatTableKey', statickey=1)",
        "Invalid string rep for IngNatTableKey:  unknown alternative statickey" },
      { "Value('Pfe::IngNatTableKey', staticKeys=1)",
        "Invalid string rep for IngNatTableKey:  unknown alternative staticKeys" },
      { "Value('Pfe::IngNatTableKey', =1)", "Invalid string rep for IngNatTableKey:  unknown alternative " },
      { "Value('Pfe::IngNatTableKey', staticKey",
        "Invalid string rep for IngNatTableKey:  unknown alternative staticKey" },
      { "Value('Pfe::IngNatTableKey', twiceKey)",
        "Invalid string rep for IngNatTableKey:  unknown alternative twiceKey)" },
      { "Value('Pfe::IngNatTableKey', ", "Invalid string rep for IngNatTableKey" },
      { "Value('Pfe::IngNatTableKey', dynamicSnaptKey=Value('Pfe::IngDynamicSnaptTable::Key', vrfId=16777216,",
        "dynamicSnaptKey: vrfId: VrfId::value > 0x00ffffff not allowed" },
   };
   for ( auto const & row : rangeErrors ) {
      EXPECT_EQ( errorOf< Vexa::RangeException >( row.text ), row.error ) << row.text;
   }
   auto const text = Vexa::stringOf( alternatives[ 5 ].defaultKey );
   struct {
      std::string text, error;
   } const parseErrors[] = {
      { "", "expected \"Value('\" at \"\"" },
      { "Value('Pfe::NatMatchKey', staticKey=",
        "expected \"Pfe::IngNatTableKey\" at \"Pfe::NatMatchKey', staticKey=\"" },
      { "Value('Pfe::IngNatTableKey',staticKey=", "expected \", \" at \",staticKey=\"" },
      { "Value('Pfe::IngNatTableKey', twiceKey=Value('Pfe::IngStatic",
        "twiceKey: expected \"Pfe::IngTwiceNatTableKey\" at \"Pfe::IngStatic\"" },
      { text.substr( 0, text.size() - 1 ), "expected \")\" at \"\"" },
      { text + ", more", "unexpected text \", more\" at the end" },
   };
   for ( auto const & row : parseErrors ) {
      EXPECT_EQ( errorOf< Vexa::ParseException >( row.text ), row.error ) << row.text;
   }
}

TEST( IngNatTableKey, LeavesTheTextBehindIt ) {
   auto const text = Vexa::stringOf( alternatives[ 3 ].defaultKey ) + ", next=1";
   Vexa::CharRange range( text );
   EXPECT_EQ( IngNatTableKey( range ), alternatives[ 3 ].defaultKey );
   EXPECT_EQ( range.rest(), ", next=1" );
}

// --- Sets ------------------------------------------------------------------------------------------------------------

IngNatTableKey keyNumber( U32 i ) { return Pfe::IngStaticNatTable::Key{ .vrfId = i }; }

TEST( IngKeySet, CountsEachKeyOnce ) {
   IngKeySet set;
   EXPECT_FALSE( set );
   set.entryDel( keyNumber( 1 ) );
   for ( U32 const i : { 1u, 2u, 1u, 3u, 2u } ) {
      set.entryIs( keyNumber( i ) );
   }
   EXPECT_EQ( set.entrys(), 3U );
   auto const copy = set;
   set.entryDel( keyNumber( 9 ) );
   set.entryDel( keyNumber( 2 ) );
   EXPECT_EQ( set.entrys(), 2U );
   EXPECT_FALSE( set.entryHas( keyNumber( 2 ) ) );
   EXPECT_TRUE( copy.entryHas( keyNumber( 2 ) ) );
   EXPECT_FALSE( isEq( set, copy ) );
   set.entryDel( keyNumber( 1 ) );
   EXPECT_TRUE( set );
   set.entryDelAll();
   EXPECT_FALSE( set );
   EXPECT_TRUE( isEq( set, IngKeySet() ) );
}

TEST( IngKeySet, EqualsWhateverTheOrderAndPrintsInTheKeysOrder ) {
   IngKeySet forward, backward;
   std::string text;
   for ( U32 i = 0; i < 20; ++i ) {
      forward.entryIs( keyNumber( i ) );
      backward.entryIs( keyNumber( 19 - i ) );
      text += ( i == 0 ? " " : ", " ) + Vexa::stringOf( keyNumber( i ) );
   }
   EXPECT_EQ( forward, backward );
   EXPECT_EQ( Vexa::stringOf( backward ), "Value('Pfe::IngKeySet', entry={" + text + " })" );
   EXPECT_EQ( Vexa::stringOf( IngKeySet() ), "Value('Pfe::IngKeySet', entry={})" );
}

TEST( IngKeySet, IsNeitherHashedNorRead ) {
   EXPECT_THROW( IngKeySet().hash( 0 ), Vexa::UnhashableTypeException );
   Vexa::CharRange text( "Value('Pfe::IngKeySet', entry={})" );
   EXPECT_DEATH( IngKeySet{ text }, "^\"No String constructor for IngKeySet - has collection\" == nullptr\n" );
}

// --- Ids and seeds ---------------------------------------------------------------------------------------------------

TEST( NatId, HoldsOneToSixteenBits ) {
   EXPECT_EQ( Pfe::NatId().value(), 1 );
   EXPECT_EQ( Pfe::NatId( 65535 ).value(), 65535 );
   for ( U64 const value : { U64{ 0 }, U64{ 65536 }, U64{ 65537 }, Brix::HBitmap::null() } ) {
      try {
         Pfe::NatId id( value );
         ADD_FAILURE() << value;
      } catch ( Vexa::RangeException const & error ) {
         EXPECT_STREQ( error.what(), "Pfe::NatId::value < Pfe::NatId::min or > Pfe::NatId::max not allowed" );
      }
   }
}

// Iteration orders hang on these.
static_assert( std::is_same_v< decltype( IngKeySet().entry() ), Vexa::HashSet< IngNatTableKey, 0x40D8D6CD > const & > );
static_assert(
   std::is_same_v< Pfe::NatIdManager::MatchKeyToIngKeySet, Vexa::HashMap< Pfe::NatMatchKey, IngKeySet, 0xA955D84F > > );
static_assert(
   std::is_same_v< Pfe::NatIdInfo::MatchKeyToNatId, Vexa::HashMap< Pfe::NatMatchKey, Pfe::NatId, 0x540EAFC5 > > );

}  // namespace
