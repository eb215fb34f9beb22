// Which rows a static connection becomes, and what stops the programmer on the way.
#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <tests/support/Programmer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Ip::Nat::NatTarget;
using PfeHelper::NatHwResult;
using Support::staticEntry;
using Support::StaticFields;
using Support::staticKey;
using testing::ElementsAre;
using testing::IsEmpty;

struct StaticProgramming : testing::Test {
   // Adds the rule, directly as the base programmer would, and lets its writes settle.
   Support::Lines rowsAfterAdding( char const * keyPair, Support::StaticEntry const & entry ) {
      nat->addStaticConnection( staticKey( keyPair ), entry );
      nat.settle();
      return nat.tables.text();
   }

   Support::Programmer nat;
};

StaticFields fields( NatTarget target, U8 protocol = 6 ) {
   return { .intfQualifier = 5, .connection = { .target = target, .protocol = protocol } };
}

TEST_F( StaticProgramming, ADestinationRuleMatchesItsKeyAtTheDestination ) {
   EXPECT_THAT(
      rowsAfterAdding( "192.0.2.1:8080", staticEntry( "10.0.0.1:80", fields( NatTarget::destination ) ) ),
      ElementsAre(
         "destination eth1 192.0.2.1:8080 > 10.0.0.1:80 proto 6 | destination 1/5 | twin none | nextHop 0 acl 0",
         "source eth1 10.0.0.1:80 > 192.0.2.1:8080 proto 6 | source 2/5 | twin none | nextHop 0 acl 0",
         "destination 1/5 | 0.0.0.0 > 10.0.0.1:80", "source 2/5 | 192.0.2.1:8080 > 0.0.0.0" ) );
}

TEST_F( StaticProgramming, RowsCarryVrfNextHopAclAndFilters ) {
   StaticFields rule = fields( NatTarget::source, 17 );
   rule.vrfId = 0x01000000;  // wider than a VRF id of dynamic rules
   rule.intfQualifier = 9;
   rule.nextHop = Orla::make< Pfe::NatNextHopId >( 42 );
   rule.aclName = "office";
   rule.filters[ 20 ].source = { Support::ip( "10.2.0.0" ), Support::ip( "255.255.0.0" ) };
   rule.filters[ 10 ].source = { Support::ip( "10.1.0.0" ), Support::ip( "255.255.0.0" ) };
   EXPECT_THAT(
      rowsAfterAdding( "10.0.0.1", staticEntry( "192.0.2.1", rule ) ),
      ElementsAre( "destination eth1 vrf 16777216 192.0.2.1 > 10.0.0.1 proto 17 | destination 2/9 | twin none | "
                   "nextHop 42 acl 1 filter 10.1.0.0/255.255.0.0 filter 10.2.0.0/255.255.0.0",
                   "source eth1 vrf 16777216 10.0.0.1 > 192.0.2.1 proto 17 | source 1/9 | twin none | "
                   "nextHop 42 acl 1 filter 10.1.0.0/255.255.0.0 filter 10.2.0.0/255.255.0.0",
                   "destination 2/9 | 0.0.0.0 > 10.0.0.1", "source 1/9 | 192.0.2.1 > 0.0.0.0" ) );
}

TEST_F( StaticProgramming, WhatARowCarriesIsReplacedInPlaceByAnUpdate ) {
   struct {
      char const * name;
      std::function< void( StaticFields & ) > set;
      char const * carried;
   } const rows[] = {
      { "nothing", []( StaticFields & ) {}, "nextHop 0 acl 0" },
      { "a next hop without id", []( auto & f ) { f.nextHop = Orla::make< Pfe::NatNextHopInfo >(); },
        "nextHop 0 acl 0" },
      { "a next hop", []( auto & f ) { f.nextHop = Orla::make< Pfe::NatNextHopId >( 7 ); }, "nextHop 7 acl 0" },
      { "an access list", []( auto & f ) { f.aclName = "office"; }, "nextHop 0 acl 1" },
      { "another one", []( auto & f ) { f.aclName = "lab"; }, "nextHop 0 acl 2" },
      { "the first one again", []( auto & f ) { f.aclName = "office"; }, "nextHop 0 acl 1" },
      { "filters", []( auto & f ) { f.filters[ 1 ]; }, "nextHop 0 acl 0 filter 0.0.0.0/0.0.0.0" },
      { "disabled filters",
        []( auto & f ) {
           f.filters[ 1 ];
           f.filtersDisabled = true;
        },
        "nextHop 0 acl 0" },
   };
   auto const key = staticKey( "10.0.0.1" );
   nat->addStaticConnection( key, staticEntry( "192.0.2.1" ) );
   nat.settle();
   for ( auto const & row : rows ) {
      SCOPED_TRACE( row.name );
      auto rule = fields( NatTarget::source );
      row.set( rule );
      nat.chip->takeLog();
      nat->updateStaticConnection( key, staticEntry( "192.0.2.1", rule ) );
      nat.settle();
      EXPECT_THAT( nat.chip->takeLog(), testing::Each( testing::StartsWith( "write " ) ) );
      EXPECT_THAT( nat.tables.text(),
                   ElementsAre( std::string( "destination eth1 192.0.2.1 > 10.0.0.1 proto 6 | destination 2/5 | "
                                             "twin none | " ) +
                                   row.carried,
                                std::string( "source eth1 10.0.0.1 > 192.0.2.1 proto 6 | source 1/5 | twin none | " ) +
                                   row.carried,
                                "destination 2/5 | 0.0.0.0 > 10.0.0.1", "source 1/5 | 192.0.2.1 > 0.0.0.0" ) );
   }
}

