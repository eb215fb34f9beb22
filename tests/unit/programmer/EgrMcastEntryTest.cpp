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
   EXPECT_FALSE( EgrMcastEntry().valid() );
   EXPECT_EQ( entryOf( { 1, 2, 3 } ), entryOf( { 1, 2, 3 } ) );
   EXPECT_NE( entryOf( { 1 } ), entryOf( { 1 }, false ) );
   EXPECT_NE( entryOf( { 1, 2 } ), entryOf( { 2, 1 } ) );
   EXPECT_NE( entryOf( { 1, 2 } ), entryOf( { 1 } ) );
   EXPECT_NE( entryOf( { 0, 1, 2, 3, 4, 5, 6, 7, 8 } ), entryOf( { 0, 1, 2, 3, 4, 5, 6, 7, 9 } ) );
   auto entry = entryOf( { 1 } );
   EXPECT_THROW( entry.entryIs( 1, info( 2 ) ), Vexa::VectorOutOfRangeException );
   EXPECT_EQ( entry.entryPop(), info( 1 ) );
   EXPECT_THROW( entry.entryPop(), Vexa::EmptyVectorException );
}

TEST( EgrMcastEntry, IsNotReadFromText ) {
   EXPECT_EQ( Vexa::stringOf( entryOf( { 1, 2 } ) ), "Value('Pfe::EgrMcastEntry', entry=[ " +
                                                        Vexa::stringOf( info( 1 ) ) + ", " +
                                                        Vexa::stringOf( info( 2 ) ) + " ], valid=1)" );
   EXPECT_EQ( Vexa::stringOf( EgrMcastEntry() ), "Value('Pfe::EgrMcastEntry', entry=[], valid=0)" );
   Vexa::CharRange text( "Value('Pfe::EgrMcastEntry', entry=[], valid=0)" );
   EXPECT_DEATH( EgrMcastEntry{ text }, "^\"No String constructor for EgrMcastEntry - has collection\" == nullptr\n" );
}

TEST( EgrMcastInfo, ReadsWhatItPrintsAndNamesTheAttributeThatFails ) {
   std::string const text =
      "Value('Pfe::EgrMcastEntry::EgrMcastInfo', key=Value('Pfe::EgrNatMcRewriteKey', natId=3, replication=2), "
      "entry=Value('Pfe::EgrNatMcRewriteEntry', srcIp=0.0.0.0, dstIp=239.1.0.1, egressIntf=7, flags=0))";
   EXPECT_EQ( Vexa::stringOf( info( 2 ) ), text );
   EXPECT_EQ( Vexa::parseWhole< Info >( text ), info( 2 ) );
   EXPECT_TRUE( info( 2 ) && !Info() ) << "set once it differs from the default";
   auto damaged = text;
   damaged.replace( damaged.find( "flags=0" ), 7, "flags=256" );
   try {
      Vexa::parseWhole< Info >( damaged );
      ADD_FAILURE() << damaged;
   } catch ( Vexa::Exception const & error ) {
      EXPECT_STREQ( error.what(), "entry: flags: number out of range at \"256))\"" );
   }
}

}  // namespace
