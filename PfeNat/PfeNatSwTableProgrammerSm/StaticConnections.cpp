#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include "PfeNat/PfeNatSwTableProgrammerSm/ConfiguredRule.h"
#include "PfeNat/PfeNatSwTableProgrammerSm/RequestTrace.h"
#include "PfeNat/PfeNatSwTableProgrammerSm/StaticRule.h"

#include <IpNat/NatStatic.h>
#include <Pfe/NatConnections.h>
#include <Vexa/Assert.h>

namespace Pfe {

using Ip::Nat::NatTarget;
using PfeHelper::NatHwResult;

// --- The kind --------------------------------------------------------------------------------------------------------

void StaticRule::traceProgram( Table::Key const & ingKey ) {
   TRACE( traceHandle(), 6, "programStaticRule", ", target: ", ingKey.target, ", fragment: ", ingKey.fragment );
}

EgrNatUcRewriteEntry StaticRule::rewrite( Table::Key const & ingKey ) {
   EgrNatUcRewriteEntry rewrite;
   if ( ingKey.target == NatTarget::destination ) {
      rewrite.dstIp = ingKey.ipAndPortNew.ip;
      rewrite.dstPort = ingKey.ipAndPortNew.port;
   } else {
      rewrite.srcIp = ingKey.ipAndPortNew.ip;
      rewrite.srcPort = ingKey.ipAndPortNew.port;
   }
   return rewrite;
}

void StaticRule::fillEntry( NatSwTableProgrammerSm const & programmer, ProgrammerEntry const & entry,
                            Table::Entry & ingEntry ) {
   ingEntry.nextHopId = nextHopIdOf( entry.nextHop() );
   if ( !entry.aclName().empty() && programmer.aclNameIdTable() ) {
      ingEntry.aclId = programmer.aclNameIdTable()->allocateAclId( entry.aclName() );
   }
   if ( !entry.filtersDisabled() ) {
      for ( auto const & [ sequence, filter ] : entry.filters() ) {
         ingEntry.filterIs( filter );
      }
   }
}

StaticRule::Table::Key StaticRule::fragmentKey( Table::Key ingKey ) {
   ingKey.ipAndPortOld.port = 0;
   ingKey.ipAndPortNew.port = 0;
   ingKey.fragment = true;
   return ingKey;
}

Asic::EntryHandle::PtrConst programStaticRule( NatSwTableProgrammerSm & programmer, NatProgrammerStaticKey const & key,
                                               NatProgrammerStaticEntry::PtrConst const & entry,
                                               IngStaticNatTable::Key const & ingKey,
                                               DependentKeys< StaticRule > const & dependentKeys,
                                               Asic::EntryHandle::PtrConst const & fragHdl ) {
   return programRule< StaticRule >( programmer, key, entry, ingKey, dependentKeys, fragHdl );
}

// --- The connections -------------------------------------------------------------------------------------------------

namespace {

// The ingress keys of one connection.
class StaticConnection {
 public:
   StaticConnection( NatProgrammerStaticKey const & key, NatProgrammerStaticEntry::PtrConst const & entry )
      : key_( key ),
        entry_( entry ),
        natIntf_( key.natIntf.name() ),
        isMulticast_( staticConnectionIsMulticast( key, entry, true ) ) {}

   bool isMulticast() const { return isMulticast_; }

   Ip::Nat::NatTargets targets() const {
      return getStaticConnectionTargets( entry_->connection().target, isMulticast_ );
   }

   // The global pair is matched where the destination is translated, the local pair where the source is.
   IngStaticNatTable::Key ingKey( NatTarget target ) const {
      Netix::IpAndPort const keyPair{ key_.key.ip, key_.key.port };
      auto const & connection = entry_->connection();
      bool const keyIsMatched = target == connection.target;
      return { .natIntf = natIntf_,
               .vrfId = entry_->vrfId(),
               .ipAndPortOld = keyIsMatched ? keyPair : connection.translated,
               .ipAndPortNew = keyIsMatched ? connection.translated : keyPair,
               .target = target,
               .protocol = connection.protocol,
               .fragment = false,
               .mcast = isMulticast_ };
   }

 private:
   NatProgrammerStaticKey const & key_;
   NatProgrammerStaticEntry::PtrConst const & entry_;
   Orla::String natIntf_;
   bool isMulticast_;
};

NatTarget oppositeOf( NatTarget target ) {
   return target == NatTarget::source ? NatTarget::destination : NatTarget::source;
}

}  // namespace

NatMatchKey NatSwTableProgrammerSm::staticNatMatchKey( IngStaticNatTable::Key const & ingKey ) const {
   NatMatchKey const natMatchKey = StaticNatMatchKey{ .natIntf = ingKey.natIntf,
                                                      .vrfId = ingKey.vrfId,
                                                      .ipAndPortOld = ingKey.ipAndPortOld,
                                                      .target = ingKey.target,
                                                      .protocol = ingKey.protocol };
   TRACE( traceHandle(), 6, "staticNatMatchKey", ", natMatchKey: ", natMatchKey );
   Trace::RingTrace::defaultHandle().message( "NatSwTableProgrammerSm::staticNatMatchKey", ", target: ", ingKey.target,
                                              ", ipAndPortOld: ", ingKey.ipAndPortOld );
   return natMatchKey;
}

void NatSwTableProgrammerSm::addStaticConnection( NatProgrammerStaticKey const & key,
                                                  NatProgrammerStaticEntry::PtrConst const & entry ) {
   traceRequest( "addStaticConnection", key );
   if ( isNoOpDuringCleanup( *this, "addStaticConnection" ) ) {
      return;
   }
   StaticConnection const connection( key, entry );
   for ( auto const target : connection.targets() ) {
      DependentKeys< StaticRule > dependentKeys;
      if ( !connection.isMulticast() ) {
         dependentKeys.push( connection.ingKey( oppositeOf( target ) ) );
      }
      programDirection< StaticRule >( *this, key, entry, connection.ingKey( target ), dependentKeys );
   }
}

// Rewriting a key replaces its entry in place, so nothing is removed first.
void NatSwTableProgrammerSm::updateStaticConnection( NatProgrammerStaticKey const & key,
                                                     NatProgrammerStaticEntry::PtrConst const & entry ) {
   traceRequest( "updateStaticConnection", key );
   addStaticConnection( key, entry );
}

void NatSwTableProgrammerSm::deleteStaticConnection( NatProgrammerStaticKey const & key,
                                                     NatProgrammerStaticEntry::PtrConst const & entry ) {
   traceRequest( "deleteStaticConnection", key );
   if ( isNoOpDuringCleanup( *this, "deleteStaticConnection" ) ) {
      return;
   }
   StaticConnection const connection( key, entry );
   for ( auto const target : connection.targets() ) {
      ingStaticNatTable()->entryRemove( connection.ingKey( target ) );
   }

   auto const * const status = natProgrammerStatus()->staticStatus().find( key );
   switch ( status ? status->result : NatHwResult::pending ) {
   case NatHwResult::programmed: return;  // the removal's completion deletes it
   case NatHwResult::pending:
   case NatHwResult::failed:
   case NatHwResult::unsupported:
   case NatHwResult::noSpace:
   case NatHwResult::rejectedMulticast: deleteProgrammerStaticStatusEntry( key, entry ); return;
   }
   VEXA_ASSERT( false && "unknown programmerStatus result" );
}

}  // namespace Pfe