TEST_F( StaticProgramming, OneDirectionDoesNotReportWhileTheOtherHasNoRow ) {
   auto const rule = staticKey( "10.0.0.1" );
   nat->addStaticConnection( rule, staticEntry( "192.0.2.1", fields( NatTarget::source ) ) );
   std::optional< Pfe::IngStaticNatTable::Key > reply;
   nat.tables.ingress->forEach( [ & ]( auto const & row, auto const &, auto const & ) {
      if ( row.target == NatTarget::destination ) {
         reply = row;
      }
   } );
   nat.tables.ingress->entryRemove( reply.value() );
   nat.tables.hardware->settleNext( Asic::EntryState::settled );  // its rewrite
   nat.tables.hardware->settleNext( Asic::EntryState::settled );
   EXPECT_EQ( nat.result( rule ), std::nullopt );
}

TEST_F( StaticProgramming, WithoutAnAclTableTheAclIsZero ) {
   nat->aclNameIdTableIs( nullptr );
   auto rule = fields( NatTarget::source );
   rule.aclName = "office";
   EXPECT_THAT( rowsAfterAdding( "10.0.0.1", staticEntry( "192.0.2.1", rule ) ),
                testing::Contains( testing::HasSubstr( "nextHop 0 acl 0" ) ).Times( 2 ) );
}

// --- Multicast -------------------------------------------------------------------------------------------------------

constexpr char const * group = "239.0.0.1:5000";
Support::StaticEntry groupEntry() { return staticEntry( "239.1.0.1:5001", fields( NatTarget::destination, 17 ) ); }

TEST_F( StaticProgramming, AMulticastRuleHasOneRewritePerReplicationAndNoReply ) {
   nat.config->fragmentationEnabledIs( true );
   EXPECT_THAT(
      rowsAfterAdding( group, groupEntry() ),
      ElementsAre( "destination eth1 239.0.0.1 > 239.1.0.1 proto 17 mcast fragment | copy 1/0 copy 1/1 | twin none | "
                   "nextHop 0 acl 0",
                   "destination eth1 239.0.0.1:5000 > 239.1.0.1:5001 proto 17 mcast | copy 2/0 copy 2/1 | "
                   "twin 239.0.0.1 > 239.1.0.1 | nextHop 0 acl 0",
                   "copy 1/0 | 0.0.0.0 > 239.1.0.1 by 7", "copy 1/1 | 0.0.0.0 > 239.1.0.1 by 8",
                   "copy 2/0 | 0.0.0.0 > 239.1.0.1 by 7", "copy 2/1 | 0.0.0.0 > 239.1.0.1 by 8" ) );
   EXPECT_EQ( nat.result( staticKey( group ) ), NatHwResult::programmed );
   nat->deleteStaticConnection( staticKey( group ), groupEntry() );
   EXPECT_TRUE( nat.settleToRest() );
   EXPECT_THAT( nat.tables.text(), IsEmpty() );
   ASSERT_EQ( nat.mcast->cleaned.size(), 2U );
   EXPECT_EQ( nat.mcast->cleaned[ 0 ].staticKey().ipAndPortOld, Support::pair( group ) );
   EXPECT_TRUE( nat.mcast->cleaned[ 1 ].staticKey().fragment );
}

