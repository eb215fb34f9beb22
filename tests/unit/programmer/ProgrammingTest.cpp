// What histories of rules do not reach: what rows carry at the edges, missing collaborators, broken contracts.
#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <tests/support/Programmer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Support::AnyRule;
using Support::staticEntry;
using Support::StaticFields;
using Support::staticKey;
using Support::StaticRule;
using Support::twiceRule;
using testing::Contains;
using testing::HasSubstr;

struct Programming : testing::Test {
   // Directly, as the base programmer would; its writes settle.
   void add( AnyRule const & rule ) {
      Support::add( *nat.sm, rule );
      nat.settle();
   }

   Support::Programmer nat;
   Pfe::IngStaticNatTable & ruleRows = *nat.tables.all.of< Pfe::IngStaticNatTable >();
   StaticRule const group{
      staticKey( "239.0.0.1:5000" ),
      staticEntry( "239.1.0.1:5001",
                   { .intfQualifier = 5, .connection = { .target = Ip::Nat::NatTarget::destination } } ) };
};

TEST_F( Programming, RowsCarryAWideVrfAndNoAclWithoutItsTable ) {
   StaticFields fields{ .intfQualifier = 9, .connection = { .protocol = 17 } };
   fields.vrfId = 0x01000000;  // wider than a VRF id of dynamic rules
   fields.aclName = "office";
   StaticRule const rule{ staticKey( "10.0.0.1" ), staticEntry( "192.0.2.1", fields ) };
   for ( U32 const aclId : { 1, 0 } ) {
      add( rule );
      ruleRows.forEach( [ & ]( auto const & key, auto const & entry, auto const & ) {
         EXPECT_EQ( std::pair( key.vrfId, entry.aclId ), std::pair( fields.vrfId, aclId ) );
      } );
      EXPECT_EQ( ruleRows.rowCount(), 2U );
      nat->aclNameIdTableIs( nullptr );
   }
}

TEST_F( Programming, AnyOfItsAddressesMakesARuleMulticast ) {
   AnyRule const rules[] = { StaticRule{ staticKey( "10.0.0.1:80" ), staticEntry( "239.1.0.1:80" ) },
                             StaticRule{ staticKey( "239.0.0.2:80" ), staticEntry( "192.0.2.1:80" ) },
                             twiceRule( "239.0.0.1 > 10.0.0.1", "192.0.2.1 > 192.0.2.2" ),
                             twiceRule( "10.0.0.2 > 239.0.0.2", "192.0.2.3 > 192.0.2.4" ),
                             twiceRule( "10.0.0.3 > 10.0.0.4", "239.0.0.3 > 192.0.2.5" ),
                             twiceRule( "10.0.0.5 > 10.0.0.6", "192.0.2.6 > 239.0.0.4" ) };
   for ( auto const & rule : rules ) {
      add( rule );
   }
   EXPECT_THAT( nat.tables.text(), Contains( HasSubstr( ", mcast=1)" ) ).Times( std::size( rules ) ) );
   add( StaticRule{ staticKey( "223.255.255.255:80" ), staticEntry( "240.0.0.0:80" ) } );
   EXPECT_THAT( nat.tables.text(), Contains( HasSubstr( ", mcast=0)" ) ).Times( 2 ) );
}

TEST_F( Programming, WithoutTheHookAMulticastRuleTakesTheUnicastPath ) {
   nat->mcastProgrammerHelperIs( nullptr );
   add( group );
   EXPECT_EQ( nat.result( group.key ), PfeHelper::NatHwResult::programmed );
   EXPECT_EQ( nat.tables.all.of< Pfe::EgrDestinationNatUcRewriteTable >()->rowCount(), 1U );
   EXPECT_EQ( nat.tables.rowCount(), 2U ) << "and no reply";
   Support::del( *nat.sm, group );
   EXPECT_TRUE( nat.settleToRest() );
   EXPECT_EQ( nat.idsInUse(), 0U );
}

