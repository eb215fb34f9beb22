// Interface mode: static rules as entries of the software-table configuration, and who depends on which of them. What
// rules of several interfaces make of entries and dependencies in whatever order is seen in InterfaceHistory.
#include "PfeNat/PfeNatProgrammerIntfModeSm.h"

#include <tests/support/Programmer.h>
#include <tests/support/SwTableText.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <set>

namespace {

using Pfe::NatSwTableStaticKey;
using Support::Lines;
using Support::staticKey;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// TCP from a local address to 192.0.2.1:8080; the qualifier tells entries apart.
Support::StaticEntry onVlan( U16 vlanId, U16 qualifier = 5 ) {
   return Support::staticEntry( "192.0.2.1:8080",
                                { .vlanId = vlanId, .intfQualifier = qualifier, .connection = { .protocol = 6 } } );
}

auto const onEth1 = staticKey( "10.0.0.1:80", "ethernet1" );
auto const onEth2 = staticKey( "10.0.0.1:80", "ethernet2" );
NatSwTableStaticKey const forwardKey{
   .ipAndPortOld = Support::pair( "10.0.0.1:80" ), .ipAndPortNew = Support::pair( "192.0.2.1:8080" ), .protocol = 6 };
std::string const forward = "forward 10.0.0.1:80 > 192.0.2.1:8080 proto 6 | vlans ";
std::string const reverse = "reverse 192.0.2.1:8080 > 10.0.0.1:80 proto 6 vlan ";

struct InterfaceMode : testing::Test {
   Lines text() const { return Support::swTableText( *swTableConfig ); }

