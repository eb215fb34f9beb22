// The egress rewrites of one multicast translation.
#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <tests/support/Programmer.h>

#include <gtest/gtest.h>

namespace {

using Pfe::EgrMcastEntry;
using Info = Pfe::EgrMcastEntry::EgrMcastInfo;

Info info( U16 replication ) {
   Pfe::EgrNatMcRewriteEntry entry;
   entry.dstIp = Support::ip( "239.1.0.1" );
   entry.egressIntf = 7;
   return { { Pfe::NatId( 3 ), replication }, entry };
}

EgrMcastEntry entryOf( std::initializer_list< U16 > replications, bool valid = true ) {
   EgrMcastEntry entry;
   for ( auto const replication : replications ) {
      entry.entryPush( info( replication ) );
   }
   entry.validIs( valid );
   return entry;
}

TEST( EgrMcastEntry, EqualsByValidityLengthAndOrder ) {
   EXPECT_EQ( EgrMcastEntry(), EgrMcastEntry() );
   EXPECT_FALSE( EgrMcastEntry().valid() );
   struct {
      char const * name;
      EgrMcastEntry a, b;
      bool equal;
   } const rows[] = {
      { "same", entryOf( { 1, 2, 3 } ), entryOf( { 1, 2, 3 } ), true },
      { "validity", entryOf( { 1 } ), entryOf( { 1 }, false ), false },
      { "order", entryOf( { 1, 2 } ), entryOf( { 2, 1 } ), false },
      { "shorter", entryOf( { 1, 2 } ), entryOf( { 1 } ), false },
      { "ninth of nine", entryOf( { 0, 1, 2, 3, 4, 5, 6, 7, 8 } ), entryOf( { 0, 1, 2, 3, 4, 5, 6, 7, 9 } ), false },
   };
   for ( auto const & row : rows ) {
      EXPECT_EQ( row.a == row.b, row.equal ) << row.name;
      EXPECT_EQ( row.b == row.a, row.equal ) << row.name;
   }
}

TEST( EgrMcastEntry, ReplacesWhatIsThereAndDoesNotGrowThatWay ) {
   EgrMcastEntry entry;
   EXPECT_THROW( entry.entryIs( 0, info( 1 ) ), Vexa::VectorOutOfRangeException );
   EXPECT_EQ( entry.entrys(), 0U );
   entry.entryPush( info( 1 ) );
   entry.entryIs( 0, info( 2 ) );
   EXPECT_EQ( entry.entry( 0 ), info( 2 ) );
   EXPECT_THROW( entry.entryIs( 1, info( 1 ) ), Vexa::VectorOutOfRangeException );
   EXPECT_THROW( entry.entry( 1 ), Vexa::VectorOutOfRangeException );
   EXPECT_EQ( entry.entrys(), 1U );
}

TEST( EgrMcastEntry, PopsInReverseUntilItIsEmpty ) {
   auto entry = entryOf( { 1, 2, 3 } );
   EXPECT_EQ( entry.entryFirst(), info( 1 ) );
   EXPECT_EQ( entry.entryLast(), info( 3 ) );
   auto const copy = entry;
   for ( U16 const expected : { 3, 2, 1 } ) {
      EXPECT_EQ( entry.entryPop(), info( expected ) );
   }
   EXPECT_THROW( entry.entryPop(), Vexa::EmptyVectorException );
   EXPECT_THROW( entry.entryFirst(), Vexa::EmptyVectorException );
   EXPECT_THROW( entry.entryLast(), Vexa::EmptyVectorException );
   EXPECT_TRUE( entry.valid() );
   EXPECT_EQ( copy.entrys(), 3U );
   entry = copy;
   entry.entryPopAll();
   EXPECT_EQ( entry.entrys(), 0U );
}

TEST( EgrMcastEntry, IsNotReadFromText ) {
   EXPECT_EQ( Vexa::stringOf( entryOf( { 1, 2 } ) ), "Value('Pfe::EgrMcastEntry', entry=[ " +
                                                        Vexa::stringOf( info( 1 ) ) + ", " +
                                                        Vexa::stringOf( info( 2 ) ) + " ], valid=1)" );
   EXPECT_EQ( Vexa::stringOf( EgrMcastEntry() ), "Value('Pfe::EgrMcastEntry', entry=[], valid=0)" );
   Vexa::CharRange text( "Value('Pfe::EgrMcastEntry', entry=[], valid=0)" );
   EXPECT_DEATH( EgrMcastEntry{ text }, "^\"No String constructor for EgrMcastEntry - has collection\" == nullptr\n" );
}

TEST( EgrMcastInfo, IsSetOnceKeyOrEntryDiffersFromTheDefault ) {
   EXPECT_FALSE( Info() );
   EXPECT_TRUE( Info( { Pfe::NatId( 1 ), 1 }, {} ) );
   EXPECT_TRUE( Info( { Pfe::NatId( 2 ), 0 }, {} ) );
   Pfe::EgrNatMcRewriteEntry entry;
   entry.flags = 1;
   EXPECT_TRUE( Info( {}, entry ) );
}

TEST( EgrMcastInfo, ReadsWhatItPrintsAndNamesTheAttributeThatFails ) {
   std::string const text =
      "Value('Pfe::EgrMcastEntry::EgrMcastInfo', key=Value('Pfe::EgrNatMcRewriteKey', natId=3, replication=2), "
      "entry=Value('Pfe::EgrNatMcRewriteEntry', srcIp=0.0.0.0, dstIp=239.1.0.1, egressIntf=7, flags=0))";
   EXPECT_EQ( Vexa::stringOf( info( 2 ) ), text );
   EXPECT_EQ( Vexa::parseWhole< Info >( text ), info( 2 ) );

   struct {
      char const *from, *to, *error;
   } const rows[] = {
      { "natId=3", "natId=0", "key: natId: Pfe::NatId::value < Pfe::NatId::min or > Pfe::NatId::max not allowed" },
      { "flags=0", "flags=256", "entry: flags: number out of range at \"256))\"" },
      { "replication", "copy", "key: expected \"replication\" at \"copy=2), entry=Value('Pfe::EgrNatMcRewri...\"" },
      { "EgrMcastInfo", "EgrMcast",
        "expected \"Value('Pfe::EgrMcastEntry::EgrMcastInfo', key=\" at "
        "\"Value('Pfe::EgrMcastEntry::EgrMcast', ke...\"" },
   };
   for ( auto const & row : rows ) {
      auto damaged = text;
      damaged.replace( damaged.find( row.from ), std::string_view( row.from ).size(), row.to );
      try {
         Vexa::parseWhole< Info >( damaged );
         ADD_FAILURE() << damaged;
      } catch ( Vexa::Exception const & error ) {
         EXPECT_STREQ( error.what(), row.error );
      }
   }
}

}  // namespace
