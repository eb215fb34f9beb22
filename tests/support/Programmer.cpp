#include <tests/support/Programmer.h>

#include "agent/basics/Text.h"

#include <Trace/RingTrace.h>

#include <algorithm>
#include <numeric>
#include <set>

namespace Support {

using Ip::Nat::NatTarget;

// --- Rules -----------------------------------------------------------------------------------------------------------

StaticKey staticKey( std::string_view keyPair, std::string_view intfName, char const * aclName ) {
   return { intf( intfName ), { aclName, pair( keyPair ).ip, pair( keyPair ).port } };
}

StaticEntry staticEntry( std::string_view translated, StaticFields fields ) {
   fields.connection.translated = pair( translated );
   return Orla::make< Pfe::NatProgrammerStaticEntry const >( std::move( fields ) );
}

Pfe::IngStaticNatTable::Key ingressKey( NatTarget target, std::string_view matched, std::string_view translated,
                                        bool fragment ) {
   return { .natIntf = "ethernet1",
            .ipAndPortOld = pair( matched ),
            .ipAndPortNew = pair( translated ),
            .target = target,
            .protocol = 6,
            .fragment = fragment };
}

// --- Hooks -----------------------------------------------------------------------------------------------------------

Pfe::EgrMcastEntry McastHook::copiesOf( Pfe::EgrNatMcRewriteEntry rewrite, Pfe::NatId natId ) const {
   if ( whenAsked ) {
      whenAsked();
   }
   Pfe::EgrMcastEntry result;
   for ( U16 i = 0; i < egressIntfs.size(); ++i ) {
      rewrite.egressIntf = intf( egressIntfs[ i ] ).value();
      result.entryPush( { { natId, i }, rewrite } );
   }
   result.validIs( answersValid );
   return result;
}

Pfe::EgrMcastEntry McastHook::getStaticEgrMcastEntry( StaticKey const & key, StaticEntry const & entry,
                                                      Pfe::NatMatchKey const & matchKey, Pfe::NatId natId ) {
   auto const & connection = entry->connection();
   bool const keyIsMatched = matchKey.get< Pfe::StaticNatMatchKey >().target == connection.target;
   Pfe::EgrNatMcRewriteEntry rewrite;
   ( connection.target == NatTarget::source ? rewrite.srcIp : rewrite.dstIp ) =
      keyIsMatched ? connection.translated.ip : key.key.ip;
   return copiesOf( rewrite, natId );
}

Pfe::EgrMcastEntry McastHook::getTwiceEgrMcastEntry( Pfe::NatProgrammerTwiceKey const &,
                                                     Pfe::NatProgrammerTwiceEntry::PtrConst const & entry,
                                                     Pfe::NatMatchKey const &, Pfe::NatId natId ) {
   Pfe::EgrNatMcRewriteEntry rewrite;
   rewrite.srcIp = entry->connection().translatedSource.ip;
   rewrite.dstIp = entry->connection().translatedDestination.ip;
   return copiesOf( rewrite, natId );
}

// --- Tables ----------------------------------------------------------------------------------------------------------

void Tables::attachTo( Pfe::NatSwTableProgrammerSm & programmer ) const {
   programmer.egrSourceNatUcRewriteTableIs( all.of< Pfe::EgrSourceNatUcRewriteTable >() );
   programmer.egrDestinationNatUcRewriteTableIs( all.of< Pfe::EgrDestinationNatUcRewriteTable >() );
   programmer.egrNatMcRewriteTableIs( all.of< Pfe::EgrNatMcRewriteTable >() );
   programmer.ingStaticNatTableIs( all.of< Pfe::IngStaticNatTable >() );
   programmer.ingTwiceNatTableIs( all.of< Pfe::IngTwiceNatTable >() );
   programmer.ingDynamicSnaptTableIs( all.of< Pfe::IngDynamicSnaptTable >() );
   programmer.ingDynamicDnaptTableIs( all.of< Pfe::IngDynamicDnaptTable >() );
   programmer.ingDynamicSnatAddrOnlyTableIs( all.of< Pfe::IngDynamicSnatAddrOnlyTable >() );
   programmer.ingDynamicDnatAddrOnlyTableIs( all.of< Pfe::IngDynamicDnatAddrOnlyTable >() );
}

void Tables::clear() const {
   for ( auto * const table : hardware->tables() ) {
      table->clear();
   }
}

std::size_t Tables::rowCount() const {
   auto const add = []( std::size_t rows, auto const * table ) { return rows + table->rowCount(); };
   return std::accumulate( hardware->tables().begin(), hardware->tables().end(), std::size_t{ 0 }, add );
}

std::size_t Tables::failedRowCount() const {
   auto const add = []( std::size_t rows, auto const * table ) { return rows + table->failedRowCount(); };
   return std::accumulate( hardware->tables().begin(), hardware->tables().end(), std::size_t{ 0 }, add );
}

Lines Tables::text() const {
   Lines lines;
   all.forEach( [ & ]( auto const & table ) {
      table.forEach( [ & ]( auto const & key, auto const & entry, Asic::EntryHandle const & handle ) {
         lines.push_back( std::string( table.name() ) + ' ' + Vexa::stringOf( key ) + ": " + Vexa::stringOf( entry ) +
                          ' ' + std::string( Agent::stateText( handle.state() ) ) );
      } );
   } );
   std::ranges::sort( lines );
   return lines;
}

// --- Programmer ------------------------------------------------------------------------------------------------------

Programmer::Programmer( Surroundings surroundings, Make const & make ) : Surroundings( std::move( surroundings ) ) {
   sm = make ? make( *this, status ) : Pfe::natSwTableProgrammerSmFactory( config, status, capabilities, natIdInfo );
   tables.hardware->chipIs( chip );
   tables.attachTo( *sm );
   sm->aclNameIdTableIs( acls );
   sm->natTrapConfigIs( traps );
   sm->natProfileConfigIs( profiles );
   sm->mcastProgrammerHelperIs( mcast );
   sm->dynamicNatProgrammerHelperIs( Orla::make< DynamicHook >() );
   sm->programmerModeIs( Sm::Mode::tables );
   sm->natIdPoolIs( natIdInfo );
   sm->initializedIs( true );
}

bool Programmer::settleToRest() const {
   constexpr unsigned turnsUntilStuck = 20;
   for ( unsigned turn = 0; turn < turnsUntilStuck && tables.hardware->outstanding() != 0; ++turn ) {
      settle();
   }
   if ( tables.hardware->outstanding() != 0 ) {
      return false;
   }
   sm->atRest();
   return true;
}

void Programmer::freeIdsAre( U32 last ) const {
   std::set< U32 > used;
   natIdInfo->matchKeyToNatId().forEach(
      [ & ]( Pfe::NatMatchKey const &, Pfe::NatId id ) { used.insert( id.value() ); } );
   auto & bitmap = *sm->natIdManager()->natIdBitmap();
   for ( U32 id = 1; id <= Pfe::NatId::max; ++id ) {
      if ( id > last ) {
         bitmap.setBit( id );
      } else if ( !used.contains( id ) ) {
         bitmap.clearBit( id );
      }
   }
}

bool Programmer::isEmpty() const {
   bool anyRow = false;
   for ( auto * const table : tables.hardware->tables() ) {
      table->forEachRow( []( void * any, Asic::Row & ) { *static_cast< bool * >( any ) = true; }, &anyRow );
   }
   return !anyRow && idsInUse() == 0 && outcomes( *status ).empty() && sm->refusedCount() == 0 &&
          sm->natIdManager()->matchKeyToIngKeySet().count() == 0;
}

// --- Traces ----------------------------------------------------------------------------------------------------------

TraceLines::TraceLines( U8 level ) {
   Trace::sinkIs( [ this ]( std::string_view, U8 lineLevel, std::string const & line ) {
      lines_.push_back( std::to_string( lineLevel ) + ' ' + line );
   } );
   Trace::enabledLevelIs( level );
}

TraceLines::~TraceLines() {
   Trace::enabledLevelIs( 0 );
   Trace::sinkIs( {} );
}

Lines ringLinesOf( std::function< void() > const & action ) {
   auto const & ring = Trace::RingTrace::defaultHandle();
   auto const before = ring.written();
   action();
   return ring.lastLines( ring.written() - before );
}

}  // namespace Support
