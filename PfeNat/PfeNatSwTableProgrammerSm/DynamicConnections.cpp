#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include "PfeNat/PfeNatSwTableProgrammerSm/DynamicRule.h"
#include "PfeNat/PfeNatSwTableProgrammerSm/RequestTrace.h"

#include <Netix/VrfId.h>
#include <Vexa/Assert.h>

namespace Pfe {

using Ip::Nat::NatTarget;
using PfeHelper::NatHwResult;

namespace {

// What a platform may pass along with every dynamic rule; nothing here reads it.
constexpr U64 noPlatformValue = 0;

// The keys and rewrites of one learned connection. The source side is programmed first everywhere.
class DynamicConnection {
 public:
   // Throws Vexa::RangeException for a VRF id that no key can hold.
   DynamicConnection( NatSwTableProgrammerSm const & programmer, NatProgrammerDynamicKey const & key,
                      NatProgrammerDynamicEntry::PtrConst const & entry )
      : conn_( key.conn ),
        global_( entry->global() ),
        target_( entry->connection().target ),
        vrfId_( programmer.natProgrammerConfig()->vrfLess() ? 0 : entry->vrfId() ),
        intfQualifier_( entry->intfQualifier() ) {}

   // The SNAPT side matches the flow as sent for a source target, its replies for a destination target; the DNAPT side
   // the other way round.
   IngDynamicSnaptTable::Key snaptKey( bool l4Detected ) const {
      return target_ == NatTarget::source
                ? naptKey< IngDynamicSnaptTable::Key >( conn_.source, conn_.destination, l4Detected )
                : naptKey< IngDynamicSnaptTable::Key >( global_, conn_.source, l4Detected );
   }
   IngDynamicDnaptTable::Key dnaptKey( bool l4Detected ) const {
      return target_ == NatTarget::source
                ? naptKey< IngDynamicDnaptTable::Key >( conn_.destination, global_, l4Detected )
                : naptKey< IngDynamicDnaptTable::Key >( conn_.source, conn_.destination, l4Detected );
   }
   IngDynamicSnatAddrOnlyTable::Key snatAddrOnlyKey() const {
      return { .vrfId = vrfId_,
               .intfQualifier = intfQualifier_,
               .ip = target_ == NatTarget::source ? conn_.source.ip : global_.ip };
   }
   IngDynamicDnatAddrOnlyTable::Key dnatAddrOnlyKey() const {
      return { .vrfId = vrfId_,
               .intfQualifier = intfQualifier_,
               .ip = target_ == NatTarget::source ? global_.ip : conn_.destination.ip };
   }

   Netix::IpAndPort const & sourceRewrite() const { return target_ == NatTarget::source ? global_ : conn_.destination; }
   Netix::IpAndPort const & destinationRewrite() const { return target_ == NatTarget::source ? conn_.source : global_; }
   U16 intfQualifier() const { return intfQualifier_; }

 private:
   template< class Key >
   Key naptKey( Netix::IpAndPort const & first, Netix::IpAndPort const & second, bool l4Detected ) const {
      return { .vrfId = vrfId_,
               .intfQualifier = intfQualifier_,
               .firstIp = first.ip,
               .firstPort = first.port,
               .secondIp = second.ip,
               .secondPort = second.port,
               .protocol = conn_.protocol,
               .fragment = 0,
               .l4Detected = l4Detected };
   }

