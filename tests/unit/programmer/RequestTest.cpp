// How requests enter the programmer: their traces, the guard of a clean-up, and operations on everything at once.
#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <tests/support/Programmer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

namespace {

using Pfe::NatSwTableProgrammerSm;
using Support::Lines;
using Support::staticEntry;
using Support::staticKey;
using testing::ElementsAre;
using testing::IsEmpty;

// --- One rule of each kind -------------------------------------------------------------------------------------------

Support::StaticKey const theStatic = staticKey( "10.0.0.1:80", "ethernet1", "lab" );
Pfe::NatProgrammerTwiceKey const theTwice{ Support::intf( "port-channel3" ),
                                           { Support::pair( "10.0.0.1:80" ), Support::pair( "192.0.2.1:81" ) } };
Pfe::NatProgrammerDynamicKey const theDynamic{
   Support::intf( "vlan10" ), { Support::pair( "10.0.0.1:4000" ), Support::pair( "203.0.113.1:443" ), 6 } };
Pfe::NatProgrammerTrapKey const theTrap{ Support::intf( "tunnel1" ), { "lab", 4 } };

Support::StaticEntry staticRule() { return staticEntry( "192.0.2.1:8080" ); }

Pfe::NatProgrammerTwiceEntry::PtrConst twiceRule() {
   return Orla::make< Pfe::NatProgrammerTwiceEntry const >( Pfe::NatProgrammerTwiceEntry::Fields{
      .connection = { theTwice.key.source, theTwice.key.destination, Support::pair( "192.0.2.7:82" ),
                      Support::pair( "10.0.0.7:83" ) } } );
}

Pfe::NatProgrammerDynamicEntry::PtrConst dynamicRule() {
   return Orla::make< Pfe::NatProgrammerDynamicEntry const >(
      Pfe::NatProgrammerDynamicEntry::Fields{ .global = Support::pair( "192.0.2.1:5000" ) } );
}

Pfe::NatProgrammerTrapEntry::PtrConst trapRule() {
   return Orla::make< Pfe::NatProgrammerTrapEntry const >( 0, Ip::Nat::NatDynamicTrapRule{ .ruleId = 2 } );
}

void configureAll( Support::Programmer const & nat ) {
   nat.config->staticEntryIs( theStatic, staticRule() );
   nat.config->twiceEntryIs( theTwice, twiceRule() );
   nat.config->dynamicEntryIs( theDynamic, dynamicRule() );
   nat.config->trapEntryIs( theTrap, trapRule() );
}

struct Request {
   std::string operation;
   std::function< void( NatSwTableProgrammerSm & ) > run;
   std::string level, text, ring;  // of its trace, without the operation
   bool isGuarded;
};

std::vector< Request > allRequests() {
   std::string const staticText = ", natIntf: eth1, key: 10.0.0.1:80 acl 'lab'";
   std::string const twiceText = ", natIntf: po3, key: 10.0.0.1:80 -> 192.0.2.1:81";
   std::string const conn = "Value('Netix::ConnTuple', source=Value('Netix::IpAndPort', ip=10.0.0.1, port=4000), "
                            "destination=Value('Netix::IpAndPort', ip=203.0.113.1, port=443), protocol=6)";
   std::string const global = "Value('Netix::IpAndPort', ip=192.0.2.1, port=5000)";
   std::string const dynamicText = ", natIntf: vlan10, conn: " + conn + ", global: " + global + ", target: 0";
   std::string const dynamicRing = ", natIntf: vl10, key: " + conn + ", addr: " + global;
   std::string const trapText = ", natIntf: tunnel1, key: acl 'lab' pool 4";
   std::string const trapRing = ", natIntf: tu1, key: acl 'lab' pool 4";
   using Sm = NatSwTableProgrammerSm;
   return {
      { "addStaticConnection", []( Sm & sm ) { sm.addStaticConnection( theStatic, staticRule() ); }, "6", staticText,
        staticText, true },
      { "updateStaticConnection", []( Sm & sm ) { sm.updateStaticConnection( theStatic, staticRule() ); }, "6",
        staticText, staticText, true },
      { "deleteStaticConnection", []( Sm & sm ) { sm.deleteStaticConnection( theStatic, staticRule() ); }, "6",
        staticText, staticText, true },
      { "addTwiceConnection", []( Sm & sm ) { sm.addTwiceConnection( theTwice, twiceRule() ); }, "6", twiceText,
        twiceText, true },
      { "updateTwiceConnection", []( Sm & sm ) { sm.updateTwiceConnection( theTwice, twiceRule() ); }, "6", twiceText,
        twiceText, true },
      { "deleteTwiceConnection", []( Sm & sm ) { sm.deleteTwiceConnection( theTwice, twiceRule() ); }, "6", twiceText,
        twiceText, true },
      { "addDynamicConnection", []( Sm & sm ) { sm.addDynamicConnection( theDynamic, dynamicRule() ); }, "2",
        dynamicText, dynamicRing, false },
      { "updateDynamicConnection", []( Sm & sm ) { sm.updateDynamicConnection( theDynamic, dynamicRule() ); }, "2",
        dynamicText, dynamicRing, false },
      { "deleteDynamicConnection", []( Sm & sm ) { sm.deleteDynamicConnection( theDynamic, dynamicRule() ); }, "6",
        dynamicText, dynamicRing, false },
      { "addTrap", []( Sm & sm ) { sm.addTrap( theTrap, trapRule() ); }, "6", trapText, trapRing, false },
      { "deleteTrap", []( Sm & sm ) { sm.deleteTrap( theTrap, trapRule() ); }, "6", trapText, trapRing, false },
   };
}

// An update is traced, and then the add that it is.
std::string addOf( std::string operation ) {
   return operation.starts_with( "update" ) ? operation.replace( 0, 6, "add" ) : operation;
}

// --- Single requests -------------------------------------------------------------------------------------------------

TEST( Request, IsTracedInTextAndRingBeforeAnythingElse ) {
   for ( auto const & request : allRequests() ) {
      SCOPED_TRACE( request.operation );
      Support::Programmer nat;
      Support::TraceLines trace( 6 );
      auto const ring = Support::ringLinesOf( [ & ] { request.run( *nat.sm ); } );
      auto const lines = trace.take();
      Lines expected{ request.level + ' ' + request.operation + request.text };
      Lines expectedRing{ "NatSwTableProgrammerSm::" + request.operation + request.ring };
      if ( addOf( request.operation ) != request.operation ) {
         expected.push_back( request.level + ' ' + addOf( request.operation ) + request.text );
         expectedRing.push_back( "NatSwTableProgrammerSm::" + addOf( request.operation ) + request.ring );
      }
      ASSERT_GE( lines.size(), expected.size() );
      ASSERT_GE( ring.size(), expectedRing.size() );
      EXPECT_EQ( Lines( lines.begin(), lines.begin() + static_cast< long >( expected.size() ) ), expected );
      EXPECT_EQ( Lines( ring.begin(), ring.begin() + static_cast< long >( expectedRing.size() ) ), expectedRing );
   }
}

TEST( Request, DoesNothingButTraceDuringACleanupIfItIsGuarded ) {
   for ( auto const & request : allRequests() ) {
      SCOPED_TRACE( request.operation );
      Support::Programmer nat;
      nat->addStaticConnection( theStatic, staticRule() );
      nat->addTwiceConnection( theTwice, twiceRule() );
      nat.settle();
      auto const before = nat.tables.text();
      nat->cleanupInProgressIs( true );
      Support::TraceLines trace( 8 );
      auto const ring = Support::ringLinesOf( [ & ] { request.run( *nat.sm ); } );
      auto const noOp = addOf( request.operation ) + ", clean up in progress, no op.";
      if ( request.isGuarded ) {
         EXPECT_EQ( ring.back(), noOp );
         EXPECT_EQ( trace.take().back(), "8 " + noOp );
         EXPECT_EQ( nat.tables.hardware->outstanding(), 0U );
         EXPECT_EQ( nat.tables.text(), before );
         EXPECT_EQ( nat.status->staticStatus().count() + nat.status->twiceStatus().count(), 2U );
      } else {
         EXPECT_THAT( ring, testing::Not( testing::Contains( noOp ) ) );
      }
   }
}

TEST( Request, CompletionsRunDuringACleanup ) {
   Support::Programmer nat;
   nat->addStaticConnection( theStatic, staticRule() );
   nat->cleanupInProgressIs( true );
   nat.settle();
   EXPECT_EQ( nat.result( theStatic ), PfeHelper::NatHwResult::programmed );
}

TEST( Request, ProfilesAreHandedOn ) {
   Support::Programmer nat;
   Support::TraceLines trace( 1 );
   nat->setNatProfile( 10, 0 );
   nat->setNatProfile( 11, 65535 );
   nat->setNatProfile( 11, 4 );
   auto const & profiles = nat.profiles->vlanIdToProfileId();
   ASSERT_EQ( profiles.count(), 2U );
   EXPECT_EQ( *profiles.find( 10 ), 0 );
   EXPECT_EQ( *profiles.find( 11 ), 4 );
   nat->clearNatProfile( 10 );
   nat->clearNatProfile( 12 );
   EXPECT_EQ( profiles.count(), 1U );
   EXPECT_THAT( trace.take(),
                ElementsAre( "1 setNatProfile, vlan: 10, profile: 0", "1 setNatProfile, vlan: 11, profile: 65535",
                             "1 setNatProfile, vlan: 11, profile: 4", "1 clearNatProfile, vlan: 10",
                             "1 clearNatProfile, vlan: 12" ) );
   EXPECT_EQ( nat.tables.rowCount(), 0U );
}

// --- Everything at once ----------------------------------------------------------------------------------------------

// The operations in the order of their first trace.
Lines operationsIn( Lines const & lines ) {
   Lines operations;
   for ( auto const & line : lines ) {
      for ( auto const & request : allRequests() ) {
         if ( line == request.level + ' ' + request.operation + request.text ) {
            operations.push_back( request.operation );
         }
      }
   }
   return operations;
}

TEST( BulkOperations, GoThroughStaticTwiceDynamicAndTraps ) {
   Support::Programmer nat;
   configureAll( nat );
   Support::TraceLines trace( 8 );
   auto const added = Support::ringLinesOf( [ & ] { nat->addAllConnections(); } );
   auto lines = trace.take();
   EXPECT_EQ( added.front(), "addAllConnections" );
   EXPECT_EQ( lines.front(), "8 addAllConnections" );
   EXPECT_THAT( operationsIn( lines ),
                ElementsAre( "addStaticConnection", "addTwiceConnection", "addDynamicConnection", "addTrap" ) );
   nat.settle();
   trace.take();

   auto const deleted = Support::ringLinesOf( [ & ] { nat->deleteAllConnections(); } );
   lines = trace.take();
   EXPECT_EQ( deleted.front(), "deleteAllConnections, start to clean up." );
   EXPECT_EQ( lines.front(), "8 deleteAllConnections, start to clean up." );
   EXPECT_THAT( operationsIn( lines ), ElementsAre( "deleteStaticConnection", "deleteTwiceConnection",
                                                    "deleteDynamicConnection", "deleteTrap" ) );
   EXPECT_EQ( nat.config->staticEntry().count(), 1U );
   ASSERT_TRUE( nat.settleToRest() );
   EXPECT_EQ( nat.tables.rowCount(), 0U );
   EXPECT_EQ( nat.idsInUse(), 0U );
   EXPECT_EQ( nat.traps->trapAcl().count(), 0U );
}

TEST( BulkOperations, OnNothingOnlyTrace ) {
   Support::Programmer nat;
   Support::TraceLines trace( 8 );
   nat->addAllConnections();
   nat->deleteAllConnections();
   EXPECT_THAT( trace.take(), ElementsAre( "8 addAllConnections", "8 deleteAllConnections, start to clean up." ) );
}

TEST( BulkOperations, DeletingAllDuringACleanupDoesNothing ) {
   Support::Programmer nat;
   configureAll( nat );
   nat->replay();
   nat.settle();
   auto const before = nat.tables.rowCount();
   nat->cleanupInProgressIs( true );
   Support::TraceLines trace( 8 );
   auto const ring = Support::ringLinesOf( [ & ] { nat->deleteAllConnections(); } );
   EXPECT_THAT( ring, ElementsAre( "deleteAllConnections, clean up in progress, no op." ) );
   EXPECT_THAT( trace.take(), ElementsAre( "8 deleteAllConnections, clean up in progress, no op." ) );
   EXPECT_EQ( nat.tables.hardware->outstanding(), 0U );
   EXPECT_EQ( nat.tables.rowCount(), before );
   EXPECT_EQ( nat.traps->trapAcl().count(), 1U );
}

TEST( BulkOperations, ADeleteThatRaisesDoesNotKeepTheOthersFromTheirTurn ) {
   Support::Programmer nat;
   configureAll( nat );
   nat->replay();
   nat.settle();
   for ( auto const * source : { "10.0.0.8:1", "10.0.0.9:1" } ) {
      auto key = theDynamic;
      key.conn.source = Support::pair( source );
      nat.config->dynamicEntryIs( key, Orla::make< Pfe::NatProgrammerDynamicEntry const >(
                                          Pfe::NatProgrammerDynamicEntry::Fields{ .vrfId = 0x01000000 } ) );
   }
   nat->deleteAllConnections();
   ASSERT_TRUE( nat.settleToRest() );
   EXPECT_EQ( nat.tables.rowCount(), 0U );
   EXPECT_EQ( nat.traps->trapAcl().count(), 0U );
}

TEST( ReplayReconcile, TellsTheMulticastHookThenSweepsOnce ) {
   Support::Programmer nat;
   nat.natIdInfo->matchKeyToNatIdIs( Pfe::DynamicNatMatchKey{}, Pfe::NatId( 9 ) );
   nat.config->staticEntryIs( theStatic, staticRule() );
   Support::TraceLines trace( 8 );
   auto const ring = Support::ringLinesOf( [ & ] { nat->replay(); } );
   auto lines = trace.take();
   auto const reconciled = std::ranges::find( lines, "8 NatSwTableProgrammerSm::replayReconcile" );
   EXPECT_THAT( Lines( reconciled, lines.end() ),
                ElementsAre( "8 NatSwTableProgrammerSm::replayReconcile", "8 sweepAndCleanupNatIds",
                             testing::EndsWith( " cleaning up natId: 9" ) ) );
   EXPECT_THAT( ring, testing::IsSupersetOf( { "NatSwTableProgrammerSm::replayReconcile", "sweepAndCleanupNatIds" } ) );
   EXPECT_EQ( nat.mcast->startups, 1U );
   EXPECT_EQ( nat.idsInUse(), 2U );

   // Neither is needed.
   nat->mcastProgrammerHelperIs( nullptr );
   nat->natIdManagerDel();
   nat->replayReconcile();
   EXPECT_EQ( nat.mcast->startups, 1U );
}

}  // namespace