TEST_F( Programming, OneDirectionDoesNotReportWhileTheOtherHasNoRow ) {
   StaticRule const rule{ staticKey( "10.0.0.1" ), staticEntry( "192.0.2.1" ) };
   Support::add( *nat.sm, rule );
   auto const reply = Support::ingressKey( Ip::Nat::NatTarget::destination, "192.0.2.1", "10.0.0.1" );
   ASSERT_TRUE( ruleRows.entry( reply ) );
   ruleRows.entryRemove( reply );
   nat.tables.hardware->settleNext( Asic::EntryState::settled );  // its rewrite
   nat.tables.hardware->settleNext( Asic::EntryState::settled );
   EXPECT_EQ( nat.result( rule.key ), std::nullopt );
}

// A programmer whose ids do not tell ports apart.
class WideProgrammer final : public Pfe::NatSwTableProgrammerSm {
 public:
   using NatSwTableProgrammerSm::NatSwTableProgrammerSm;
   Pfe::NatMatchKey staticNatMatchKey( Pfe::IngStaticNatTable::Key const & ingKey ) const override {
      auto wider = ingKey;
      wider.ipAndPortOld.port = 0;
      return NatSwTableProgrammerSm::staticNatMatchKey( wider );
   }
};

TEST_F( Programming, ADerivedProgrammerMayWidenTheSharing ) {
   Support::Programmer wide( {},
                             []( Support::Surroundings const & around, Pfe::NatProgrammerStatus::Ptr const & status ) {
                                return Pfe::NatSwTableProgrammerSm::Ptr(
                                   Orla::make< WideProgrammer >( around.config, status, nullptr, around.natIdInfo ) );
                             } );
   StaticRule const web{ staticKey( "10.0.0.1:80" ), staticEntry( "192.0.2.1:80" ) };
   StaticRule const ssh{ staticKey( "10.0.0.1:22" ), staticEntry( "192.0.2.1:22" ) };
   Support::add( *wide.sm, web );
   Support::add( *wide.sm, ssh );
   wide.settle();
   for ( auto const & [ goes, left ] : { std::pair( &web, 2U ), { &ssh, 0U } } ) {
      EXPECT_EQ( wide.idsInUse(), 2U );
      Support::del( *wide.sm, *goes );
      EXPECT_TRUE( wide.settleToRest() );
      EXPECT_EQ( wide.idsInUse(), left );
   }
}

// --- Broken contracts ------------------------------------------------------------------------------------------------

using ProgrammingDeathTest = Programming;

TEST_F( ProgrammingDeathTest, StopsAtAnInvalidListOfReplications ) {
   nat.mcast->answersValid = false;
   EXPECT_DEATH( Support::add( *nat.sm, group ), "^egrMcastEntry\\.valid\\(\\)\n" );
}

// The fragment handle must fit the settings at every moment; a hook that changes them under way is caught.
TEST_F( ProgrammingDeathTest, StopsWhenTheFragmentHandleDoesNotFit ) {
   nat.config->fragmentationEnabledIs( true );
   unsigned asked = 0;
   auto const switchedAt = [ & ]( unsigned question ) {
      nat.mcast->whenAsked = [ this, &asked, question ] { nat.config->fragmentationEnabledIs( ++asked != question ); };
      Support::add( *nat.sm, group );
   };
   EXPECT_DEATH( switchedAt( 1 ), "^fragmentationEnabled && fragHdl == dontCareHandle\n" );
   EXPECT_DEATH( switchedAt( 2 ), "^fragHdl == dontCareHandle\n" );
   nat.mcast->accepts = [ & ]( auto const & ) { return ++asked == 2; };
   EXPECT_DEATH( Support::add( *nat.sm, group ), "^fragHdl && fragHdl != dontCareHandle\n" );
}

TEST_F( ProgrammingDeathTest, StopsBeforeTheTablesAreReadyUnlessACleanupDropsTheRequest ) {
   auto const twice = twiceRule( "10.0.0.1:80 > 239.0.0.1:5000", "192.0.2.1:81 > 239.1.0.1:5001" );
   nat->initializedIs( false );
   EXPECT_DEATH( Support::add( *nat.sm, twice ), "^initialized\\(\\)\n" );
   nat->cleanupInProgressIs( true );
   Support::add( *nat.sm, twice );
   EXPECT_EQ( nat.tables.rowCount(), 0U );
}

}  // namespace
