#include "Rules.h"

#include <array>

namespace Bench {

namespace {

using Ip::Nat::NatTarget;

constexpr Netix::IpAddr firstInside( 0x0a000001 );   // 10.0.0.1
constexpr Netix::IpAddr firstOutside( 0x64400001 );  // 100.64.0.1
constexpr U16 firstPort = 1024;
constexpr U8 tcp = 6;

Netix::IpAndPort pairAfter( Netix::IpAddr first, std::size_t address, std::size_t port ) {
   return { Netix::IpAddr( first.value() + static_cast< U32 >( address ) ), static_cast< U16 >( firstPort + port ) };
}

StaticRule staticRule( std::size_t number, std::size_t addresses, Pfe::NatNextHopInfo::PtrConst const & nextHop ) {
   static std::array const interfaces{ *Netix::IntfId::fromName( "ethernet1" ), *Netix::IntfId::fromName( "ethernet2" ),
                                       *Netix::IntfId::fromName( "ethernet3" ), *Netix::IntfId::fromName( "vlan10" ) };
   auto const address = number % addresses;
   auto const port = number / addresses;
   auto const inside = pairAfter( firstInside, address, port );
   auto const outside = pairAfter( firstOutside, address, port );
   auto const target = number % 2 == 0 ? NatTarget::source : NatTarget::destination;
   auto const keyPair = target == NatTarget::source ? inside : outside;
   auto const translated = target == NatTarget::source ? outside : inside;
   auto const intf = address % interfaces.size();

   Pfe::NatProgrammerStaticEntry::Fields fields;
   fields.intfQualifier = static_cast< U16 >( 100 + intf );
   fields.connection = { .translated = translated, .target = target, .protocol = tcp };
   fields.nextHop = nextHop;
   return { .key = { .natIntf = interfaces[ intf ], .key = { .aclName = {}, .ip = keyPair.ip, .port = keyPair.port } },
            .entry = Orla::make< Pfe::NatProgrammerStaticEntry >( fields ) };
}

}  // namespace

StaticRules staticRules( std::size_t count, std::size_t addresses ) {
   StaticRules rules;
   rules.reserve( count );
   for ( std::size_t i = 0; i < count; ++i ) {
      rules.push_back( staticRule( i, addresses, nullptr ) );
   }
   return rules;
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