TEST_F( StaticProgramming, EitherAddressMakesARuleMulticast ) {
   nat->addStaticConnection( staticKey( "10.0.0.1:80" ), staticEntry( "239.1.0.1:80" ) );
   nat->addStaticConnection( staticKey( "239.0.0.2:80" ), staticEntry( "192.0.2.1:80" ) );
   nat->addStaticConnection( staticKey( "223.255.255.255:80" ), staticEntry( "240.0.0.0:80" ) );
   nat.settle();
   EXPECT_THAT( nat.tables.text(), testing::Contains( testing::HasSubstr( " mcast |" ) ).Times( 2 ) );
   EXPECT_EQ( nat.tables.ingress->rowCount(), 4U );
}

TEST_F( StaticProgramming, ARejectedTranslationWritesNothingAndTakesNoId ) {
   nat.mcast->accepts = []( auto const & ) { return false; };
   nat.config->fragmentationEnabledIs( true );
   auto const entry = groupEntry();
   nat->addStaticConnection( staticKey( group ), entry );
   EXPECT_EQ( nat.result( staticKey( group ) ), NatHwResult::rejectedMulticast );
   EXPECT_EQ( nat.status->staticStatus().find( staticKey( group ) )->entry, entry );
   EXPECT_EQ( nat.tables.hardware->outstanding(), 0U );
   EXPECT_EQ( nat.idsInUse(), 0U );
   EXPECT_FALSE( nat->natIdManager()->natIdBitmap()->bit( 1 ) );
}

TEST_F( StaticProgramming, WithoutTheHookAMulticastRuleTakesTheUnicastPath ) {
   nat->mcastProgrammerHelperIs( nullptr );
   EXPECT_THAT( rowsAfterAdding( group, groupEntry() ),
                ElementsAre( "destination eth1 239.0.0.1:5000 > 239.1.0.1:5001 proto 17 mcast | destination 1/5 | "
                             "twin none | nextHop 0 acl 0",
                             "destination 1/5 | 0.0.0.0 > 239.1.0.1:5001" ) );
   EXPECT_EQ( nat.result( staticKey( group ) ), NatHwResult::programmed );
   nat->deleteStaticConnection( staticKey( group ), groupEntry() );
   EXPECT_TRUE( nat.settleToRest() );
   EXPECT_EQ( nat.idsInUse(), 0U );
}

// --- Sharing of ids --------------------------------------------------------------------------------------------------

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

TEST_F( StaticProgramming, ADerivedProgrammerMayWidenTheSharing ) {
   Support::Programmer wide( {},
                             []( Support::Surroundings const & around, Pfe::NatProgrammerStatus::Ptr const & status ) {
                                return Pfe::NatSwTableProgrammerSm::Ptr(
                                   Orla::make< WideProgrammer >( around.config, status, nullptr, around.natIdInfo ) );
                             } );
   auto const web = staticEntry( "192.0.2.1:80" ), ssh = staticEntry( "192.0.2.1:22" );
   wide->addStaticConnection( staticKey( "10.0.0.1:80" ), web );
   wide->addStaticConnection( staticKey( "10.0.0.1:22" ), ssh );
   wide.settle();
   EXPECT_EQ( wide.idsInUse(), 2U );
   wide->deleteStaticConnection( staticKey( "10.0.0.1:80" ), web );
   EXPECT_TRUE( wide.settleToRest() );
   EXPECT_EQ( wide.idsInUse(), 2U );
   wide->deleteStaticConnection( staticKey( "10.0.0.1:22" ), ssh );
   EXPECT_TRUE( wide.settleToRest() );
   EXPECT_EQ( wide.idsInUse(), 0U );
}

// --- Traces ----------------------------------------------------------------------------------------------------------

