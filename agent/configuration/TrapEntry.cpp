#include "agent/configuration/TrapEntry.h"

#include <Netix/VrfId.h>

#include <algorithm>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Agent {

namespace {

constexpr U8 exactProtocol = 0xff;
// Rules are written under numbers a little behind those of their filters.
constexpr U64 lastSequence = std::numeric_limits< U32 >::max() - 2;
// Of one filter. A pair of ranges comes to at most 30 times 30.
constexpr std::size_t mostRules = 1024;

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

// The fewest blocks of a power of two ports, aligned to their size, that match what the ranges match together: hardware
// has one of them in a rule. Every port is one block.
std::vector< Acl::PortSpec > blocksOf( Acl::PortSpec const & ports ) {
   auto ranges = ports.ranges;
   std::ranges::sort( ranges );
   std::vector< Acl::PortSpec > blocks( ranges.empty() ? 1 : 0 );
   for ( auto range = ranges.begin(); range != ranges.end(); ) {
      auto joined = *range;
      while ( ++range != ranges.end() && range->first <= U32{ joined.last } + 1 ) {
         joined.last = std::max( joined.last, range->last );
      }
      for ( auto const & [ value, mask ] : Netix::RangeMaskGen< U16 >::entriesOf( joined.first, joined.last ) ) {
         blocks.push_back( { { { value, static_cast< U16 >( value | ~mask ) } } } );
      }
   }
   return blocks;
}

// The numbers of the filters that one of a file becomes, by the first: the last.
using Numbers = std::map< U32, U32 >;

// Takes as many numbers as the filter has pairs of port blocks, from its own on.
void claimNumbers( JsonValue value, Numbers & taken, U32 first, std::size_t count ) {
   if ( count > mostRules || first + count - 1 > lastSequence ) {
      refuse( value, "comes to " + std::to_string( count ) + " pairs of port blocks, each of which takes a number",
              "at most " + std::to_string( mostRules ) + " pairs, and numbers up to " +
                 std::to_string( lastSequence ) );
   }
   auto const last = static_cast< U32 >( first + count - 1 );
   auto other = taken.upper_bound( last );
   if ( other == taken.begin() || ( --other )->second < first ) {
      taken.emplace( first, last );
   } else if ( other->first == first ) {
      refuse( value, "has the sequence number " + std::to_string( first ) + " of another filter",
              "a number of its own" );
   } else {
      auto const numbers = []( U32 from, U32 to ) { return std::to_string( from ) + " to " + std::to_string( to ); };
      refuse( value,
              "takes the numbers " + numbers( first, last ) + ", one for each pair of port blocks, and filter " +
                 std::to_string( other->first ) + " takes " + numbers( other->first, other->second ),
              "sequence numbers that leave room for the pairs" );
   }
}

template< auto member > void intoKey( JsonValue value, TrapMembers & trap ) { take( value, trap.key.*member ); }

void takeFilters( JsonValue list, TrapMembers & trap ) {
   Numbers taken;
   forEachIn( list, filterMembers, [ & ]( JsonValue value, Ip::Nat::NatTrapFilter const & filter ) {
      auto const sources = blocksOf( filter.sourcePort );
      auto const destinations = blocksOf( filter.destinationPort );
      claimNumbers( value, taken, filter.sequence, sources.size() * destinations.size() );
      // The programmer has one rule for each filter.
      auto part = filter;
      for ( auto const & source : sources ) {
         for ( auto const & destination : destinations ) {
            part.sourcePort = source;
            part.destinationPort = destination;
            trap.trapFilter.is( part );
            ++part.sequence;
         }
      }
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
