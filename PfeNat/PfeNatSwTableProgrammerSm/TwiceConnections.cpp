#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include "PfeNat/PfeNatSwTableProgrammerSm/ConfiguredRule.h"
#include "PfeNat/PfeNatSwTableProgrammerSm/RequestTrace.h"
#include "PfeNat/PfeNatSwTableProgrammerSm/TwiceRule.h"

#include <Pfe/NatConnections.h>
#include <Vexa/Assert.h>

namespace Pfe {

using PfeHelper::NatHwResult;

// --- The kind --------------------------------------------------------------------------------------------------------

void TwiceRule::traceProgram( Table::Key const & ingKey ) {
   TRACE( traceHandle(), 6, "programTwiceRule", ", direction: ", ingKey.forward ? "forward" : "reverse",
          ", fragment: ", ingKey.fragment );
}

EgrNatUcRewriteEntry TwiceRule::rewrite( Table::Key const & ingKey ) {
   EgrNatUcRewriteEntry rewrite;
   rewrite.srcIp = ingKey.srcIpAndPortNew.ip;
   rewrite.srcPort = ingKey.srcIpAndPortNew.port;
   rewrite.dstIp = ingKey.dstIpAndPortNew.ip;
   rewrite.dstPort = ingKey.dstIpAndPortNew.port;
   return rewrite;
}

void TwiceRule::fillEntry( NatSwTableProgrammerSm const &, ProgrammerEntry const & entry, Table::Entry & ingEntry ) {
   ingEntry.nextHopId = nextHopIdOf( entry.nextHop() );
}

TwiceRule::Table::Key TwiceRule::fragmentKey( Table::Key ingKey ) {
   ingKey.srcIpAndPortOld.port = 0;
   ingKey.dstIpAndPortOld.port = 0;
   ingKey.srcIpAndPortNew.port = 0;
   ingKey.dstIpAndPortNew.port = 0;
   ingKey.fragment = true;
   return ingKey;
}

Asic::EntryHandle::PtrConst programTwiceRule( NatSwTableProgrammerSm & programmer, NatProgrammerTwiceKey const & key,
                                              NatProgrammerTwiceEntry::PtrConst const & entry,
                                              IngTwiceNatTable::Key const & ingKey,
                                              DependentKeys< TwiceRule > const & dependentKeys,
                                              Asic::EntryHandle::PtrConst const & fragHdl ) {
   return programRule< TwiceRule >( programmer, key, entry, ingKey, dependentKeys, fragHdl );
}

// --- The connections -------------------------------------------------------------------------------------------------

namespace {

// The ingress keys of one connection.
class TwiceConnection {
 public:
   TwiceConnection( NatSwTableProgrammerSm const & programmer, NatProgrammerTwiceKey const & key,
                    NatProgrammerTwiceEntry::PtrConst const & entry )
      : key_( key ),
        connection_( entry->connection() ),
        vrfId_( programmer.natProgrammerConfig()->vrfLess() ? 0 : entry->vrfId() ),
        isMulticast_( twiceConnectionIsMulticast( key, entry ) ) {}

   bool isMulticast() const { return isMulticast_; }

   IngTwiceNatTable::Key ingKey( bool forward ) const { return forward ? forwardKey() : reverseKey(); }

 private:
   IngTwiceNatTable::Key forwardKey() const {
      return { .natIntf = key_.natIntf,
               .vrfId = vrfId_,
               .srcIpAndPortOld = connection_.source,
               .dstIpAndPortOld = connection_.destination,
               .srcIpAndPortNew = connection_.translatedSource,
               .dstIpAndPortNew = connection_.translatedDestination,
               .forward = true,
               .fragment = false,
               .mcast = isMulticast_ };
   }

