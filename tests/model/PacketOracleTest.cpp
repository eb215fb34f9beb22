// What goes out comes back: packets walked through the tables of random rules.
#include "StaticTables.h"

#include <tests/support/PacketWalker.h>

#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <map>
#include <tuple>

namespace {

using Ip::Nat::NatTarget;
using Support::Packet;
using Support::Programmer;
using Support::Walked;

// A translation between an inside and an outside pair, in either form of a rule.
struct Translation {
   bool byDestination;
   Netix::IntfId natIntf;
   U32 vrfId;
   U8 protocol;
   Netix::IpAndPort local;
   Netix::IpAndPort global;

   Model::Rule rule() const {
      auto const & keyPair = byDestination ? global : local;
      Support::StaticFields const fields{
         .vrfId = vrfId,
         .intfQualifier = 5,
         .connection = { .translated = byDestination ? local : global,
                         .target = byDestination ? NatTarget::destination : NatTarget::source,
                         .protocol = protocol } };
      return { { natIntf, { "", keyPair.ip, keyPair.port } },
               Orla::make< Pfe::NatProgrammerStaticEntry const >( fields ) };
   }
};

std::ostream & operator<<( std::ostream & out, Translation const & t ) {
   return out << t.natIntf << " vrf " << t.vrfId << " proto " << +t.protocol << ' ' << Support::textOf( t.local )
              << ( t.byDestination ? " <- " : " -> " ) << Support::textOf( t.global );
}

rc::Gen< Translation > anyTranslation() {
   auto const host = rc::gen::inRange< U32 >( 1, 5 );
   auto const port = rc::gen::element< U16 >( 0, 80, 81, 82 );
   return rc::gen::map(
      rc::gen::tuple( rc::gen::arbitrary< bool >(), rc::gen::element< std::string >( "ethernet1", "vlan10" ),
                      rc::gen::element< U32 >( 0, 7 ), rc::gen::element< U8 >( 6, 17 ), host, port, host, port ),
      []( auto const & t ) {
         auto const [ form, intf, vrf, protocol, inside, insidePort, outside, outsidePort ] = t;
         // With a port on one side only, replies could not tell whom they are for.
         U16 const globalPort = insidePort == 0 ? 0 : outsidePort == 0 ? insidePort : outsidePort;
         return Translation{ form,
                             Support::intf( intf ),
                             vrf,
                             protocol,
                             { Netix::IpAddr( 0x0A000000 + inside ), insidePort },
                             { Netix::IpAddr( 0xC0000200 + outside ), globalPort } };
      } );
}

// Rules of which no packet matches two equally well, and none shares the NAT id of another one's other translation:
// on either side a pair has one counterpart, and an address that stands without its port has one counterpart too.
class Selection {
 public:
   bool admits( Translation const & t ) {
      auto const side = [ & ]( bool inside, Netix::IpAndPort const & pair ) {
         return std::tuple( inside, t.natIntf, t.vrfId, t.protocol, pair );
      };
      auto const withoutPort = []( Netix::IpAndPort const & pair ) { return Netix::IpAndPort{ pair.ip, 0 }; };
      for ( auto const & [ inside, from, to ] :
            { std::tuple( true, t.local, t.global ), { false, t.global, t.local } } ) {
         if ( exact_.contains( side( inside, from ) ) ) {
            return false;
         }
         auto const counterpart = counterparts_.find( side( inside, withoutPort( from ) ) );
         if ( counterpart != counterparts_.end() && counterpart->second != withoutPort( to ) ) {
            return false;
         }
      }
      if ( !keys_.insert( t.rule().key ).second ) {
         return false;
      }
      exact_.insert( side( true, t.local ) );
      exact_.insert( side( false, t.global ) );
      counterparts_[ side( true, withoutPort( t.local ) ) ] = withoutPort( t.global );
      counterparts_[ side( false, withoutPort( t.global ) ) ] = withoutPort( t.local );
      return true;
   }