   Pfe::NatProgrammerConfig::Ptr const config = Orla::make< Pfe::NatProgrammerConfig >();
   Pfe::NatProgrammerStatus::Ptr const status = Orla::make< Pfe::NatProgrammerStatus >();
   Pfe::NatSwTableConfig::Ptr const swTableConfig = Orla::make< Pfe::NatSwTableConfig >();
   Pfe::NatProgrammerIntfModeSm::Ptr const sm =
      Pfe::natProgrammerIntfModeSmFactory( config, status, swTableConfig, Orla::make< Pfe::NatSwTableStatus >() );
};

// --- Entries ---------------------------------------------------------------------------------------------------------

TEST_F( InterfaceMode, TwoInterfacesWithOneRuleShareOneEntryCarryingBothVlans ) {
   sm->addStaticConnection( onEth1, onVlan( 10, 1 ) );
   auto const shared = swTableConfig->staticEntry( forwardKey );
   sm->addStaticConnection( onEth2, onVlan( 20, 2 ) );
   EXPECT_THAT( text(),
                ElementsAre( forward + "10 20 of 2", reverse + "10 | vlans 10 of 1", reverse + "20 | vlans 20 of 2" ) );
   EXPECT_EQ( shared->vlanId().count(), 1U ) << "an entry that is in a collection does not change";

   // The entry that stays is made from the rule that goes.
   sm->deleteStaticConnection( onEth1, onVlan( 10, 3 ) );
   EXPECT_THAT( text(), ElementsAre( forward + "20 of 3", reverse + "20 | vlans 20 of 2" ) );
   sm->deleteStaticConnection( onEth2, onVlan( 20, 2 ) );
   EXPECT_THAT( text(), IsEmpty() );
}

TEST_F( InterfaceMode, AnUpdateRewritesAndRemovesNothing ) {
   sm->addStaticConnection( onEth1, onVlan( 10, 1 ) );
   sm->updateStaticConnection( onEth1, onVlan( 10, 2 ) );
   EXPECT_THAT( text(), ElementsAre( forward + "10 of 2", reverse + "10 | vlans 10 of 2" ) );
   sm->updateStaticConnection( onEth1, onVlan( 20, 3 ) );
   EXPECT_THAT( text(),
                ElementsAre( forward + "20 of 3", reverse + "10 | vlans 10 of 2", reverse + "20 | vlans 20 of 3" ) );
}

// What the entry holds, however it was told, is what a walk over those that it depends on finds.
TEST_F( InterfaceMode, AnEntryHasTheVlansOfAllThatItDependsOn ) {
   auto const keyOn = []( U16 vlanId ) { return staticKey( "10.0.0.1:80", "vlan" + std::to_string( vlanId ) ); };
   auto const add = [ & ]( U16 vlanId ) { sm->addStaticConnection( keyOn( vlanId ), onVlan( vlanId ) ); };
   auto const expectVlans = [ & ]( char const * after ) {
      add( 1 );
      std::set< Bridging::VlanId > walked, held;
      for ( auto const vlanId : Pfe::getVlanIdsForSwTableEntry( sm->staticConfigMap(), forwardKey ) ) {
         walked.insert( vlanId );
      }
      auto const & vlanIds = swTableConfig->staticEntry( forwardKey )->vlanId();
      vlanIds.forEach( [ & ]( Bridging::VlanId vlanId ) { held.insert( held.end(), vlanId ); } );
      EXPECT_EQ( held, walked ) << after;
      EXPECT_EQ( vlanIds.count(), walked.size() ) << after;
   };
   for ( U16 vlanId = 1; vlanId <= Bridging::VlanId::max; ++vlanId ) {
      add( vlanId );
   }
   expectVlans( "adds on every VLAN" );
   for ( U16 vlanId = 2; vlanId <= Bridging::VlanId::max; vlanId += vlanId % 640 < 64 ? 1 : 2 ) {
      sm->deleteStaticConnection( keyOn( vlanId ), onVlan( vlanId ) );
   }
   expectVlans( "deletes of whole words and of every other" );

   // Each changes one direction alone, or the entry behind it.
   using Map = Pfe::NatProgrammerStaticMap;
   auto const fedBy2 = [ & ]( Map & map ) { return map.progKeyToSwTableKeysMap( keyOn( 2 ) ); };
   auto const users = []( Map & map ) { return map.swTableKeyToProgKeysMap( forwardKey ); };
   struct {
      char const * name;
      std::function< void( Map & ) > change;
   } const changes[] = { { "another entry", [ & ]( Map & map ) { fedBy2( map )->progEntryIs( onVlan( 4 ) ); } },
                         { "an entry of one that feeds by one direction only",
                           [ & ]( Map & map ) {
                              fedBy2( map )->entryDel( forwardKey );
                              fedBy2( map )->progEntryIs( onVlan( 4 ) );
                           } },
                         { "the same, all of it",
                           [ & ]( Map & map ) {
                              fedBy2( map )->entryDelAll();
                              fedBy2( map )->progEntryIs( onVlan( 4 ) );
                           } },
                         { "another set of what feeds",
                           [ & ]( Map & map ) {
                              map.progKeyToSwTableKeysMapDel( keyOn( 2 ) );
                              map.progKeyToSwTableKeysMapIs( keyOn( 2 ) )->progEntryIs( onVlan( 4 ) );
                           } },
                         { "one user less", [ & ]( Map & map ) { users( map )->entryDel( keyOn( 2 ) ); } },
                         { "no users", [ & ]( Map & map ) { users( map )->entryDelAll(); } },
                         { "one user more", [ & ]( Map & map ) {
                             map.addDependency( {}, keyOn( 3 ), onVlan( 3 ) );
                             users( map )->entryIs( keyOn( 3 ) );
                          } } };
   for ( auto const & [ name, change ] : changes ) {
      sm->staticConfigMapDel();
      sm->staticConfigMapIs();
      add( 1 );
      add( 2 );
      change( *sm->staticConfigMap() );
      expectVlans( name );
   }
}

// --- Range errors ----------------------------------------------------------------------------------------------------

std::string rangeErrorOf( std::function< void() > const & operation ) {
   try {
      operation();
   } catch ( Vexa::RangeException const & error ) {
      return error.what();
   }
   return "nothing raised";
}

TEST_F( InterfaceMode, AVlanIdAboveItsRangeChangesNothing ) {
   constexpr char const * tooLarge = "Bridging::VlanIdOrNone::value > 4094 not allowed";
   EXPECT_EQ( rangeErrorOf( [ & ] { sm->addStaticConnection( onEth1, onVlan( 4095 ) ); } ), tooLarge );
   EXPECT_EQ( rangeErrorOf( [ & ] { sm->deleteStaticConnection( onEth1, onVlan( 4095 ) ); } ), tooLarge );
   EXPECT_THAT( text(), IsEmpty() );
   EXPECT_EQ( sm->staticConfigMap()->progKeyToSwTableKeysMap().count(), 0U );
}

// By design the dependency stays, and keeps others from the entry until it has a VLAN.
TEST_F( InterfaceMode, ARuleWithoutVlanLeavesItsDependencyBehindAndNoEntry ) {
   constexpr char const * none = "Bridging::VlanId::value < 1 or > 4094 not allowed";
   EXPECT_EQ( rangeErrorOf( [ & ] { sm->addStaticConnection( onEth1, onVlan( 0 ) ); } ), none );
   EXPECT_EQ( rangeErrorOf( [ & ] { sm->addStaticConnection( onEth2, onVlan( 20 ) ); } ), none );
   EXPECT_THAT( text(), IsEmpty() );
   sm->addStaticConnection( onEth1, onVlan( 10 ) );
   EXPECT_THAT( text(), ElementsAre( forward + "10 20 of 5", reverse + "10 | vlans 10 of 5" ) );
}

// --- Traces and broken contracts -------------------------------------------------------------------------------------

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
   auto const add = StartsWith( "6 NatProgrammerStaticMap::addDependency, swTableKey: " );
   auto const del = StartsWith( "6 NatProgrammerStaticMap::delDependency, swTableKey: " );
   EXPECT_THAT( trace.take(),
                ElementsAre( "6 addStaticConnection" + text, add, add,
                             "6 NatProgrammerIntfModeSm::updateStaticConnection", "6 addStaticConnection" + text, add,
                             add, "6 deleteStaticConnection" + text, del, del ) );
   sm->staticConfigMap()->hasDependency( forwardKey, onEth1 );
   EXPECT_THAT( trace.take(), ElementsAre( "6 NatProgrammerStaticMap::hasDependency, swTableKey: " +
                                           Vexa::stringOf( forwardKey ) + ", progKey: " + Vexa::stringOf( onEth1 ) ) );
}

