// Interface mode: static rules as entries of the software-table configuration, and who depends on which of them.
#include "PfeNat/PfeNatProgrammerIntfModeSm.h"

#include <tests/support/Programmer.h>
#include <tests/support/SwTableText.h>

#include <Vexa/Type.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

namespace {

using Ip::Nat::NatTarget;
using Pfe::NatProgrammerIntfModeSm;
using Pfe::NatProgrammerStaticMap;
using Pfe::NatSwTableStaticKey;
using Support::Lines;
using Support::staticKey;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

// --- Words -----------------------------------------------------------------------------------------------------------

// TCP from a local address to 192.0.2.1:8080; the qualifier tells entries apart.
Support::StaticEntry onVlan( U16 vlanId, U16 qualifier = 5, NatTarget target = NatTarget::source ) {
   return Support::staticEntry(
      "192.0.2.1:8080",
      { .vlanId = vlanId, .intfQualifier = qualifier, .connection = { .target = target, .protocol = 6 } } );
}

auto const onEth1 = staticKey( "10.0.0.1:80", "ethernet1" );
auto const onEth2 = staticKey( "10.0.0.1:80", "ethernet2" );

NatSwTableStaticKey forwardKey() {
   return { .ipAndPortOld = Support::pair( "10.0.0.1:80" ),
            .ipAndPortNew = Support::pair( "192.0.2.1:8080" ),
            .protocol = 6 };
}

NatSwTableStaticKey reverseKey( U16 vlanId ) {
   return { .ipAndPortOld = Support::pair( "192.0.2.1:8080" ),
            .ipAndPortNew = Support::pair( "10.0.0.1:80" ),
            .vlanId = Bridging::VlanIdOrNone( vlanId ),
            .reverse = true,
            .protocol = 6 };
}

struct InterfaceMode : testing::Test {
   Lines text() const { return Support::swTableText( *swTableConfig ); }
   NatProgrammerStaticMap & dependencies() const { return *sm->staticConfigMap(); }

