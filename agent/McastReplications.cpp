#include "agent/McastReplications.h"

namespace Agent {

namespace {

// Without the question of its group.
std::string_view whyInvalid( Pfe::NatProgrammerStaticKey const & key,
                             Pfe::NatProgrammerStaticEntry::PtrConst const & entry ) {
   auto const & connection = entry->connection();
   if ( connection.target != Ip::Nat::NatTarget::destination ) {
      return "a multicast address is no source";
   }
   if ( !key.key.ip.isMulticast() || !connection.translated.ip.isMulticast() ) {
      return "one of the addresses is multicast, the other is not";
   }
   return {};
}

}  // namespace

std::string_view whyInvalid( StaticConnection const & connection ) {
   auto const why = whyInvalid( connection.key, connection.entry );
   return why.empty() && !connection.group ? "no pfe-nat:multicast-group is named" : why;
}

McastReplications::McastReplications( std::vector< StaticConnection > const & connections ) {
   for ( auto const & connection : connections ) {
      if ( connection.group ) {
         groupOfRule_.is( connection.key, connection.group );
      }
   }
}

bool McastReplications::isValidMcastStaticTranslation( Pfe::NatProgrammerStaticKey const & key,
                                                       Pfe::NatProgrammerStaticEntry::PtrConst const & entry ) {
   return whyInvalid( key, entry ).empty() && groupOfRule_.has( key );
}

Pfe::EgrMcastEntry McastReplications::getStaticEgrMcastEntry( Pfe::NatProgrammerStaticKey const & key,
                                                              Pfe::NatProgrammerStaticEntry::PtrConst const & entry,
                                                              Pfe::NatMatchKey const &, Pfe::NatId natId ) {
   Pfe::EgrMcastEntry result;
   for ( auto const & [ number, replication ] : **groupOfRule_.find( key ) ) {
      Pfe::EgrNatMcRewriteEntry rewrite;
      rewrite.srcIp = replication.sourceAddress;
      rewrite.dstIp = entry->connection().translated.ip;
      rewrite.egressIntf = replication.intf.value();
      result.entryPush( { { .natId = natId, .replication = number }, rewrite } );
   }
   result.validIs( true );
   return result;
}

// The reader makes no twice rules.
bool McastReplications::isValidMcastTwiceTranslation( Pfe::NatProgrammerTwiceKey const &,
                                                      Pfe::NatProgrammerTwiceEntry::PtrConst const & ) {
   return false;
}

Pfe::EgrMcastEntry McastReplications::getTwiceEgrMcastEntry( Pfe::NatProgrammerTwiceKey const &,
                                                             Pfe::NatProgrammerTwiceEntry::PtrConst const &,
                                                             Pfe::NatMatchKey const &, Pfe::NatId ) {
   return {};
}

}  // namespace Agent
