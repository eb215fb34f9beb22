#include "agent/host/McastReplications.h"

namespace Agent {

namespace {

constexpr std::string_view sourceIsMulticast = "a multicast address is no source";
constexpr std::string_view onlyOneIsMulticast = "one of the addresses is multicast, the other is not";

// Without the question of the group.
std::string_view whyInvalid( StaticRule const & rule ) {
   auto const & connection = rule.entry->connection();
   if ( connection.target != Ip::Nat::NatTarget::destination ) {
      return sourceIsMulticast;
   }
   return rule.key.key.ip.isMulticast() && connection.translated.ip.isMulticast() ? "" : onlyOneIsMulticast;
}

std::string_view whyInvalid( TwiceRule const & rule ) {
   auto const & connection = rule.entry->connection();
   if ( connection.source.ip.isMulticast() || connection.translatedSource.ip.isMulticast() ) {
      return sourceIsMulticast;
   }
   return connection.destination.ip.isMulticast() && connection.translatedDestination.ip.isMulticast()
             ? ""
             : onlyOneIsMulticast;
}

std::string_view whyInvalid( DynamicRule const & ) { return ""; }

Pfe::EgrMcastEntry copiesOf( McastGroup const & group, Netix::IpAddr source, Netix::IpAddr destination,
                             Pfe::NatId natId ) {
   Pfe::EgrMcastEntry result;
   for ( auto const & [ number, replication ] : group ) {
      Pfe::EgrNatMcRewriteEntry rewrite;
      rewrite.srcIp = replication.sourceAddress == Netix::IpAddr() ? source : replication.sourceAddress;
      rewrite.dstIp = destination;
      rewrite.egressIntf = replication.intf.value();
      result.entryPush( { { .natId = natId, .replication = number }, rewrite } );
   }
   result.validIs( true );
   return result;
}

}  // namespace

std::string_view whyInvalid( Connection const & connection ) {
   auto const why = std::visit( []( auto const & rule ) { return whyInvalid( rule ); }, connection.rule );
   return why.empty() && !connection.group ? "no pfe-nat:multicast-group is named" : why;
}

void McastReplications::groupIs( Connection const & connection, std::shared_ptr< McastGroup const > const & group ) {
   auto const put = [ & ]( auto & groups, auto const & key ) {
      group ? groups.is( key, group ) : void( groups.del( key ) );
   };
   if ( auto const * const staticRule = std::get_if< StaticRule >( &connection.rule ) ) {
      put( groupOfStaticRule_, staticRule->key );
   } else if ( auto const * const twiceRule = std::get_if< TwiceRule >( &connection.rule ) ) {
      put( groupOfTwiceRule_, twiceRule->key );
   }
}

bool McastReplications::isValidMcastStaticTranslation( Pfe::NatProgrammerStaticKey const & key,
                                                       Pfe::NatProgrammerStaticEntry::PtrConst const & entry ) {
   return whyInvalid( StaticRule{ key, entry } ).empty() && groupOfStaticRule_.has( key );
}

bool McastReplications::isValidMcastTwiceTranslation( Pfe::NatProgrammerTwiceKey const & key,
                                                      Pfe::NatProgrammerTwiceEntry::PtrConst const & entry ) {
   return whyInvalid( TwiceRule{ key, entry } ).empty() && groupOfTwiceRule_.has( key );
}

Pfe::EgrMcastEntry McastReplications::getStaticEgrMcastEntry( Pfe::NatProgrammerStaticKey const & key,
                                                              Pfe::NatProgrammerStaticEntry::PtrConst const & entry,
                                                              Pfe::NatMatchKey const &, Pfe::NatId natId ) {
   return copiesOf( **groupOfStaticRule_.find( key ), {}, entry->connection().translated.ip, natId );
}

Pfe::EgrMcastEntry McastReplications::getTwiceEgrMcastEntry( Pfe::NatProgrammerTwiceKey const & key,
                                                             Pfe::NatProgrammerTwiceEntry::PtrConst const & entry,
                                                             Pfe::NatMatchKey const &, Pfe::NatId natId ) {
   auto const & connection = entry->connection();
   return copiesOf( **groupOfTwiceRule_.find( key ), connection.translatedSource.ip,
                    connection.translatedDestination.ip, natId );
}

}  // namespace Agent
