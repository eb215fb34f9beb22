// How requests enter the programmer: their traces, the guard of a clean-up, and operations on everything at once.
#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <tests/support/Programmer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <set>

namespace {

using Pfe::NatSwTableProgrammerSm;
using Support::Lines;
using Support::staticKey;
using testing::ElementsAre;

// --- One rule of each kind -------------------------------------------------------------------------------------------

Support::AnyRule const rules[] = {
   Support::StaticRule{ staticKey( "10.0.0.1:80", "ethernet1", "lab" ), Support::staticEntry( "192.0.2.1:8080" ) },
   Support::twiceRule( "10.0.0.1:80 > 192.0.2.1:81", "192.0.2.7:82 > 10.0.0.7:83", "port-channel3" ),
   Support::dynamicRule( "10.0.0.1:4000 > 203.0.113.1:443", "192.0.2.1:5000", {}, "vlan10" ) };
Pfe::NatProgrammerTrapKey const theTrap{ Support::intf( "tunnel1" ), { "lab", 4 } };
Pfe::NatProgrammerTrapEntry::PtrConst const trapRule =
   Orla::make< Pfe::NatProgrammerTrapEntry const >( 0U, Ip::Nat::NatDynamicTrapRule{ .ruleId = 2 } );

// Programmed, all of it.
struct Request : testing::Test {
   Request() {
      for ( auto const & rule : rules ) {
         Support::configure( *nat.config, rule );
      }
      nat.config->trapEntryIs( theTrap, trapRule );
      nat->replay();
      nat.settle();
   }
   Support::Programmer nat;
};

struct RequestCase {
   std::string operation;
   std::function< void( NatSwTableProgrammerSm & ) > run;
   std::string level, text, ring;  // of its trace, without the operation
   bool isGuarded;
};

std::vector< RequestCase > allRequests() {
   std::string const conn = "Value('Netix::ConnTuple', source=Value('Netix::IpAndPort', ip=10.0.0.1, port=4000), "
                            "destination=Value('Netix::IpAndPort', ip=203.0.113.1, port=443), protocol=6)";
   std::string const global = "Value('Netix::IpAndPort', ip=192.0.2.1, port=5000)";
   struct {
      char const * kind;
      std::string text, ring;
   } const texts[] = {
      { "Static", ", natIntf: eth1, key: 10.0.0.1:80 acl 'lab'", ", natIntf: eth1, key: 10.0.0.1:80 acl 'lab'" },
      { "Twice", ", natIntf: po3, key: 10.0.0.1:80 -> 192.0.2.1:81",
        ", natIntf: po3, key: 10.0.0.1:80 -> 192.0.2.1:81" },
      { "Dynamic", ", natIntf: vlan10, conn: " + conn + ", global: " + global + ", target: 0",
        ", natIntf: vl10, key: " + conn + ", addr: " + global },
   };
   std::pair< char const *, decltype( &Support::add ) > const operations[] = {
      { "add", &Support::add }, { "update", &Support::update }, { "delete", &Support::del } };
   std::vector< RequestCase > requests;
   for ( std::size_t kind = 0; kind < std::size( texts ); ++kind ) {
      for ( auto const & [ name, operation ] : operations ) {
         bool const isDynamic = kind == 2;
         requests.push_back( { std::string( name ) + texts[ kind ].kind + "Connection",
                               [ kind, operation ]( auto & sm ) { operation( sm, rules[ kind ] ); },
                               isDynamic && operation != &Support::del ? "2" : "6", texts[ kind ].text,
                               texts[ kind ].ring, !isDynamic } );
      }
   }
   std::string const trapText = ", natIntf: tunnel1, key: acl 'lab' pool 4";
   std::string const trapRing = ", natIntf: tu1, key: acl 'lab' pool 4";
   requests.push_back(
      { "addTrap", []( auto & sm ) { sm.addTrap( theTrap, trapRule ); }, "6", trapText, trapRing, false } );
   requests.push_back(
      { "deleteTrap", []( auto & sm ) { sm.deleteTrap( theTrap, trapRule ); }, "6", trapText, trapRing, false } );
   return requests;
}

// An update is traced, and then the add that it is.
std::string addOf( std::string operation ) {
   return operation.starts_with( "update" ) ? operation.replace( 0, 6, "add" ) : operation;
}

// --- Single requests -------------------------------------------------------------------------------------------------

// What it writes down before anything else: an update also the add that it is.
TEST_F( Request, IsTracedInTextAndRingAndDoesNoMoreDuringACleanupIfItIsGuarded ) {
   auto const before = nat.tables.text();
   for ( bool const cleanup : { true, false } ) {
      nat->cleanupInProgressIs( cleanup );
      for ( auto const & request : allRequests() ) {
         SCOPED_TRACE( request.operation );
         Support::TraceLines trace( 8 );
         auto ring = Support::ringLinesOf( [ & ] { request.run( *nat.sm ); } );
         auto lines = trace.take();
         Lines expected, expectedRing;
         for ( auto const & operation : std::set{ addOf( request.operation ), request.operation } ) {
            expected.insert( expected.begin(), request.level + ' ' + operation + request.text );
            expectedRing.insert( expectedRing.begin(), "NatSwTableProgrammerSm::" + operation + request.ring );
         }
         if ( cleanup && request.isGuarded ) {
            auto const noOp = addOf( request.operation ) + ", clean up in progress, no op.";
            expected.push_back( "8 " + noOp );
            expectedRing.push_back( noOp );
            EXPECT_EQ( nat.tables.text(), before );
            EXPECT_EQ( Support::outcomes( *nat.status ).size(), std::size( rules ) );
         } else {
            ring.resize( expectedRing.size() );
            lines.resize( expected.size() );
         }
         EXPECT_EQ( lines, expected );
         EXPECT_EQ( ring, expectedRing );
         EXPECT_TRUE( nat.settleToRest() );
         nat->replay();  // what was deleted is back
         EXPECT_TRUE( nat.settleToRest() );
      }
   }
}

TEST_F( Request, ProfilesAreHandedOn ) {
   Support::TraceLines trace( 1 );
   nat->setNatProfile( 10, 0 );
   nat->setNatProfile( 11, 65535 );
   nat->clearNatProfile( 10 );
   nat->clearNatProfile( 12 );
   EXPECT_EQ( nat.profiles->vlanIdToProfileId().count(), 1U );
   EXPECT_EQ( *nat.profiles->vlanIdToProfileId().find( 11 ), 65535 );
   EXPECT_THAT( trace.take(),
                ElementsAre( "1 setNatProfile, vlan: 10, profile: 0", "1 setNatProfile, vlan: 11, profile: 65535",
                             "1 clearNatProfile, vlan: 10", "1 clearNatProfile, vlan: 12" ) );
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

using BulkOperations = Request;

TEST_F( BulkOperations, GoThroughStaticTwiceDynamicAndTraps ) {
   Support::TraceLines trace( 8 );
   auto const deleted = Support::ringLinesOf( [ & ] { nat->deleteAllConnections(); } );
   auto lines = trace.take();
   EXPECT_EQ( deleted.front(), "deleteAllConnections, start to clean up." );
   EXPECT_EQ( lines.front(), "8 deleteAllConnections, start to clean up." );
   EXPECT_THAT( operationsIn( lines ), ElementsAre( "deleteStaticConnection", "deleteTwiceConnection",
                                                    "deleteDynamicConnection", "deleteTrap" ) );
   ASSERT_TRUE( nat.settleToRest() );
   EXPECT_EQ( nat.tables.rowCount() + nat.idsInUse() + nat.traps->trapAcl().count(), 0U );

   trace.take();
   auto const added = Support::ringLinesOf( [ & ] { nat->addAllConnections(); } );
   lines = trace.take();
   EXPECT_EQ( added.front(), "addAllConnections" );
   EXPECT_EQ( lines.front(), "8 addAllConnections" );
   EXPECT_THAT( operationsIn( lines ),
                ElementsAre( "updateStaticConnection", "addStaticConnection", "updateTwiceConnection",
                             "addTwiceConnection", "updateDynamicConnection", "addDynamicConnection", "addTrap" ) );
}

TEST_F( BulkOperations, DeletingAllDuringACleanupDoesNothing ) {
   nat->cleanupInProgressIs( true );
   Support::TraceLines trace( 8 );
   auto const ring = Support::ringLinesOf( [ & ] { nat->deleteAllConnections(); } );
   EXPECT_THAT( ring, ElementsAre( "deleteAllConnections, clean up in progress, no op." ) );
   EXPECT_THAT( trace.take(), ElementsAre( "8 deleteAllConnections, clean up in progress, no op." ) );
   EXPECT_EQ( nat.tables.hardware->outstanding(), 0U );
   EXPECT_EQ( nat.traps->trapAcl().count(), 1U );
}

TEST_F( BulkOperations, ADeleteThatRaisesDoesNotKeepTheOthersFromTheirTurn ) {
   for ( auto const * flow : { "10.0.0.8:1 > 203.0.113.1:443", "10.0.0.9:1 > 203.0.113.1:443" } ) {
      Support::configure( *nat.config, Support::dynamicRule( flow, "192.0.2.1:1", { .vrfId = 0x01000000 } ) );
   }
   nat->deleteAllConnections();
   ASSERT_TRUE( nat.settleToRest() );
   EXPECT_EQ( nat.tables.rowCount() + nat.traps->trapAcl().count(), 0U );
}

TEST_F( BulkOperations, AReplayTellsTheMulticastHookThenSweepsOnce ) {
   nat.natIdInfo->matchKeyToNatIdIs( Pfe::DynamicNatMatchKey{}, Pfe::NatId( 99 ) );
   Support::TraceLines trace( 8 );
   auto const ring = Support::ringLinesOf( [ & ] { nat->replay(); } );
   auto const lines = trace.take();
   EXPECT_THAT( Lines( lines.end() - 3, lines.end() ),
                ElementsAre( "8 NatSwTableProgrammerSm::replayReconcile", "8 sweepAndCleanupNatIds",
                             testing::EndsWith( " cleaning up natId: 99" ) ) );
   EXPECT_THAT( ring, testing::IsSupersetOf( { "NatSwTableProgrammerSm::replayReconcile", "sweepAndCleanupNatIds" } ) );
   EXPECT_EQ( nat.mcast->startups, 2U );

   // Neither is needed.
   nat->mcastProgrammerHelperIs( nullptr );
   nat->natIdManagerDel();
   nat->replayReconcile();
   EXPECT_EQ( nat.mcast->startups, 2U );
}

}  // namespace
