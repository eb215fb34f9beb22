// Ingress keys of all tables, sets of them, and what hashes them.
#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <tests/support/Programmer.h>
#include <tests/support/RandomValue.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

namespace {

using Pfe::IngKeySet;
using Pfe::IngNatTableKey;
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
      EXPECT_EQ( bool( alternatives[ i ].defaultKey ), i != 0 ) << "only the default static key counts as not set";
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
         EXPECT_EQ( key <=> key, std::strong_ordering::equal );
      }
   }
}

TEST( IngNatTableKey, PrintsWhole ) {
   EXPECT_EQ( Vexa::stringOf( IngNatTableKey(
                 Pfe::IngDynamicSnatAddrOnlyTable::Key{ Netix::VrfId( 3 ), 4, Support::ip( "10.0.0.1" ) } ) ),
              "Value('Pfe::IngNatTableKey', dynamicSnatAddrOnlyKey=Value('Pfe::IngDynamicSnatAddrOnlyTable::Key', "
              "vrfId=3, intfQualifier=4, ip=10.0.0.1))" );
}

TEST( IngNatTableKey, AlternativesAreReadWhileHeldAndWrittenAtAnyTime ) {
   auto const table = IngNatTableKey::attributeTable();
   ASSERT_EQ( table.size(), 12U );
   std::any got;
   for ( U32 i = 0; i < 6; ++i ) {
      auto const & [ name, key, random, value, ownHash ] = alternatives[ i ];
      SCOPED_TRACE( name );
      EXPECT_EQ( table[ i ].name, name );
      auto test = "contains" + name;
      test[ 8 ] = static_cast< char >( std::toupper( test[ 8 ] ) );
      EXPECT_EQ( table[ i + 6 ].name, test );
      for ( U32 other = 0; other < 6; ++other ) {
         auto written = alternatives[ other ].defaultKey;
         EXPECT_EQ( Vexa::attributeWrite( table, written, i + 1, value ), AttrResult::done );
         EXPECT_EQ( written, key );
         EXPECT_EQ( Vexa::attributeRead( table, key, other + 1, got ),
                    other == i ? AttrResult::done : AttrResult::wrongAlternative );
         EXPECT_EQ( Vexa::attributeRead( table, key, other + 7, got ), AttrResult::done );
         EXPECT_EQ( std::any_cast< bool >( got ), other == i );
      }
      auto untouched = key;
      EXPECT_EQ( Vexa::attributeWrite( table, untouched, i + 7, std::any( true ) ), AttrResult::notSupported );
   }
   EXPECT_THROW( IngNatTableKey().twiceKey(), Vexa::BadUnionAccessException );
}

// --- Sets ------------------------------------------------------------------------------------------------------------

TEST( IngKeySet, EqualsWhateverTheOrderPrintsInTheKeysOrderAndIsNeitherHashedNorRead ) {
   auto const keyNumber = []( U32 i ) { return IngNatTableKey( Pfe::IngStaticNatTable::Key{ .vrfId = i } ); };
   IngKeySet forward, backward;
   std::string text;
   for ( U32 i = 0; i < 20; ++i ) {
      forward.entryIs( keyNumber( i ) );
      backward.entryIs( keyNumber( 19 - i ) );
      text += ( i == 0 ? " " : ", " ) + Vexa::stringOf( keyNumber( i ) );
   }
   EXPECT_EQ( forward, backward );
   EXPECT_EQ( Vexa::stringOf( backward ), "Value('Pfe::IngKeySet', entry={" + text + " })" );
   auto const copy = forward;
   forward.entryDel( keyNumber( 2 ) );
   forward.entryDel( keyNumber( 2 ) );
   EXPECT_EQ( forward.entrys(), 19U );
   EXPECT_TRUE( copy.entryHas( keyNumber( 2 ) ) && !forward.entryHas( keyNumber( 2 ) ) );
   forward.entryDelAll();
   EXPECT_FALSE( forward );
   EXPECT_EQ( Vexa::stringOf( forward ), "Value('Pfe::IngKeySet', entry={})" );

   EXPECT_THROW( IngKeySet().hash( 0 ), Vexa::UnhashableTypeException );
   Vexa::CharRange range( "Value('Pfe::IngKeySet', entry={})" );
   EXPECT_DEATH( IngKeySet{ range }, "^\"No String constructor for IngKeySet - has collection\" == nullptr\n" );
}

// Iteration orders hang on these.
static_assert( std::is_same_v< decltype( IngKeySet().entry() ), Vexa::HashSet< IngNatTableKey, 0x40D8D6CD > const & > );
static_assert(
   std::is_same_v< Pfe::NatIdManager::MatchKeyToIngKeySet, Vexa::HashMap< Pfe::NatMatchKey, IngKeySet, 0xA955D84F > > );
static_assert(
   std::is_same_v< Pfe::NatIdInfo::MatchKeyToNatId, Vexa::HashMap< Pfe::NatMatchKey, Pfe::NatId, 0x540EAFC5 > > );

}  // namespace
