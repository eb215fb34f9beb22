// What only twice connections do.
#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <tests/support/Programmer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using PfeHelper::NatHwResult;
using Support::keyOf;
using Support::twiceRule;
using testing::ElementsAre;

struct TwiceProgramming : testing::Test {
   Support::Lines rowsAfterAdding( Support::AnyRule const & rule ) {
      Support::add( *nat.sm, rule );
      nat.settle();
      return nat.tables.text();
   }
   Support::Programmer nat;
   Support::AnyRule const group = twiceRule( "10.0.0.1:80 > 239.0.0.1:5000", "192.0.2.1:81 > 239.1.0.1:5001" );
};

TEST_F( TwiceProgramming, EachDirectionHasATwinIfItMatchesAPortOfItsOwn ) {
   nat.config->fragmentationEnabledIs( true );
   EXPECT_THAT( rowsAfterAdding( twiceRule( "10.0.0.1 > 192.0.2.9", "192.0.2.1 > 10.9.0.9:83" ) ),
                ElementsAre( "forward eth1 10.0.0.1, 192.0.2.9 > 192.0.2.1, 10.9.0.9:83 | source 1/5 | twin none | "
                             "nextHop 0",
                             "reverse eth1 10.9.0.9, 192.0.2.1 > 192.0.2.9, 10.0.0.1 fragment | destination 2/5 | "
                             "twin none | nextHop 0",
                             "reverse eth1 10.9.0.9:83, 192.0.2.1 > 192.0.2.9, 10.0.0.1 | destination 3/5 | "
                             "twin 10.9.0.9, 192.0.2.1 > 192.0.2.9, 10.0.0.1 | nextHop 0",
                             "destination 2/5 | 192.0.2.9 > 10.0.0.1", "destination 3/5 | 192.0.2.9 > 10.0.0.1",
                             "source 1/5 | 192.0.2.1 > 10.9.0.9:83" ) );
}

TEST_F( TwiceProgramming, AMulticastRuleIsCopiedForwardOnlyAndTellsTheHookWhenItIsGone ) {
   nat.config->fragmentationEnabledIs( true );
   EXPECT_THAT( rowsAfterAdding( group ),
                ElementsAre( "forward eth1 10.0.0.1, 239.0.0.1 > 192.0.2.1, 239.1.0.1 mcast fragment | "
                             "copy 1/0 copy 1/1 | twin none | nextHop 0",
                             "forward eth1 10.0.0.1:80, 239.0.0.1:5000 > 192.0.2.1:81, 239.1.0.1:5001 mcast | "
                             "copy 2/0 copy 2/1 | twin 10.0.0.1, 239.0.0.1 > 192.0.2.1, 239.1.0.1 | nextHop 0",
                             "copy 1/0 | 192.0.2.1 > 239.1.0.1 by 7", "copy 1/1 | 192.0.2.1 > 239.1.0.1 by 8",
                             "copy 2/0 | 192.0.2.1 > 239.1.0.1 by 7", "copy 2/1 | 192.0.2.1 > 239.1.0.1 by 8" ) );
   EXPECT_EQ( nat.result( keyOf( group ) ), NatHwResult::programmed );
   Support::del( *nat.sm, group );
   EXPECT_TRUE( nat.settleToRest() );
   ASSERT_EQ( nat.mcast->cleaned.size(), 2U );
   EXPECT_TRUE( nat.mcast->cleaned[ 1 ].twiceKey().fragment );
}

TEST_F( TwiceProgramming, AnyOfItsAddressesMakesARuleMulticast ) {
   for ( auto const & rule : { twiceRule( "239.0.0.1 > 10.0.0.1", "192.0.2.1 > 192.0.2.2" ),
                               twiceRule( "10.0.0.2 > 239.0.0.2", "192.0.2.3 > 192.0.2.4" ),
                               twiceRule( "10.0.0.3 > 10.0.0.4", "239.0.0.3 > 192.0.2.5" ),
                               twiceRule( "10.0.0.5 > 10.0.0.6", "192.0.2.6 > 239.0.0.4" ) } ) {
      Support::add( *nat.sm, rule );
   }
   nat.settle();
   EXPECT_THAT( nat.tables.text(), testing::Contains( testing::HasSubstr( " mcast |" ) ).Times( 4 ) );
   EXPECT_EQ( nat.tables.twice->rowCount(), 4U );
}

TEST_F( TwiceProgramming, ARejectedTranslationWritesNothingTakesNoIdAndGoesAtOnce ) {
   nat.mcast->accepts = []( auto const & ) { return false; };
   nat.config->fragmentationEnabledIs( true );
   Support::add( *nat.sm, group );
   EXPECT_EQ( nat.result( keyOf( group ) ), NatHwResult::rejectedMulticast );
   EXPECT_EQ( nat.tables.hardware->outstanding(), 0U );
   EXPECT_EQ( nat.idsInUse(), 0U );
   Support::del( *nat.sm, group );
   EXPECT_EQ( nat.result( keyOf( group ) ), std::nullopt );
}

using TwiceProgrammingDeathTest = TwiceProgramming;

TEST_F( TwiceProgrammingDeathTest, StopsBeforeTheTablesAreReadyUnlessACleanupDropsTheRequest ) {
   nat->initializedIs( false );
   EXPECT_DEATH( Support::add( *nat.sm, group ), "^initialized\\(\\)\n" );
   nat->cleanupInProgressIs( true );
   Support::add( *nat.sm, group );
   nat->cleanupInProgressIs( false );
   Support::del( *nat.sm, group );
   EXPECT_EQ( nat.tables.rowCount(), 0U );
}

}  // namespace
