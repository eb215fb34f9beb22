#include "agent/configuration/TrapEntry.h"

#include <Netix/VrfId.h>

#include <limits>
#include <string>
#include <utility>

namespace Agent {

namespace {

constexpr U8 exactProtocol = 0xff;
// Rules are written under numbers a little behind those of their filters.
constexpr U64 lastSequence = std::numeric_limits< U32 >::max() - 2;

void takeProtocol( JsonValue value, Ip::Nat::NatTrapFilter & filter ) {
   take( value, filter.protocol );
   filter.protocolMask = exactProtocol;
}

void takePermit( JsonValue value, Ip::Nat::NatTrapFilter & filter ) {
   bool permit = false;
   take( value, permit );
   filter.permit = permit ? 1 : 0;
}

constexpr Member< Acl::PortRange > rangeMembers[] = { { "first", into< &Acl::PortRange::first >, true },
                                                      { "last", into< &Acl::PortRange::last >, true } };

template< Acl::PortSpec Ip::Nat::NatTrapFilter::*ports >
void takeRanges( JsonValue list, Ip::Nat::NatTrapFilter & filter ) {
   constexpr std::size_t mostRanges = 255;
   auto & ranges = ( filter.*ports ).ranges;
   forEachIn( list, rangeMembers, [ & ]( JsonValue value, Acl::PortRange const & range ) {
      if ( range.last < range.first ) {
         refuse( value, "ends before it begins", "a last port that is not less than the first" );
      }
      ranges.push_back( range );
   } );
   if ( ranges.size() > mostRanges ) {
      refuse( list, "of " + std::to_string( ranges.size() ) + " ranges", "at most 255 ranges" );
   }
}

constexpr Member< Ip::Nat::NatTrapFilter > filterMembers[] = {
   { "sequence", within< &Ip::Nat::NatTrapFilter::sequence, 0, lastSequence >, true },
   { "source-prefix", into< &Ip::Nat::NatTrapFilter::source > },
   { "destination-prefix", into< &Ip::Nat::NatTrapFilter::destination > },
   { "protocol", takeProtocol },
   { "permit", takePermit },
   { "source-port-range", takeRanges< &Ip::Nat::NatTrapFilter::sourcePort > },
   { "destination-port-range", takeRanges< &Ip::Nat::NatTrapFilter::destinationPort > } };

struct TrapMembers : Ip::Nat::NatDynamicTrapRule {
   Netix::IntfId intf;
   Ip::Nat::DynamicKey key;
   U32 vrfId = 0;
};

template< auto member > void intoKey( JsonValue value, TrapMembers & trap ) { take( value, trap.key.*member ); }

void takeFilters( JsonValue list, TrapMembers & trap ) {
   std::set< U32 > sequences;
   forEachIn( list, filterMembers, [ & ]( JsonValue value, Ip::Nat::NatTrapFilter const & filter ) {
      if ( !sequences.insert( filter.sequence ).second ) {
         refuse( value, "has the sequence number " + std::to_string( filter.sequence ) + " of another filter",
                 "a number of its own" );
      }
      trap.trapFilter.is( filter );
   } );
}

constexpr Member< TrapMembers > trapMembers[] = { { "interface", into< &TrapMembers::intf >, true },
                                                  { "access-list", intoKey< &Ip::Nat::DynamicKey::aclName >, true },
                                                  { "pool", intoKey< &Ip::Nat::DynamicKey::poolId >, true },
                                                  { "rule-id", into< &TrapMembers::ruleId > },
                                                  { "pool-value", into< &TrapMembers::poolValue > },
                                                  { "vrf", within< &TrapMembers::vrfId, 0, Netix::VrfId::max > },
                                                  { "priority", into< &TrapMembers::priority > },
                                                  { "action", into< &TrapMembers::action > },
                                                  { "trap-all", into< &TrapMembers::trapAll > },
                                                  { "filter", takeFilters } };

}  // namespace

Trap takeTrap( JsonValue value ) {
   TrapMembers trap;
   takeMembers( value, trapMembers, trap );
   return { .key = { .natIntf = trap.intf, .key = trap.key },
            .entry = Orla::make< Pfe::NatProgrammerTrapEntry >( trap.vrfId, std::move( trap ) ) };
}

}  // namespace Agent
