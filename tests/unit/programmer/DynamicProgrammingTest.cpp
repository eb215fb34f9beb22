// What only learned connections do, NAPT and address-only.
#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <tests/support/Programmer.h>

#include <Vexa/Exception.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Ip::Nat::NatTarget;
using PfeHelper::NatHwResult;
using Support::dynamicRule;
using Support::keyOf;
using testing::ElementsAre;

struct DynamicProgramming : testing::Test {
   Support::Lines rowsAfterAdding( Support::AnyRule const & rule ) {
      Support::add( *nat.sm, rule );
      nat.settle();
      return nat.tables.text();
   }
   Support::Programmer nat;
};

Support::DynamicRule::Fields fields( NatTarget target, bool addrOnly = false, bool fullCone = false ) {
   return { .intfQualifier = 5, .connection = { target, addrOnly, fullCone } };
}

// Only rows of the destination tables send packets to the next hop.
TEST_F( DynamicProgramming, ADestinationTargetMatchesTheFlowAtItsDestination ) {
   auto napt = fields( NatTarget::destination );
   napt.vrfId = 0x00ffffff;
   napt.nextHop = Orla::make< Pfe::NatNextHopId >( 42 );
   EXPECT_THAT(
      rowsAfterAdding( dynamicRule( "203.0.113.1:4000 > 192.0.2.1:80", "10.0.0.1:8080", napt ) ),
      ElementsAre( "dnapt q5 vrf 16777215 203.0.113.1:4000, 192.0.2.1:80 proto 6 | destination 2/5 | twin none | "
                   "natId 2 nextHop 42",
                   "snapt q5 vrf 16777215 10.0.0.1:8080, 203.0.113.1:4000 proto 6 | source 1/5 | twin none | "
                   "natId 1 nextHop 0",
                   "destination 2/5 | 0.0.0.0 > 10.0.0.1:8080", "source 1/5 | 192.0.2.1:80 > 0.0.0.0" ) );
   nat.tables.clear();
   auto addrOnly = fields( NatTarget::destination, true );
   addrOnly.nextHop = napt.nextHop;
   EXPECT_THAT( rowsAfterAdding( dynamicRule( "203.0.113.1:4000 > 192.0.2.1:80", "10.0.0.1:8080", addrOnly ) ),
                ElementsAre( "dnat q5 192.0.2.1 | destination 4/5 | twin none | natId 4 nextHop 42",
                             "snat q5 10.0.0.1 | source 3/5 | twin none | natId 3 nextHop 0",
                             "destination 4/5 | 0.0.0.0 > 10.0.0.1:8080", "source 3/5 | 192.0.2.1:80 > 0.0.0.0" ) );
}

TEST_F( DynamicProgramming, AnEntryWithoutPortsHoldsNoTwinSoItsTableTakesThatOutAgain ) {
   nat.config->fragmentationEnabledIs( true );
   auto const rule = dynamicRule( "10.0.0.1 > 203.0.113.1", "192.0.2.1:5000" );
   Support::add( *nat.sm, rule );
   ASSERT_TRUE( nat.settleToRest() );
   EXPECT_THAT( nat.chip->takeLog(),
                testing::IsSupersetOf( { testing::AllOf( testing::StartsWith( "write ingDynamicSnaptTable" ),
                                                         testing::HasSubstr( "fragment=1" ) ),
                                         testing::AllOf( testing::StartsWith( "remove ingDynamicSnaptTable" ),
                                                         testing::HasSubstr( "fragment=1" ) ) } ) );
   EXPECT_THAT( nat.tables.text(),
                ElementsAre( "dnapt q5 203.0.113.1, 192.0.2.1 proto 6 fragment | destination 2/5 | twin none | "
                             "natId 2 nextHop 0",
                             "dnapt q5 203.0.113.1, 192.0.2.1:5000 proto 6 | destination 3/5 | "
                             "twin 203.0.113.1, 192.0.2.1 | natId 3 nextHop 0",
                             "snapt q5 10.0.0.1, 203.0.113.1 proto 6 | source 1/5 | twin none | natId 1 nextHop 0",
                             "destination 2/5 | 0.0.0.0 > 10.0.0.1", "destination 3/5 | 0.0.0.0 > 10.0.0.1",
                             "source 1/5 | 192.0.2.1:5000 > 0.0.0.0" ) );
   EXPECT_EQ( nat.result( keyOf( rule ) ), NatHwResult::programmed );
}

