#include "Rules.h"

#include <array>

namespace Bench {

namespace {

using Ip::Nat::NatTarget;

constexpr Netix::IpAddr firstInside( 0x0a000001 );      // 10.0.0.1
constexpr Netix::IpAddr firstOutside( 0x64400001 );     // 100.64.0.1
constexpr Netix::IpAddr firstPeer( 0xac100001 );        // 172.16.0.1
constexpr Netix::IpAddr firstPeerInside( 0x0b000001 );  // 11.0.0.1
constexpr U16 firstPort = 1024;
constexpr U16 peerPort = 443;
constexpr U8 tcp = 6;

Netix::IpAndPort pairAfter( Netix::IpAddr first, std::size_t address, std::size_t port ) {
   return { Netix::IpAddr( first.value() + static_cast< U32 >( address ) ), static_cast< U16 >( firstPort + port ) };
}

// What the rule of a number translates, in whichever kind.
struct Translation {
   Translation( std::size_t number, std::size_t addresses )
      : address( number % addresses ),
        inside( pairAfter( firstInside, address, number / addresses ) ),
        outside( pairAfter( firstOutside, address, number / addresses ) ),
        target( number % 2 == 0 ? NatTarget::source : NatTarget::destination ) {}

   Netix::IntfId intf() const {
      static std::array const interfaces{
         *Netix::IntfId::fromName( "ethernet1" ), *Netix::IntfId::fromName( "ethernet2" ),
         *Netix::IntfId::fromName( "ethernet3" ), *Netix::IntfId::fromName( "vlan10" ) };
      return interfaces[ address % interfaces.size() ];
   }
   U16 intfQualifier() const { return static_cast< U16 >( 100 + address % 4 ); }
   bool isSource() const { return target == NatTarget::source; }
   Netix::IpAndPort peer( Netix::IpAddr first ) const {
      return { Netix::IpAddr( first.value() + static_cast< U32 >( address ) ), peerPort };
   }

   std::size_t address;
   Netix::IpAndPort inside;
   Netix::IpAndPort outside;
   NatTarget target;
};

StaticRule staticRule( Translation const & t ) {
   auto const & keyPair = t.isSource() ? t.inside : t.outside;
   Pfe::NatProgrammerStaticEntry::Fields fields;
   fields.intfQualifier = t.intfQualifier();
   fields.connection = { .translated = t.isSource() ? t.outside : t.inside, .target = t.target, .protocol = tcp };
   return { .key = { .natIntf = t.intf(), .key = { .aclName = {}, .ip = keyPair.ip, .port = keyPair.port } },
            .entry = Orla::make< Pfe::NatProgrammerStaticEntry >( fields ) };
}

TwiceRule twiceRule( Translation const & t ) {
   auto const destination = t.peer( firstPeerInside );
   Pfe::NatProgrammerTwiceEntry::Fields fields;
   fields.intfQualifier = t.intfQualifier();
   fields.connection = { t.inside, destination, t.outside, t.peer( firstPeer ) };
   return { .key = { .natIntf = t.intf(), .key = { t.inside, destination } },
            .entry = Orla::make< Pfe::NatProgrammerTwiceEntry >( fields ) };
}

DynamicRule dynamicRule( Translation const & t, bool addrOnly ) {
   auto const peer = t.peer( firstPeer );
   Pfe::NatProgrammerDynamicEntry::Fields fields;
   fields.intfQualifier = t.intfQualifier();
   fields.connection = { .target = t.target, .addrOnly = addrOnly, .fullCone = false };
   fields.global = t.isSource() ? t.outside : t.inside;
   return {
      .key = { .natIntf = t.intf(), .conn = { t.isSource() ? t.inside : peer, t.isSource() ? peer : t.outside, tcp } },
      .entry = Orla::make< Pfe::NatProgrammerDynamicEntry >( fields ) };
}

template< class Make > auto rulesMadeBy( Make && make, std::size_t count, std::size_t addresses ) {
   std::vector< decltype( make( Translation( 0, 1 ) ) ) > rules;
   rules.reserve( count );
   for ( std::size_t i = 0; i < count; ++i ) {
      rules.push_back( make( Translation( i, addresses ) ) );
   }
   return rules;
}

}  // namespace

StaticRules staticRules( std::size_t count, std::size_t addresses ) {
   return rulesMadeBy( staticRule, count, addresses );
}

TwiceRules twiceRules( std::size_t count, std::size_t addresses ) { return rulesMadeBy( twiceRule, count, addresses ); }

DynamicRules naptRules( std::size_t count, std::size_t addresses ) {
   return rulesMadeBy( []( Translation const & t ) { return dynamicRule( t, false ); }, count, addresses );
}

DynamicRules addrOnlyRules( std::size_t count ) {
   return rulesMadeBy( []( Translation const & t ) { return dynamicRule( t, true ); }, count, count );
}

StaticRules withNextHop( StaticRules const & rules ) {
   auto const nextHop = Orla::make< Pfe::NatNextHopId >( 7 );
   auto changed = rules;
   for ( auto & rule : changed ) {
      Pfe::NatProgrammerStaticEntry::Fields fields;
      fields.intfQualifier = rule.entry->intfQualifier();
      fields.connection = rule.entry->connection();
      fields.nextHop = nextHop;
      rule.entry = Orla::make< Pfe::NatProgrammerStaticEntry >( fields );
   }
   return changed;
}

}  // namespace Bench
