// What a host is left with when some of its rules go, compared with a host that never had them.
#include "agent/host/Host.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

using Agent::Configuration;

class Chip final : public Asic::Chip {
 public:
   bool fails = false;
   void carryOut( std::span< Asic::ChipRequest const > requests, std::span< Asic::EntryState > outcomes ) override {
      outcomes.front() = fails && requests.front().version ? Asic::EntryState::failed : Asic::EntryState::settled;
   }
};

std::string sideOf( std::string const & side, std::string const & internal, std::string const & external ) {
   auto const pair = [ & ]( std::string const & place, std::string const & text ) {
      auto const colon = text.find( ':' );
      auto const member = ", \"" + place + '-' + side;
      return member + "-address\": \"" + text.substr( 0, colon ) + "/32\"" +
             ( colon == text.npos ? ""
                                  : member + "-port\": {\"start-port-number\": " + text.substr( colon + 1 ) + '}' );
   };
   return pair( "internal", internal ) + pair( "external", external );
}

// Of entries without their index, type and interface; 0 leaves all in.
Configuration configurationOf( std::vector< std::string > const & entries, std::size_t without ) {
   std::string text;
   for ( std::size_t i = 1; i <= entries.size(); ++i ) {
      if ( i != without ) {
         text += ( text.empty() ? "" : ", " ) +
                 ( R"({"pfe-nat:interface": "ethernet1", "index": )" + std::to_string( i ) + entries[ i - 1 ] + '}' );
      }
   }
   return Agent::configurationIn( "test", R"({"ietf-nat:nat": {"instances": {"instance": [{"id": 1,
      "pfe-nat:fragmentation": true, "mapping-table": {"mapping-entry": [)" +
                                             text + "]}}]}}}" );
}

// The rewrites that the hardware holds, whatever their NAT ids.
std::multiset< std::string > rewritesOf( Agent::Host const & host ) {
   std::multiset< std::string > rewrites;
   host.tables().forEachEgress( [ & ]( auto const & table ) {
      table.forEach( [ & ]( auto const & key, auto const &, auto const & ) {
         auto const * const held = table.hardwareEntry( key );
         rewrites.insert( std::string( table.name() ) + ' ' + ( held ? Vexa::stringOf( *held ) : "none" ) );
      } );
   } );
   return rewrites;
}

std::multiset< std::string > rewritesOf( Configuration configuration ) {
   Agent::Host host( std::move( configuration ), nullptr, nullptr );
   host.program();
   return rewritesOf( host );
}

std::string const staticRule = R"(, "type": "static", "transport-protocol": 6)";
std::string const dynamicRule = R"(, "type": "dynamic-implicit", "transport-protocol": 6)";
std::vector< std::vector< std::string > > const sharing = {
   // One inside pair: all packets.
   { staticRule + R"(, "pfe-nat:access-list": "a")" + sideOf( "src", "10.0.0.1:80", "192.0.2.1:80" ),
     staticRule + R"(, "pfe-nat:access-list": "b")" + sideOf( "src", "10.0.0.1:80", "192.0.2.2:80" ) },
   // One public address: later fragments.
   { staticRule + sideOf( "src", "10.0.0.1:80", "192.0.2.1:80" ),
     staticRule + sideOf( "src", "10.0.0.2:443", "192.0.2.1:443" ) },
   // One outside pair: replies.
   { R"(, "type": "static")" + sideOf( "src", "10.0.0.1:80", "192.0.2.1:80" ) +
        sideOf( "dst", "10.9.0.1:80", "172.16.0.1:80" ),
     R"(, "type": "static")" + sideOf( "src", "10.0.0.2:80", "192.0.2.1:81" ) +
        sideOf( "dst", "10.9.0.1:80", "172.16.0.1:80" ) },
   // One public address and one server: later fragments, in a row that says nothing of inside hosts.
   { dynamicRule + sideOf( "src", "10.0.0.1:4000", "192.0.2.1:4000" ) +
        sideOf( "dst", "203.0.113.9:80", "203.0.113.9:80" ),
     dynamicRule + sideOf( "src", "10.0.0.2:4000", "192.0.2.1:4001" ) +
        sideOf( "dst", "203.0.113.9:80", "203.0.113.9:80" ) },
};

TEST( Host, ARuleThatGoesLeavesNothingOfItsTranslationToThoseThatSharedIt ) {
   for ( std::size_t kind = 0; kind < sharing.size(); ++kind ) {
      for ( std::size_t const goes : { 1, 2 } ) {
         SCOPED_TRACE( std::to_string( kind ) + ", rule " + std::to_string( goes ) );
         auto const expected = rewritesOf( configurationOf( sharing[ kind ], goes ) );
         auto const chip = std::make_shared< Chip >();
         Agent::Host host( configurationOf( sharing[ kind ], 0 ), chip, nullptr );
         host.program();
         host.reload( configurationOf( sharing[ kind ], goes ) );
         EXPECT_EQ( rewritesOf( host ), expected );
         // The one that goes wrote last, in vain.
         chip->fails = true;
         host.reload( configurationOf( sharing[ kind ], 0 ) );
         chip->fails = false;
         host.reload( configurationOf( sharing[ kind ], goes ) );
         EXPECT_EQ( rewritesOf( host ), expected );
         if ( auto const all = configurationOf( sharing[ kind ], 0 ); all.rules->dynamicEntry().count() != 0 ) {
            auto const & rule = std::get< Agent::DynamicRule >( all.connections[ goes - 1 ].rule );
            host.learn( {}, { rule } );
            host.learn( { rule.key }, {} );
            EXPECT_EQ( rewritesOf( host ), expected );
         }
      }
   }
}

TEST( Host, KnowsTheMatchKeysOfItsRows ) {
   for ( auto const * file : { "examples/branch-office.json", "examples/mixed.json" } ) {
      Agent::Host host( Agent::configurationFrom( file ), nullptr, nullptr );
      host.program();
      Agent::NatIdNeeds needs( host.programmer().mcastProgrammerHelper() );
      needs.settingsAre( host.configuration().settings );
      std::set< Pfe::NatMatchKey > needed;
      std::set< Pfe::NatMatchKey > given;
      for ( auto const & connection : host.configuration().connections ) {
         auto const keys = std::visit( [ & ]( auto const & rule ) { return needs.matchKeysOf( rule.key, rule.entry ); },
                                       connection.rule );
         needed.insert( keys.begin(), keys.end() );
      }
      host.natIdInfo().matchKeyToNatId().forEach( [ & ]( auto const & key, auto ) { given.insert( key ); } );
      EXPECT_EQ( needed, given ) << file;
   }
}

}  // namespace