   Pfe::NatProgrammerConfig::Ptr const config = Orla::make< Pfe::NatProgrammerConfig >();
   Pfe::NatProgrammerStatus::Ptr const status = Orla::make< Pfe::NatProgrammerStatus >();
   Pfe::NatSwTableConfig::Ptr const swTableConfig = Orla::make< Pfe::NatSwTableConfig >();
   Pfe::NatSwTableStatus::Ptr const swTableStatus = Orla::make< Pfe::NatSwTableStatus >();
   NatProgrammerIntfModeSm::Ptr sm =
      Pfe::natProgrammerIntfModeSmFactory( config, status, swTableConfig, swTableStatus );
};

std::string rangeErrorOf( std::function< void() > const & operation ) {
   try {
      operation();
   } catch ( Vexa::RangeException const & error ) {
      return error.what();
   }
   return "nothing raised";
}

// --- Dependencies ----------------------------------------------------------------------------------------------------

TEST( Dependencies, GoBothWaysAndLeaveNoEmptySet ) {
   auto const map = Pfe::natProgrammerStaticMapFactory();
   auto const first = onVlan( 10 ), second = onVlan( 20 );
   map->addDependency( forwardKey(), onEth1, first );
   map->addDependency( forwardKey(), onEth1, second );
   map->addDependency( reverseKey( 20 ), onEth1, second );
   map->addDependency( forwardKey(), onEth2, first );
   EXPECT_EQ( map->progKeyToSwTableKeysMap( onEth1 )->entrys(), 2U );
   EXPECT_EQ( map->progKeyToSwTableKeysMap( onEth1 )->progEntry(), second );
   EXPECT_EQ( map->progKeyToSwTableKeysMap( onEth1 )->progKey(), onEth1 );
   EXPECT_EQ( map->swTableKeyToProgKeysMap( forwardKey() )->entrys(), 2U );
   EXPECT_EQ( map->swTableKeyToProgKeysMap( forwardKey() )->swTableKey(), forwardKey() );
   EXPECT_THAT( Pfe::getVlanIdsForSwTableEntry( map, forwardKey() ),
                UnorderedElementsAre( Bridging::VlanId( 20 ), Bridging::VlanId( 10 ) ) );
   EXPECT_THAT( Pfe::getVlanIdsForSwTableEntry( map, reverseKey( 30 ) ), IsEmpty() );

   map->delDependency( forwardKey(), onEth2 );
   EXPECT_FALSE( map->progKeyToSwTableKeysMapHas( onEth2 ) );
   EXPECT_FALSE( map->progKeyToSwTableKeysMap( onEth2 ) );
   EXPECT_EQ( first->referenceCount(), 1U );
   EXPECT_TRUE( map->swTableKeyToProgKeysMapHas( forwardKey() ) );
   map->delDependency( forwardKey(), onEth1 );
   EXPECT_FALSE( map->swTableKeyToProgKeysMapHas( forwardKey() ) );
   EXPECT_TRUE( map->progKeyToSwTableKeysMapHas( onEth1 ) );
   map->delDependency( reverseKey( 20 ), onEth1 );
   EXPECT_EQ( map->progKeyToSwTableKeysMap().count() + map->swTableKeyToProgKeysMap().count(), 0U );
}

// A pair in one direction only: not a dependency, and not one that could be deleted.
TEST( Dependencies, NeedBothDirections ) {
   auto const map = Pfe::natProgrammerStaticMapFactory();
   auto const stopsAtFirst = StartsWith(
      "progKeyToSwTableKeysMapHas( progKey ) && progKeyToSwTableKeysMap( progKey )->entryHas( swTableKey )\n" );
   auto const stopsAtSecond = StartsWith(
      "swTableKeyToProgKeysMapHas( swTableKey ) && swTableKeyToProgKeysMap( swTableKey )->entryHas( progKey )\n" );
   auto const key = forwardKey();
   auto const deletes = [ & ] { map->delDependency( key, onEth1 ); };

   EXPECT_FALSE( map->hasDependency( key, onEth1 ) );
   EXPECT_DEATH( deletes(), stopsAtFirst );
   map->progKeyToSwTableKeysMapIs( onEth1 );
   EXPECT_DEATH( deletes(), stopsAtFirst );
   map->progKeyToSwTableKeysMapIs( onEth1 )->entryIs( key );
   EXPECT_FALSE( map->hasDependency( key, onEth1 ) );
   EXPECT_DEATH( deletes(), stopsAtSecond );
   map->swTableKeyToProgKeysMapIs( key )->entryIs( onEth2 );
   EXPECT_FALSE( map->hasDependency( key, onEth1 ) );
   EXPECT_DEATH( deletes(), stopsAtSecond );
   EXPECT_DEATH( Pfe::getVlanIdsForSwTableEntry( map, key ),
                 StartsWith( "configMap->progKeyToSwTableKeysMapHas( progKey )\n" ) );

   map->swTableKeyToProgKeysMapIs( key )->entryIs( onEth1 );
   EXPECT_TRUE( map->hasDependency( key, onEth1 ) );
   map->progKeyToSwTableKeysMap( onEth1 )->entryDelAll();
   EXPECT_FALSE( map->hasDependency( key, onEth1 ) );
   map->progKeyToSwTableKeysMapDelAll();
   map->swTableKeyToProgKeysMap( key )->entryDelAll();
   map->swTableKeyToProgKeysMapDelAll();
   EXPECT_FALSE( map->swTableKeyToProgKeysMapHas( key ) );
}

TEST( Dependencies, AreTracedWithBothKeys ) {
   auto const map = Pfe::natProgrammerStaticMapFactory();
   Support::TraceLines trace( 6 );
   auto const rest = ", swTableKey: " + Vexa::stringOf( forwardKey() ) + ", progKey: " + Vexa::stringOf( onEth1 );
   map->hasDependency( forwardKey(), onEth1 );
   map->addDependency( forwardKey(), onEth1, onVlan( 10 ) );
   map->delDependency( forwardKey(), onEth1 );
   EXPECT_THAT( trace.take(), ElementsAre( "6 NatProgrammerStaticMap::hasDependency" + rest,
                                           "6 NatProgrammerStaticMap::addDependency" + rest,
                                           "6 NatProgrammerStaticMap::delDependency" + rest ) );
}

// --- Entries ---------------------------------------------------------------------------------------------------------

struct EntryCase {
   char const * name;
   Support::StaticKey key;
   char const * translated;
   Support::StaticFields fields;
   Lines expected;
};

TEST_F( InterfaceMode, ARuleBecomesAnEntryPerSide ) {
   EntryCase const cases[] = {
      { "target source",
        staticKey( "10.0.0.1:80", "ethernet1", "lab" ),
        "192.0.2.1:8080",
        { .vrfId = 7, .vlanId = 10, .intfQualifier = 5, .connection = { .protocol = 6 } },
        { "forward 10.0.0.1:80 > 192.0.2.1:8080 proto 6 vrf 7 acl lab | vlans 10 fragment of 5",
          "reverse 192.0.2.1:8080 > 10.0.0.1:80 proto 6 vlan 10 vrf 7 acl lab | vlans 10 fragment of 5" } },
      { "target destination, the same rows",
        staticKey( "192.0.2.1:8080", "ethernet1", "lab" ),
        "10.0.0.1:80",
        { .vrfId = 7, .vlanId = 10, .connection = { .target = NatTarget::destination, .protocol = 6 } },
        { "forward 10.0.0.1:80 > 192.0.2.1:8080 proto 6 vrf 7 acl lab | vlans 10 fragment of 0",
          "reverse 192.0.2.1:8080 > 10.0.0.1:80 proto 6 vlan 10 vrf 7 acl lab | vlans 10 fragment of 0" } },
      { "no local port",
        staticKey( "10.0.0.1" ),
        "192.0.2.1:8080",
        { .vlanId = 4094 },
        { "forward 10.0.0.1 > 192.0.2.1:8080 proto 0 | vlans 4094 of 0",
          "reverse 192.0.2.1:8080 > 10.0.0.1 proto 0 vlan 4094 | vlans 4094 fragment of 0" } },
      { "multicast source",
        staticKey( "239.0.0.1:80" ),
        "239.1.0.1:80",
        { .vlanId = 1 },
        { "forward 239.0.0.1:80 > 239.1.0.1:80 proto 0 mcast | vlans 1 fragment of 0" } },
      { "multicast destination",
        staticKey( "10.0.0.1:80" ),
        "239.1.0.1:80",
        { .vlanId = 1, .connection = { .target = NatTarget::destination } },
        { "reverse 10.0.0.1:80 > 239.1.0.1:80 proto 0 vlan 1 mcast | vlans 1 fragment of 0" } },
   };
   config->fragmentationEnabledIs( true );
   for ( auto const & c : cases ) {
      SCOPED_TRACE( c.name );
      auto const entry = Support::staticEntry( c.translated, c.fields );
      sm->addStaticConnection( c.key, entry );
      EXPECT_EQ( text(), c.expected );
      EXPECT_EQ( ( *swTableConfig->staticEntry().begin() ).second->programmerEntry(), entry );
      sm->deleteStaticConnection( c.key, entry );
      EXPECT_THAT( text(), IsEmpty() );
   }
   EXPECT_EQ( dependencies().progKeyToSwTableKeysMap().count(), 0U );
   config->fragmentationEnabledIs( false );
   sm->addStaticConnection( onEth1, onVlan( 10 ) );
   EXPECT_FALSE( swTableConfig->staticEntry( forwardKey() )->fragment() );
   EXPECT_EQ( status->staticStatus().count(), 0U );
}

TEST_F( InterfaceMode, TwoInterfacesWithOneRuleShareOneEntryCarryingBothVlans ) {
   std::string const forward = "forward 10.0.0.1:80 > 192.0.2.1:8080 proto 6 | vlans ";
   std::string const reverse = "reverse 192.0.2.1:8080 > 10.0.0.1:80 proto 6 vlan ";
   sm->addStaticConnection( onEth1, onVlan( 10, 1 ) );
   auto const shared = swTableConfig->staticEntry( forwardKey() );
   sm->addStaticConnection( onEth2, onVlan( 20, 2 ) );
   EXPECT_THAT( text(),
                ElementsAre( forward + "10 20 of 2", reverse + "10 | vlans 10 of 1", reverse + "20 | vlans 20 of 2" ) );
   EXPECT_EQ( shared->vlanId().count(), 1U ) << "an entry that is in a collection does not change";

   // The entry that stays is made from the rule that goes.
   sm->deleteStaticConnection( onEth1, onVlan( 10, 3 ) );
   EXPECT_THAT( text(), ElementsAre( forward + "20 of 3", reverse + "20 | vlans 20 of 2" ) );
   sm->deleteStaticConnection( onEth2, onVlan( 20, 2 ) );
   EXPECT_THAT( text(), IsEmpty() );

   // On one VLAN they share the reverse entry too.
   sm->addStaticConnection( onEth1, onVlan( 10, 1 ) );
   sm->addStaticConnection( onEth2, onVlan( 10, 2 ) );
   EXPECT_THAT( text(), ElementsAre( forward + "10 of 2", reverse + "10 | vlans 10 of 2" ) );
   sm->deleteStaticConnection( onEth2, onVlan( 10, 2 ) );
   EXPECT_THAT( text(), ElementsAre( forward + "10 of 2", reverse + "10 | vlans 10 of 2" ) );
}

TEST_F( InterfaceMode, AnUpdateRewritesAndRemovesNothing ) {
   sm->addStaticConnection( onEth1, onVlan( 10, 1 ) );
   sm->updateStaticConnection( onEth1, onVlan( 10, 2 ) );
   Lines const before{ "forward 10.0.0.1:80 > 192.0.2.1:8080 proto 6 | vlans 10 of 2",
                       "reverse 192.0.2.1:8080 > 10.0.0.1:80 proto 6 vlan 10 | vlans 10 of 2" };
   EXPECT_EQ( text(), before );
   sm->updateStaticConnection( onEth1, onVlan( 20, 3 ) );
   EXPECT_THAT( text(), ElementsAre( "forward 10.0.0.1:80 > 192.0.2.1:8080 proto 6 | vlans 20 of 3", before[ 1 ],
                                     "reverse 192.0.2.1:8080 > 10.0.0.1:80 proto 6 vlan 20 | vlans 20 of 3" ) );
   EXPECT_EQ( dependencies().progKeyToSwTableKeysMap( onEth1 )->entrys(), 3U );
}

// --- Range errors ----------------------------------------------------------------------------------------------------

constexpr char const * noVlanId = "Bridging::VlanId::value < 1 or > 4094 not allowed";
constexpr char const * noVlanIdOrNone = "Bridging::VlanIdOrNone::value > 4094 not allowed";

TEST_F( InterfaceMode, AVlanIdAboveItsRangeChangesNothing ) {
   for ( auto const vlanId : { 4095, 65535 } ) {
      auto const entry = onVlan( static_cast< U16 >( vlanId ) );
      EXPECT_EQ( rangeErrorOf( [ & ] { sm->addStaticConnection( onEth1, entry ); } ), noVlanIdOrNone );
      EXPECT_EQ( rangeErrorOf( [ & ] { sm->deleteStaticConnection( onEth1, entry ); } ), noVlanIdOrNone );
   }
   EXPECT_THAT( text(), IsEmpty() );
   EXPECT_EQ( dependencies().progKeyToSwTableKeysMap().count(), 0U );
}

// By design the dependency stays, and keeps others from the entry until it has a VLAN.
TEST_F( InterfaceMode, ARuleWithoutVlanLeavesItsDependencyBehindAndNoEntry ) {
   EXPECT_EQ( rangeErrorOf( [ & ] { sm->addStaticConnection( onEth1, onVlan( 0 ) ); } ), noVlanId );
   EXPECT_THAT( text(), IsEmpty() );
   EXPECT_TRUE( dependencies().hasDependency( forwardKey(), onEth1 ) );
   EXPECT_FALSE( dependencies().hasDependency( reverseKey( 0 ), onEth1 ) );
   EXPECT_EQ( rangeErrorOf( [ & ] { sm->addStaticConnection( onEth2, onVlan( 20 ) ); } ), noVlanId );
   EXPECT_THAT( text(), IsEmpty() );

   sm->addStaticConnection( onEth1, onVlan( 10 ) );
   EXPECT_THAT( text(), ElementsAre( "forward 10.0.0.1:80 > 192.0.2.1:8080 proto 6 | vlans 10 20 of 5",
                                     "reverse 192.0.2.1:8080 > 10.0.0.1:80 proto 6 vlan 10 | vlans 10 of 5" ) );
}

TEST_F( InterfaceMode, TheBaseCountsWhatRaisesAndRemembersOnlyWhatDidNot ) {
   config->staticEntryIs( onEth1, onVlan( 0 ) );
   EXPECT_EQ( sm->rangeErrorCount(), 1U );
   EXPECT_EQ( sm->refusedCount(), 0U );
   EXPECT_EQ( status->staticStatus().count(), 0U );
   Support::TraceLines trace( 6 );
   config->staticEntryDel( onEth1 );
   EXPECT_THAT( trace.take(), IsEmpty() );

   // A changed VLAN changes the reverse key: deleted with the old entry, added with the new one.
   config->staticEntryIs( onEth1, onVlan( 10 ) );
   config->staticEntryIs( onEth1, onVlan( 20 ) );
   EXPECT_THAT( text(), ElementsAre( "forward 10.0.0.1:80 > 192.0.2.1:8080 proto 6 | vlans 20 of 5",
                                     "reverse 192.0.2.1:8080 > 10.0.0.1:80 proto 6 vlan 20 | vlans 20 of 5" ) );
   config->staticEntryDel( onEth1 );
   EXPECT_THAT( text(), IsEmpty() );
}

// --- Requests --------------------------------------------------------------------------------------------------------

TEST_F( InterfaceMode, StaticRequestsAreTracedInBothChannelsUnderTheirOddNames ) {
   auto const key = staticKey( "10.0.0.1:80", "port-channel3", "lab" );
   std::string const text = ", natIntf: port-channel3, key: 10.0.0.1:80 acl 'lab'";
   std::string const ring = ", natIntf: po3, key: 10.0.0.1:80 acl 'lab'";
   Support::TraceLines trace( 6 );
   auto const ringLines = Support::ringLinesOf( [ & ] {
      sm->addStaticConnection( key, onVlan( 10 ) );
      sm->updateStaticConnection( key, onVlan( 10 ) );
      sm->deleteStaticConnection( key, onVlan( 10 ) );
   } );
   EXPECT_THAT( ringLines, ElementsAre( "NatSwTableProgrammerSm::addStaticConnection" + ring,
                                        "NatSwTableProgrammerSm::addStaticConnection" + ring,
                                        "NatSwTableProgrammerSm::deleteStaticConnection" + ring ) );
   auto const dependency = []( char const * operation ) {
      return StartsWith( std::string( "6 NatProgrammerStaticMap::" ) + operation );
   };
   auto const add = dependency( "addDependency, " ), del = dependency( "delDependency, " );
   EXPECT_THAT( trace.take(),
                ElementsAre( "6 addStaticConnection" + text, add, add,
                             "6 NatProgrammerIntfModeSm::updateStaticConnection", "6 addStaticConnection" + text, add,
                             add, "6 deleteStaticConnection" + text, del, del ) );
}

TEST_F( InterfaceMode, OtherRulesAreTracedAndIgnored ) {
   auto const twice = Orla::make< Pfe::NatProgrammerTwiceEntry const >( Pfe::NatProgrammerTwiceEntry::Fields{} );
   auto const dynamic = Orla::make< Pfe::NatProgrammerDynamicEntry const >( Pfe::NatProgrammerDynamicEntry::Fields{} );
   auto const trap = Orla::make< Pfe::NatProgrammerTrapEntry const >( 0, Ip::Nat::NatDynamicTrapRule{} );
   Support::TraceLines trace( 9 );
   auto const ring = Support::ringLinesOf( [ & ] {
      sm->addTwiceConnection( {}, twice );
      sm->updateTwiceConnection( {}, twice );
      sm->deleteTwiceConnection( {}, twice );
      sm->addDynamicConnection( {}, dynamic );
      sm->updateDynamicConnection( {}, dynamic );
      sm->deleteDynamicConnection( {}, dynamic );
      sm->addTrap( {}, trap );
      sm->deleteTrap( {}, trap );
      sm->handleStaticSwTableStatus( {}, {} );
   } );
   EXPECT_THAT( ring, IsEmpty() );
   Lines expected;
   for ( auto const * operation : { "addTwiceConnection", "updateTwiceConnection", "deleteTwiceConnection",
                                    "addDynamicConnection", "updateDynamicConnection", "deleteDynamicConnection",
                                    "addTrap", "deleteTrap", "handleStaticSwTableStatus" } ) {
      expected.push_back( std::string( "6 NatProgrammerIntfModeSm::" ) + operation );
   }
   EXPECT_EQ( trace.take(), expected );
   EXPECT_THAT( text(), IsEmpty() );
   EXPECT_EQ( status->twiceStatus().count() + status->dynamicStatus().count(), 0U );
}

TEST_F( InterfaceMode, ProfilesStopTheAgent ) {
   auto const stops = StartsWith( "false && \"profile config mode not supported\"\n" );
   EXPECT_DEATH( sm->setNatProfile( 10, 1 ), stops );
   EXPECT_DEATH( sm->clearNatProfile( 10 ), stops );
}

// --- Life ------------------------------------------------------------------------------------------------------------

TEST_F( InterfaceMode, TakesWhatIsConfiguredWhenItIsCreatedAndLeavesItsEntriesWhenItGoes ) {
   sm = nullptr;
   config->staticEntryIs( onEth1, onVlan( 10 ) );
   EXPECT_THAT( text(), IsEmpty() );
   swTableStatus->staticEntryIs( forwardKey(), {} );
   Support::TraceLines trace( 6 );
   sm = Pfe::natProgrammerIntfModeSmFactory( config, status, swTableConfig, swTableStatus );
   auto const lines = trace.take();
   EXPECT_EQ( lines.front(), "6 NatProgrammerIntfModeSm::handleStaticSwTableStatus" );
   EXPECT_THAT( lines[ 1 ], StartsWith( "6 addStaticConnection" ) );
   EXPECT_EQ( text().size(), 2U );
   config->staticEntryIs( onEth2, onVlan( 20 ) );
   EXPECT_EQ( text().size(), 3U );
   EXPECT_EQ( sm->staticConfigMapIs(), sm->staticConfigMap() );
   EXPECT_NE( sm->staticStatusMapIs(), sm->staticConfigMap() );
   EXPECT_EQ( sm->staticStatusMap()->progKeyToSwTableKeysMap().count(), 0U );

   sm->vexaDoZombieReactors( true );
   config->staticEntryDel( onEth2 );
   EXPECT_EQ( text().size(), 3U );
   EXPECT_EQ( sm->referenceCount(), 1U );
   sm = nullptr;
   EXPECT_EQ( text().size(), 3U );
   EXPECT_EQ( swTableConfig->referenceCount(), 1U );
   EXPECT_EQ( swTableStatus->referenceCount(), 1U );
   EXPECT_EQ( status->referenceCount(), 1U );
}

// Adding the n-th interface writes one entry with n VLANs and one with its own, and nothing else.
TEST_F( InterfaceMode, OneRuleOnEveryVlanTakesHalfTheSquareOfVlanInsertions ) {
   struct : Vexa::KeyWatcher< NatSwTableStaticKey, Pfe::NatSwTableStaticEntry::PtrConst > {
      void onKey( NatSwTableStaticKey const &, Pfe::NatSwTableStaticEntry::PtrConst const *,
                  Pfe::NatSwTableStaticEntry::PtrConst const * current ) override {
         insertions += current ? ( *current )->vlanId().count() : 0;
         ++changes;
      }
      U64 insertions = 0, changes = 0;
   } written;
   swTableConfig->staticEntry().watcherIs( written );
   constexpr U16 n = Bridging::VlanId::max;
   auto const keyOn = []( U16 vlanId ) { return staticKey( "10.0.0.1:80", "vlan" + std::to_string( vlanId ) ); };
   for ( U16 vlanId = 1; vlanId <= n; ++vlanId ) {
      sm->addStaticConnection( keyOn( vlanId ), onVlan( vlanId ) );
   }
   EXPECT_EQ( written.insertions, U64{ n } * ( n + 1 ) / 2 + n );
   EXPECT_EQ( written.changes, 2U * n );
   for ( U16 vlanId = 1; vlanId <= n; ++vlanId ) {
      sm->deleteStaticConnection( keyOn( vlanId ), onVlan( vlanId ) );
   }
   EXPECT_EQ( written.insertions, U64{ n } * n + n );
   EXPECT_EQ( written.changes, 4U * n );
   EXPECT_THAT( text(), IsEmpty() );
   swTableConfig->staticEntry().watcherDel( written );
}

// --- Attributes ------------------------------------------------------------------------------------------------------

TEST_F( InterfaceMode, IsDrivenByNames ) {
   std::any const arguments[] = { Pfe::NatProgrammerConfig::PtrConst( config ), status, swTableConfig,
                                  Pfe::NatSwTableStatus::PtrConst( swTableStatus ) };
   auto const construct = NatProgrammerIntfModeSm::classType().construct;
   EXPECT_FALSE( construct( Vexa::AttrArguments( arguments, 3 ) ) );
   auto const made = construct( arguments );
   ASSERT_TRUE( made );
   EXPECT_TRUE( made->hasNotificationActive() );

   std::any value;
   EXPECT_EQ( Vexa::attributeCall( *made, "staticConfigMap", {}, value ), Vexa::AttrResult::done );
   auto const map = std::any_cast< NatProgrammerStaticMap::Ptr >( value );
   std::any const dependency[] = { forwardKey(), onEth1, onVlan( 10 ) };
   EXPECT_EQ( Vexa::attributeCall( *map, "addDependency", dependency, value ), Vexa::AttrResult::done );
   EXPECT_EQ( Vexa::attributeCall( *map, "progKeyToSwTableKeysMap", { dependency + 1, 1 }, value ),
              Vexa::AttrResult::done );
   auto const keys = std::any_cast< NatProgrammerStaticMap::SwTableKeySet::Ptr >( value );
   EXPECT_EQ( Vexa::attributeCall( *keys, "entry", { dependency, 1 }, value ), Vexa::AttrResult::done );
   EXPECT_TRUE( std::any_cast< bool >( value ) );

   Support::TraceLines trace( 6 );
   std::any const statusOf[] = { forwardKey(), Vexa::Optional< Pfe::NatSwTableStatusEntry >() };
   EXPECT_EQ( Vexa::attributeCall( *made, "handleStaticSwTableStatus", statusOf, value ), Vexa::AttrResult::done );
   EXPECT_THAT( trace.take(), ElementsAre( "6 NatProgrammerIntfModeSm::handleStaticSwTableStatus" ) );
   EXPECT_EQ( Vexa::attributeWrite( *made, "natSwTableConfig", swTableConfig ), Vexa::AttrResult::notSupported );
}

}  // namespace
