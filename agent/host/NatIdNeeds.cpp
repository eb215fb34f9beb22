#include "agent/host/NatIdNeeds.h"

#include <algorithm>

namespace Agent {

namespace {

Pfe::NatMatchKey matchKey( Pfe::IngStaticNatTable::Key const & row ) {
   return Pfe::StaticNatMatchKey{ .natIntf = row.natIntf,
                                  .vrfId = row.vrfId,
                                  .ipAndPortOld = row.ipAndPortOld,
                                  .target = row.target,
                                  .protocol = row.protocol };
}

Pfe::NatMatchKey matchKey( Pfe::IngTwiceNatTable::Key const & row ) {
   return Pfe::TwiceNatMatchKey{ .natIntf = row.natIntf,
                                 .vrfId = row.vrfId,
                                 .srcIpAndPortOld = row.srcIpAndPortOld,
                                 .dstIpAndPortOld = row.dstIpAndPortOld,
                                 .forward = row.forward };
}

template< class Tag > Pfe::NatMatchKey matchKey( Pfe::IngDynamicNaptKey< Tag > const & row ) {
   return Pfe::DynamicNatMatchKey{ .vrfId = row.vrfId,
                                   .first = { row.firstIp, row.firstPort },
                                   .second = { row.secondIp, row.secondPort },
                                   .protocol = row.protocol };
}

template< class Tag > Pfe::NatMatchKey matchKey( Pfe::IngDynamicAddrOnlyKey< Tag > const & row ) {
   return Pfe::DynamicNatMatchKey{ .vrfId = row.vrfId, .first = { row.ip, 0 }, .second = {}, .protocol = 0 };
}

template< class Rule > Pfe::NatIdDemand::MatchKeys matchKeys( Rule const & rule, Settings const & settings ) {
   Pfe::NatIdDemand::MatchKeys keys;
   forEachRow( rule, settings, [ & ]( Pfe::IngNatTableKey const & row ) {
      auto const key = matchKeyOf( row );
      if ( std::find( keys.begin(), keys.end(), key ) == keys.end() ) {
         keys.push( key );
      }
   } );
   return keys;
}

}  // namespace

Pfe::NatMatchKey matchKeyOf( Pfe::IngNatTableKey const & row ) {
   return std::visit( []( auto const & key ) { return matchKey( key ); }, row.storage() );
}

NatIdNeeds::MatchKeys NatIdNeeds::matchKeysOf( Pfe::NatProgrammerStaticKey const & key,
                                               Pfe::NatProgrammerStaticEntry::PtrConst const & entry ) const {
   StaticRule const rule{ key, entry };
   bool const isRejected = isMulticast( rule ) && !mcast_->isValidMcastStaticTranslation( key, entry );
   return isRejected ? MatchKeys() : matchKeys( rule, settings_ );
}

NatIdNeeds::MatchKeys NatIdNeeds::matchKeysOf( Pfe::NatProgrammerTwiceKey const & key,
                                               Pfe::NatProgrammerTwiceEntry::PtrConst const & entry ) const {
   TwiceRule const rule{ key, entry };
   bool const isRejected = isMulticast( rule ) && !mcast_->isValidMcastTwiceTranslation( key, entry );
   return isRejected ? MatchKeys() : matchKeys( rule, settings_ );
}

NatIdNeeds::MatchKeys NatIdNeeds::matchKeysOf( Pfe::NatProgrammerDynamicKey const & key,
                                               Pfe::NatProgrammerDynamicEntry::PtrConst const & entry ) const {
   bool const isElsewhere = entry->connection().fullCone && !settings_.fullConeProgrammed;
   return isElsewhere ? MatchKeys() : matchKeys( DynamicRule{ key, entry }, settings_ );
}

}  // namespace Agent
