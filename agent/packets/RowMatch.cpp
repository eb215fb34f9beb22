#include "agent/packets/RowMatch.h"

#include <Vexa/Hash.h>

#include <utility>

namespace Agent {

U32 hashOf( Conditions const & conditions ) {
   Vexa::Hash hash( Vexa::processHashSeed ^ 0x510E527F );
   hash.mix( U32{ conditions.leaving } | U32{ conditions.fragment } << 1 | U32{ conditions.protocol } << 8 );
   std::visit( [ & ]( auto const & at ) { hash.mix( Vexa::hash( at, 0 ) ); }, conditions.at );
   hash.mix( conditions.vrfId.value_or( 0 ) );
   for ( auto const & pair : { conditions.source, conditions.destination } ) {
      hash.mix( pair ? pair->ip.value() : 0 );
      hash.mix( pair ? pair->port : 0 );
   }
   return hash.result();
}

Conditions conditionsOf( Pfe::IngStaticNatTable::Key const & row, bool ) {
   Conditions conditions{ .leaving = row.target == Ip::Nat::NatTarget::source,
                          .at = row.natIntf,
                          .vrfId = row.vrfId,
                          .protocol = row.protocol,
                          .fragment = row.fragment };
   ( conditions.leaving ? conditions.source : conditions.destination ) = row.ipAndPortOld;
   return conditions;
}

Conditions conditionsOf( Pfe::IngTwiceNatTable::Key const & row, bool vrfLess ) {
   return { .leaving = row.forward,
            .at = row.natIntf,
            .vrfId = detail::vrfOf( row.vrfId, vrfLess ),
            .fragment = row.fragment,
            .source = row.srcIpAndPortOld,
            .destination = row.dstIpAndPortOld };
}

namespace {

// Each as it is, and as change( match ) makes it.
template< class Change > Matches withAlternative( Matches matches, Change && change ) {
   for ( std::size_t i = 0, count = matches.size(); i < count; ++i ) {
      change( matches.emplace_back( matches[ i ] ) );
   }
   return matches;
}

}  // namespace

// Later fragments have no ports: they match fragment rows best, others as well as each other.
Matches matchesOf( Packet const & packet, Conditions const & conditions ) {
   bool const isLater = packet.part == Packet::Part::laterFragment;
   Matches matches{ { .conditions = conditions, .rank = isLater ? 1U : 0U } };
   if ( packet.protocol != 0 ) {
      matches = withAlternative( std::move( matches ), []( Match & match ) { match.conditions.protocol = 0; } );
   }
   if ( isLater ) {
      return withAlternative( std::move( matches ), []( Match & match ) {
         match.conditions.fragment = true;
         match.rank = 0;
      } );
   }
   for ( auto const side : { &Conditions::source, &Conditions::destination } ) {
      auto const & pair = conditions.*side;
      if ( pair && pair->port != 0 ) {
         matches = withAlternative( std::move( matches ), [ & ]( Match & match ) {
            ( match.conditions.*side )->port = 0;
            ++match.rank;
         } );
      }
   }
   return matches;
}

}  // namespace Agent