TEST_F( InterfaceMode, OtherRulesAreTracedAndIgnored ) {
   auto const trap = Orla::make< Pfe::NatProgrammerTrapEntry const >( 0U, Ip::Nat::NatDynamicTrapRule{} );
   Support::TraceLines trace( 9 );
   for ( Support::AnyRule const & rule : { Support::AnyRule( Support::TwiceRule() ), { Support::DynamicRule() } } ) {
      add( *sm, rule );
      update( *sm, rule );
      del( *sm, rule );
   }
   sm->addTrap( {}, trap );
   sm->deleteTrap( {}, trap );
   sm->handleStaticSwTableStatus( {}, {} );
   Lines expected;
   for ( auto const * operation : { "addTwiceConnection", "updateTwiceConnection", "deleteTwiceConnection",
                                    "addDynamicConnection", "updateDynamicConnection", "deleteDynamicConnection",
                                    "addTrap", "deleteTrap", "handleStaticSwTableStatus" } ) {
      expected.push_back( std::string( "6 NatProgrammerIntfModeSm::" ) + operation );
   }
   EXPECT_EQ( trace.take(), expected );
   EXPECT_THAT( text(), IsEmpty() );
   auto const stops = StartsWith( "false && \"profile config mode not supported\"\n" );
   EXPECT_DEATH( sm->setNatProfile( 10, 1 ), stops );
   EXPECT_DEATH( sm->clearNatProfile( 10 ), stops );
}

// A pair in one direction only: not a dependency, and not one that could be deleted.
TEST( Dependencies, NeedBothDirections ) {
   auto const map = Pfe::natProgrammerStaticMapFactory();
   auto const stopsAtFirst = StartsWith(
      "progKeyToSwTableKeysMapHas( progKey ) && progKeyToSwTableKeysMap( progKey )->entryHas( swTableKey )\n" );
   auto const stopsAtSecond = StartsWith(
      "swTableKeyToProgKeysMapHas( swTableKey ) && swTableKeyToProgKeysMap( swTableKey )->entryHas( progKey )\n" );
   auto const deletes = [ & ] { map->delDependency( forwardKey, onEth1 ); };
   map->progKeyToSwTableKeysMapIs( onEth1 );
   EXPECT_DEATH( deletes(), stopsAtFirst );
   map->progKeyToSwTableKeysMapIs( onEth1 )->entryIs( forwardKey );
   EXPECT_FALSE( map->hasDependency( forwardKey, onEth1 ) );
   EXPECT_DEATH( deletes(), stopsAtSecond );
   map->swTableKeyToProgKeysMapIs( forwardKey )->entryIs( onEth2 );
   EXPECT_DEATH( deletes(), stopsAtSecond );
   EXPECT_DEATH( Pfe::getVlanIdsForSwTableEntry( map, forwardKey ),
                 StartsWith( "configMap->progKeyToSwTableKeysMapHas( progKey )\n" ) );
   map->swTableKeyToProgKeysMapIs( forwardKey )->entryIs( onEth1 );
   EXPECT_TRUE( map->hasDependency( forwardKey, onEth1 ) );
}

}  // namespace