   // As a reply sees it: it comes from the translated destination and is given the untranslated one.
   IngTwiceNatTable::Key reverseKey() const {
      return { .natIntf = key_.natIntf,
               .vrfId = vrfId_,
               .srcIpAndPortOld = connection_.translatedDestination,
               .dstIpAndPortOld = connection_.translatedSource,
               .srcIpAndPortNew = connection_.destination,
               .dstIpAndPortNew = connection_.source,
               .forward = false,
               .fragment = false,
               .mcast = isMulticast_ };
   }

   NatProgrammerTwiceKey const & key_;
   Ip::Nat::NatTwiceConnection const & connection_;
   U32 vrfId_;
   bool isMulticast_;
};

}  // namespace

NatMatchKey NatSwTableProgrammerSm::twiceNatMatchKey( IngTwiceNatTable::Key const & ingKey ) const {
   NatMatchKey const natMatchKey = TwiceNatMatchKey{ .natIntf = ingKey.natIntf,
                                                     .vrfId = ingKey.vrfId,
                                                     .srcIpAndPortOld = ingKey.srcIpAndPortOld,
                                                     .dstIpAndPortOld = ingKey.dstIpAndPortOld,
                                                     .forward = ingKey.forward };
   TRACE( traceHandle(), 6, "twiceNatMatchKey", ", natMatchKey: ", natMatchKey );
   Trace::RingTrace::defaultHandle().message( "NatSwTableProgrammerSm::twiceNatMatchKey", ", forward: ", ingKey.forward,
                                              ", srcIpAndPortOld: ", ingKey.srcIpAndPortOld,
                                              ", dstIpAndPortOld: ", ingKey.dstIpAndPortOld );
   return natMatchKey;
}

void NatSwTableProgrammerSm::addTwiceConnection( NatProgrammerTwiceKey const & key,
                                                 NatProgrammerTwiceEntry::PtrConst const & entry ) {
   traceRequest( "addTwiceConnection", key );
   if ( isNoOpDuringCleanup( *this, "addTwiceConnection" ) ) {
      return;
   }
   VEXA_ASSERT( initialized() );
   TwiceConnection const connection( *this, key, entry );
   for ( bool const forward : getTwiceConnectionDirections( connection.isMulticast() ) ) {
      DependentKeys< TwiceRule > dependentKeys;
      if ( !connection.isMulticast() ) {
         dependentKeys.push( connection.ingKey( !forward ) );
      }
      programDirection< TwiceRule >( *this, key, entry, connection.ingKey( forward ), dependentKeys );
   }
}

// Rewriting a key replaces its entry in place, so nothing is removed first.
void NatSwTableProgrammerSm::updateTwiceConnection( NatProgrammerTwiceKey const & key,
                                                    NatProgrammerTwiceEntry::PtrConst const & entry ) {
   traceRequest( "updateTwiceConnection", key );
   addTwiceConnection( key, entry );
}

void NatSwTableProgrammerSm::deleteTwiceConnection( NatProgrammerTwiceKey const & key,
                                                    NatProgrammerTwiceEntry::PtrConst const & entry ) {
   traceRequest( "deleteTwiceConnection", key );
   if ( isNoOpDuringCleanup( *this, "deleteTwiceConnection" ) ) {
      return;
   }
   TwiceConnection const connection( *this, key, entry );
   for ( bool const forward : getTwiceConnectionDirections( connection.isMulticast() ) ) {
      ingTwiceNatTable()->entryRemove( connection.ingKey( forward ) );
   }

   auto const * const status = natProgrammerStatus()->twiceStatus().find( key );
   if ( !status ) {
      return;
   }
   // Unlike a static rule, one that is still pending is left to the completion of its removal.
   switch ( status->result ) {
   case NatHwResult::failed:
   case NatHwResult::rejectedMulticast: deleteProgrammerTwiceStatusEntry( key, entry ); return;
   case NatHwResult::pending:
   case NatHwResult::programmed:
   case NatHwResult::unsupported:
   case NatHwResult::noSpace: return;
   }
   VEXA_ASSERT( false && "unknown programmerStatus result" );
}

}  // namespace Pfe