TEST_F( DynamicProgramming, FullConeConnectionsAreLeftAloneWhereTheyAreProgrammedElsewhere ) {
   for ( bool const addrOnly : { false, true } ) {
      auto const rule = dynamicRule( "10.0.0.1:4000 > 203.0.113.1:443", "192.0.2.1:5000",
                                     fields( NatTarget::source, addrOnly, true ) );
      nat.capabilities->fullConeProgrammedIs( true );
      Support::add( *nat.sm, rule );
      nat.settle();
      EXPECT_EQ( nat.tables.rowCount(), 4U );
      nat.capabilities->fullConeProgrammedIs( false );
      Support::update( *nat.sm, rule );
      Support::del( *nat.sm, rule );
      EXPECT_EQ( nat.tables.hardware->outstanding(), 0U );
      EXPECT_EQ( nat.result( keyOf( rule ) ), NatHwResult::programmed );
      nat.capabilities->fullConeProgrammedIs( true );
      Support::del( *nat.sm, rule );
      ASSERT_TRUE( nat.settleToRest() );
      EXPECT_EQ( nat.tables.rowCount(), 0U );
   }
}

TEST_F( DynamicProgramming, AVrfThatNoKeyHoldsIsRefusedUnlessTheVrfDoesNotMatter ) {
   for ( bool const addrOnly : { false, true } ) {
      auto wide = fields( NatTarget::source, addrOnly );
      wide.vrfId = 0x01000000;
      auto const rule = dynamicRule( "10.0.0.1:4000 > 203.0.113.1:443", "192.0.2.1:5000", wide );
      nat.config->vrfLessIs( false );
      for ( auto const operation : { &Support::add, &Support::update, &Support::del } ) {
         try {
            operation( *nat.sm, rule );
            ADD_FAILURE() << "accepted";
         } catch ( Vexa::RangeException const & error ) {
            EXPECT_STREQ( error.what(), "VrfId::value > 0x00ffffff not allowed" );
         }
      }
      EXPECT_EQ( nat.tables.hardware->outstanding(), 0U );
      EXPECT_EQ( nat.idsInUse(), 0U );
      nat.config->vrfLessIs( true );
      EXPECT_THAT( rowsAfterAdding( rule ), testing::Each( testing::Not( testing::HasSubstr( "vrf" ) ) ) );
      Support::del( *nat.sm, rule );
      ASSERT_TRUE( nat.settleToRest() );
      EXPECT_EQ( nat.tables.rowCount(), 0U );
   }
}

TEST_F( DynamicProgramming, TheKeysTellWhetherTheChipRecognisesTheProtocol ) {
   auto rule = dynamicRule( "10.0.0.1:4000 > 203.0.113.1:443", "192.0.2.1:5000" );
   rule.key.conn.protocol = 17;
   EXPECT_THAT( rowsAfterAdding( rule ), testing::Contains( testing::HasSubstr( " proto 17 l4 | " ) ).Times( 2 ) );
   Support::del( *nat.sm, rule );
   ASSERT_TRUE( nat.settleToRest() );
   nat->dynamicNatProgrammerHelperIs( nullptr );
   EXPECT_THAT( rowsAfterAdding( rule ), testing::Contains( testing::HasSubstr( " proto 17 | " ) ).Times( 2 ) );
}

// Multicast addresses mean nothing here.
TEST_F( DynamicProgramming, NoTranslationIsRejected ) {
   nat.mcast->accepts = []( auto const & ) { return false; };
   auto const rule = dynamicRule( "10.0.0.1:4000 > 239.0.0.1:443", "192.0.2.1:5000" );
   EXPECT_EQ( rowsAfterAdding( rule ).size(), 4U );
   EXPECT_EQ( nat.result( keyOf( rule ) ), NatHwResult::programmed );
}

}  // namespace