   Netix::ConnTuple const & conn_;
   Netix::IpAndPort const & global_;
   NatTarget target_;
   Netix::VrfId vrfId_;
   U16 intfQualifier_;
};

template< class Tag > IngDynamicNaptKey< Tag > fragmentKey( IngDynamicNaptKey< Tag > key ) {
   key.firstPort = 0;
   key.secondPort = 0;
   key.fragment = 1;
   return key;
}

template< class Tag > DynamicNatMatchKey matchKeyOf( IngDynamicNaptKey< Tag > const & key ) {
   return { .vrfId = key.vrfId,
            .first = { key.firstIp, key.firstPort },
            .second = { key.secondIp, key.secondPort },
            .protocol = key.protocol };
}

template< class Tag > DynamicNatMatchKey matchKeyOf( IngDynamicAddrOnlyKey< Tag > const & key ) {
   return { .vrfId = key.vrfId, .first = { key.ip, 0 }, .second = {}, .protocol = 0 };
}

// Full-cone connections may be translated elsewhere than in these tables.
bool isProgrammedElsewhere( NatSwTableProgrammerSm const & programmer, NatProgrammerDynamicEntry const & entry ) {
   return entry.connection().fullCone && programmer.hwCapabilities() &&
          !programmer.hwCapabilities()->fullConeProgrammed();
}

bool l4DetectedOf( NatSwTableProgrammerSm const & programmer, U8 proto ) {
   auto const & helper = programmer.dynamicNatProgrammerHelper();
   return helper && helper->getL4ProtocolDetected( proto );
}

// Programs one side of a NAPT connection: its fragment entry first, where fragmentation is enabled, then its normal
// entry. The fragment entry of a key without ports is held by nobody, so its table takes it out again.
template< class Table, class DependentTable >
void programNaptSide( NatSwTableProgrammerSm & sm, DynamicConnection const & connection, NatTarget side,
                      typename Table::Key const & ingKey, Table & table, U32 nextHopId,
                      typename DependentTable::Key const & dependentKey, DependentTable & dependentTable,
                      NatProgrammerDynamicKey const & key, NatProgrammerDynamicEntry::PtrConst const & entry ) {
   auto const & ipAndPort = side == NatTarget::source ? connection.sourceRewrite() : connection.destinationRewrite();
   auto const program = [ & ]( typename Table::Key const & oneKey, Asic::EntryHandle::PtrConst const & fragHdl ) {
      typename Table::Entry ingEntry;
      ingEntry.nextHopId = nextHopId;
      return programDynamicRule( sm, side, connection.intfQualifier(), oneKey, table, std::move( ingEntry ),
                                 dependentTable, oneKey, matchKeyOf( oneKey ), dependentKey, noPlatformValue, ipAndPort,
                                 key, entry, fragHdl );
   };
   auto fragHdl = dontCareHandle;
   if ( sm.natProgrammerConfig()->fragmentationEnabled() ) {
      auto const twin = program( fragmentKey( ingKey ), dontCareHandle );
      if ( ingKey.firstPort != 0 || ingKey.secondPort != 0 ) {
         fragHdl = twin;
      }
   }
   program( ingKey, fragHdl );
}

template< class Table, class DependentTable >
void programAddrOnlySide( NatSwTableProgrammerSm & sm, DynamicConnection const & connection, NatTarget side,
                          typename Table::Key const & ingKey, Table & table, U32 nextHopId,
                          typename DependentTable::Key const & dependentKey, DependentTable & dependentTable,
                          NatProgrammerDynamicKey const & key, NatProgrammerDynamicEntry::PtrConst const & entry ) {
   typename Table::Entry ingEntry;
   ingEntry.nextHopId = nextHopId;
   auto const & ipAndPort = side == NatTarget::source ? connection.sourceRewrite() : connection.destinationRewrite();
   programDynamicAoRule( sm, side, connection.intfQualifier(), ingKey, table, std::move( ingEntry ), dependentTable,
                         ingKey, matchKeyOf( ingKey ), dependentKey, noPlatformValue, ipAndPort, key, entry );
}

}  // namespace

void NatSwTableProgrammerSm::addDynamicConnection( NatProgrammerDynamicKey const & key,
                                                   NatProgrammerDynamicEntry::PtrConst const & entry ) {
   traceDynamicRequest( 2, "addDynamicConnection", key, *entry );
   if ( isProgrammedElsewhere( *this, *entry ) ) {
      return;
   }
   DynamicConnection const connection( *this, key, entry );
   auto const nextHopId = nextHopIdOf( entry->nextHop() );
   if ( entry->connection().addrOnly ) {
      auto const snatKey = connection.snatAddrOnlyKey();
      auto const dnatKey = connection.dnatAddrOnlyKey();
      auto & snatTable = *ingDynamicSnatAddrOnlyTable();
      auto & dnatTable = *ingDynamicDnatAddrOnlyTable();
      programAddrOnlySide( *this, connection, NatTarget::source, snatKey, snatTable, 0, dnatKey, dnatTable, key,
                           entry );
      programAddrOnlySide( *this, connection, NatTarget::destination, dnatKey, dnatTable, nextHopId, snatKey, snatTable,
                           key, entry );
      return;
   }
   bool const l4Detected = l4DetectedOf( *this, key.conn.protocol );
   auto const snaptKey = connection.snaptKey( l4Detected );
   auto const dnaptKey = connection.dnaptKey( l4Detected );
   auto & snaptTable = *ingDynamicSnaptTable();
   auto & dnaptTable = *ingDynamicDnaptTable();
   programNaptSide( *this, connection, NatTarget::source, snaptKey, snaptTable, 0, dnaptKey, dnaptTable, key, entry );
   programNaptSide( *this, connection, NatTarget::destination, dnaptKey, dnaptTable, nextHopId, snaptKey, snaptTable,
                    key, entry );
}

// Rewriting a key replaces its entry in place, so nothing is removed first.
void NatSwTableProgrammerSm::updateDynamicConnection( NatProgrammerDynamicKey const & key,
                                                      NatProgrammerDynamicEntry::PtrConst const & entry ) {
   traceDynamicRequest( 2, "updateDynamicConnection", key, *entry );
   addDynamicConnection( key, entry );
}

void NatSwTableProgrammerSm::deleteDynamicConnection( NatProgrammerDynamicKey const & key,
                                                      NatProgrammerDynamicEntry::PtrConst const & entry ) {
   traceDynamicRequest( 6, "deleteDynamicConnection", key, *entry );
   if ( isProgrammedElsewhere( *this, *entry ) ) {
      return;
   }
   DynamicConnection const connection( *this, key, entry );
   if ( entry->connection().addrOnly ) {
      ingDynamicSnatAddrOnlyTable()->entryRemove( connection.snatAddrOnlyKey() );
      ingDynamicDnatAddrOnlyTable()->entryRemove( connection.dnatAddrOnlyKey() );
   } else {
      bool const l4Detected = l4DetectedOf( *this, key.conn.protocol );
      ingDynamicSnaptTable()->entryRemove( connection.snaptKey( l4Detected ) );
      ingDynamicDnaptTable()->entryRemove( connection.dnaptKey( l4Detected ) );
   }

   auto const * const status = natProgrammerStatus()->dynamicStatus().find( key );
   if ( !status ) {
      return;
   }
   switch ( status->result ) {
   case NatHwResult::failed:  // nothing in the hardware to wait for
      deleteProgrammerDynamicStatusEntry( key, entry );
      return;
   case NatHwResult::pending:
   case NatHwResult::programmed:
   case NatHwResult::unsupported:
   case NatHwResult::noSpace:
   case NatHwResult::rejectedMulticast: return;
   }
   VEXA_ASSERT( false && "unknown programmerStatus result" );
}

}  // namespace Pfe