TEST_F( StaticProgramming, TracesEachKeyThatItProgramsWithItsMatchKey ) {
   nat.config->fragmentationEnabledIs( true );
   Support::TraceLines trace( 6 );
   auto const ring = Support::ringLinesOf( [ & ] { nat->addStaticConnection( staticKey( group ), groupEntry() ); } );
   auto const matchKeyLine = []( char const * port ) {
      return "6 staticNatMatchKey, natMatchKey: Value('Pfe::NatMatchKey', staticKey=Value('Pfe::StaticNatMatchKey', "
             "natIntf='ethernet1', vrfId=0, ipAndPortOld=Value('Netix::IpAndPort', ip=239.0.0.1, port=" +
             std::string( port ) + "), target=1, protocol=17))";
   };
   EXPECT_THAT( trace.take(), ElementsAre( "6 addStaticConnection, natIntf: eth1, key: 239.0.0.1:5000",
                                           "6 programStaticRule, target: 1, fragment: 1", matchKeyLine( "0" ),
                                           "6 programStaticRule, target: 1, fragment: 0", matchKeyLine( "5000" ) ) );
   EXPECT_THAT( ring, ElementsAre( "NatSwTableProgrammerSm::addStaticConnection, natIntf: eth1, key: 239.0.0.1:5000",
                                   "NatSwTableProgrammerSm::staticNatMatchKey, target: 1, ipAndPortOld: "
                                   "Value('Netix::IpAndPort', ip=239.0.0.1, port=0)",
                                   "NatSwTableProgrammerSm::staticNatMatchKey, target: 1, ipAndPortOld: "
                                   "Value('Netix::IpAndPort', ip=239.0.0.1, port=5000)" ) );
}

// --- Broken contracts ------------------------------------------------------------------------------------------------

using StaticProgrammingDeathTest = StaticProgramming;

TEST_F( StaticProgrammingDeathTest, StopsAtAnInvalidListOfReplications ) {
   nat.mcast->answersValid = false;
   EXPECT_DEATH( nat->addStaticConnection( staticKey( group ), groupEntry() ), "^egrMcastEntry\\.valid\\(\\)\n" );
}

// The fragment handle must fit the settings at every moment; a hook that changes them under way is caught.
TEST_F( StaticProgrammingDeathTest, StopsWhenTheFragmentHandleDoesNotFit ) {
   nat.config->fragmentationEnabledIs( true );
   unsigned asked = 0;
   auto const switchedAt = [ & ]( unsigned question ) {
      asked = 0;
      nat.mcast->whenAsked = [ this, &asked, question ] { nat.config->fragmentationEnabledIs( ++asked != question ); };
      nat->addStaticConnection( staticKey( group ), groupEntry() );
   };
   EXPECT_DEATH( switchedAt( 1 ), "^fragmentationEnabled && fragHdl == dontCareHandle\n" );
   EXPECT_DEATH( switchedAt( 2 ), "^fragHdl == dontCareHandle\n" );
   nat.mcast->whenAsked = {};
   nat.mcast->accepts = [ & ]( auto const & ) { return ++asked == 2; };
   asked = 0;
   EXPECT_DEATH( nat->addStaticConnection( staticKey( group ), groupEntry() ),
                 "^fragHdl && fragHdl != dontCareHandle\n" );
}

TEST( StaticResult, RulesMayGoWhileAllAreDeletedAndAddedAgain ) {
   using Status = Pfe::NatProgrammerStatus::StaticStatus;
   struct Watcher final : Status::Watcher {
      explicit Watcher( Pfe::NatProgrammerConfig & c ) : config( c ) {}
      void onKey( Support::StaticKey const & key, Pfe::NatProgrammerStaticStatusEntry const *,
                  Pfe::NatProgrammerStaticStatusEntry const * current ) override {
         if ( !current && key.key.port % 2 == 0 ) {
            config.staticEntryDel( { key.natIntf, { {}, key.key.ip, static_cast< U16 >( key.key.port + 1 ) } } );
         }
      }
      Pfe::NatProgrammerConfig & config;
   };
   Support::Programmer nat;
   constexpr U32 rules = 20;
   for ( U32 port = 100; port < 100 + rules; ++port ) {
      auto const end = ':' + std::to_string( port );
      nat.config->staticEntryIs( staticKey( ( "10.0.0.1" + end ).c_str() ),
                                 staticEntry( ( "192.0.2.1" + end ).c_str() ) );
   }
   nat.chip->failEvery = 1;
   nat->replay();
   nat.settle();
   Watcher watcher( *nat.config );
   nat.status->staticStatus().watcherIs( watcher );
   nat->deleteAllConnections();  // drops the results of failed rules at once
   EXPECT_EQ( nat.config->staticEntry().count(), rules / 2 );
   nat.chip->failEvery = 0;
   nat->addAllConnections();
   ASSERT_TRUE( nat.settleToRest() );
   nat.status->staticStatus().watcherDel( watcher );
   EXPECT_EQ( nat.status->staticStatus().count(), nat.config->staticEntry().count() );
   EXPECT_EQ( nat.tables.rowCount(), 4 * nat.config->staticEntry().count() );
}

}  // namespace