 private:
   using Side = std::tuple< bool, Netix::IntfId, U32, U8, Netix::IpAndPort >;
   std::set< Support::StaticKey > keys_;
   std::set< Side > exact_;
   std::map< Side, Netix::IpAndPort > counterparts_;
};

Packet only( Walked const & walked ) {
   RC_ASSERT( !walked.ambiguous );
   RC_ASSERT( walked.packets.size() == 1u );
   return walked.packets[ 0 ];
}

// A packet from the inside host of the rule to some host, and the answer to what became of it.
void goesOutAndComesBack( Programmer const & nat, Translation const & t, Packet::Part part ) {
   bool const isLater = part == Packet::Part::laterFragment;
   U16 const anyPort = 4'000;
   Packet const sent{
      .inIntf = Support::intf( "ethernet99" ),
      .outIntf = t.natIntf,
      .vrfId = t.vrfId,
      .protocol = t.protocol,
      .source = { t.local.ip, isLater             ? U16{ 0 }
                              : t.local.port != 0 ? t.local.port
                                                  : anyPort },
      .destination = { Support::ip( "203.0.113.9" ), isLater ? U16{ 0 } : U16{ 443 } },
      .part = part,
   };
   auto const out = only( walk( nat.tables, sent ) );
   auto expected = sent;
   expected.source.ip = t.global.ip;
   expected.source.port = isLater || t.global.port == 0 ? sent.source.port : t.global.port;
   RC_ASSERT( out == expected );

   auto reply = out;
   std::swap( reply.inIntf, reply.outIntf );
   std::swap( reply.source, reply.destination );
   auto const back = only( walk( nat.tables, reply ) );
   RC_ASSERT( back.destination == sent.source );
   RC_ASSERT( back.source == sent.destination );
}

void isLeftAlone( Programmer const & nat, Translation const & t ) {
   Packet const sent{ Support::intf( "ethernet99" ), t.natIntf, t.vrfId, t.protocol, t.local, { t.global.ip, 443 } };
   Packet const received{ t.natIntf,  Support::intf( "ethernet99" ), t.vrfId,
                          t.protocol, { t.local.ip, 443 },           t.global };
   for ( auto const & packet : { sent, received } ) {
      RC_ASSERT( only( walk( nat.tables, packet ) ) == packet );
   }
}

RC_GTEST_PROP( PacketOracle, WhatGoesOutComesBackUnderEveryRule,
               ( bool fragmentation, bool switchesFragmentation, bool destinationFirst ) ) {
   Programmer nat;
   nat.config->fragmentationEnabledIs( fragmentation );
   Selection selection;
   std::vector< Translation > rules;
   for ( auto const & t :
         *rc::gen::resize( 60, rc::gen::container< std::vector< Translation > >( anyTranslation() ) ) ) {
      if ( selection.admits( t ) ) {
         rules.push_back( t );
         nat.config->staticEntryIs( t.rule().key, t.rule().entry );
      }
   }
   nat->replay();
   RC_ASSERT( nat.settleToRest() );
   if ( switchesFragmentation ) {
      fragmentation = !fragmentation;
      nat.config->fragmentationEnabledIs( fragmentation );
      nat->replay();
      RC_ASSERT( nat.settleToRest() );
   }
   auto const checkAll = [ & ] {
      for ( auto const & t : rules ) {
         goesOutAndComesBack( nat, t, Packet::Part::whole );
         goesOutAndComesBack( nat, t, Packet::Part::firstFragment );
         if ( t.local.port == 0 || ( fragmentation && t.global.port != 0 ) ) {
            goesOutAndComesBack( nat, t, Packet::Part::laterFragment );
         }
      }
   };
   checkAll();

   // Rules of one form go; the others stay as they are.
   auto const gone = [ & ]( Translation const & t ) { return t.byDestination == destinationFirst; };
   for ( auto const & t : rules ) {
      if ( gone( t ) ) {
         nat.config->staticEntryDel( t.rule().key );
      }
   }
   RC_ASSERT( nat.settleToRest() );
   std::erase_if( rules, gone );
   checkAll();
   for ( auto const & t : rules ) {
      nat.config->staticEntryDel( t.rule().key );
   }
   RC_ASSERT( nat.settleToRest() );
   for ( auto const & t : rules ) {
      isLeftAlone( nat, t );
   }
   RC_ASSERT( nat.tables.rowCount() == 0u );
}

TEST( PacketOracle, MulticastIsCopiedToEveryEgressInterfaceWithTheTranslatedGroup ) {
   Programmer nat;
   nat.config->staticEntryIs(
      Support::staticKey( "239.0.0.1:5000" ),
      Support::staticEntry( "239.1.0.1:5000",
                            { .connection = { .target = NatTarget::destination, .protocol = 17 } } ) );
   nat->replay();
   ASSERT_TRUE( nat.settleToRest() );
   Packet const sent{ .inIntf = Support::intf( "ethernet1" ),
                      .outIntf = Support::intf( "ethernet2" ),
                      .protocol = 17,
                      .source = Support::pair( "10.0.0.9:5000" ),
                      .destination = Support::pair( "239.0.0.1:5000" ) };
   std::vector< Packet > copies( 2, sent );
   copies[ 0 ].outIntf = Support::intf( "ethernet7" );
   copies[ 1 ].outIntf = Support::intf( "ethernet8" );
   copies[ 0 ].destination.ip = copies[ 1 ].destination.ip = Support::ip( "239.1.0.1" );
   EXPECT_EQ( walk( nat.tables, sent ).packets, copies );
}

}  // namespace
