#include <tests/support/Programmer.h>

#include <tests/support/TableText.h>

#include <Asic/SwTableWorkaround.h>
#include <Trace/RingTrace.h>

#include <charconv>
#include <map>
#include <sstream>
#include <stdexcept>

namespace Support {

using Ip::Nat::NatTarget;

// --- Rules -----------------------------------------------------------------------------------------------------------

Netix::IntfId intf( std::string_view name ) { return Netix::IntfId::fromName( name ).value(); }

Netix::IpAddr ip( std::string_view text ) { return Netix::IpAddr::fromText( text ).value(); }

Netix::IpAndPort pair( std::string_view text ) {
   auto const colon = text.find( ':' );
   Netix::IpAndPort result{ ip( text.substr( 0, colon ) ), 0 };
   if ( colon != text.npos ) {
      auto const port = text.substr( colon + 1 );
      std::from_chars( port.data(), port.data() + port.size(), result.port );
   }
   return result;
}

std::string textOf( Netix::IpAndPort const & pair ) {
   return Vexa::stringOf( pair.ip ) + ( pair.port ? ":" + std::to_string( pair.port ) : "" );
}

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

Pfe::EgrMcastEntry McastHook::getStaticEgrMcastEntry( StaticKey const & key, StaticEntry const & entry,
                                                      Pfe::NatMatchKey const & matchKey, Pfe::NatId natId ) {
   if ( whenAsked ) {
      whenAsked();
   }
   auto const & connection = entry->connection();
   bool const isSource = connection.target == NatTarget::source;
   bool const keyIsMatched = matchKey.get< Pfe::StaticNatMatchKey >().target == connection.target;
   auto const rewritten = keyIsMatched ? connection.translated.ip : key.key.ip;
   Pfe::EgrMcastEntry result;
   for ( U16 i = 0; i < egressIntfs.size(); ++i ) {
      Pfe::EgrNatMcRewriteEntry rewrite;
      ( isSource ? rewrite.srcIp : rewrite.dstIp ) = rewritten;
      rewrite.egressIntf = intf( egressIntfs[ i ] ).value();
      result.entryPush( { { natId, i }, rewrite } );
   }
   result.validIs( answersValid );
   return result;
}

// --- Tables ----------------------------------------------------------------------------------------------------------

void Tables::attachTo( Pfe::NatSwTableProgrammerSm & programmer ) const {
   programmer.egrSourceNatUcRewriteTableIs( source );
   programmer.egrDestinationNatUcRewriteTableIs( destination );
   programmer.egrNatMcRewriteTableIs( multicast );
   programmer.ingStaticNatTableIs( ingress );
   programmer.ingTwiceNatTableIs( twice );
   programmer.ingDynamicSnaptTableIs( snapt );
   programmer.ingDynamicDnaptTableIs( dnapt );
   programmer.ingDynamicSnatAddrOnlyTableIs( snat );
   programmer.ingDynamicDnatAddrOnlyTableIs( dnat );
}

void Tables::clear() const {
   for ( auto * const table : hardware->tables() ) {
      table->clear();
   }
}

std::size_t Tables::rowCount() const {
   std::size_t rows = 0;
   for ( auto const * const table : hardware->tables() ) {
      rows += table->rowCount();
   }
   return rows;
}

std::size_t Tables::failedRowCount() const {
   std::size_t rows = 0;
   for ( auto const * const table : hardware->tables() ) {
      rows += table->failedRowCount();
   }
   return rows;
}

namespace {

std::string sideText( NatTarget side ) { return side == NatTarget::source ? "source" : "destination"; }

std::string stateSuffix( Asic::EntryHandle const & handle ) {
   return handle.state() == Asic::EntryState::settled ? "" : " (" + std::string( stateText( handle.state() ) ) + ")";
}

std::string translationText( Pfe::IngStaticNatTable::Key const & key ) {
   return textOf( key.ipAndPortOld ) + " > " + textOf( key.ipAndPortNew );
}

// The rewrite rows by handle, and as lines of their own.
struct RewriteText {
   std::map< Asic::EntryHandle const *, std::string > nameOf;
   Lines lines;

   template< class Table > void unicast( std::string const & side, Table const & table ) {
      table.forEach( [ & ]( auto const & key, auto const & entry, Asic::EntryHandle const & handle ) {
         auto const name = side + ' ' + Vexa::stringOf( key.natId ) + '/' + std::to_string( key.qualifier );
         nameOf[ &handle ] = name;
         lines.push_back( name + " | " + textOf( { entry.srcIp, entry.srcPort } ) + " > " +
                          textOf( { entry.dstIp, entry.dstPort } ) + stateSuffix( handle ) );
      } );
   }

   void multicast( Pfe::EgrNatMcRewriteTable const & table ) {
      table.forEach( [ & ]( auto const & key, auto const & entry, Asic::EntryHandle const & handle ) {
         auto const name = "copy " + Vexa::stringOf( key.natId ) + '/' + std::to_string( key.replication );
         nameOf[ &handle ] = name;
         lines.push_back( name + " | " + Vexa::stringOf( entry.srcIp ) + " > " + Vexa::stringOf( entry.dstIp ) +
                          " by " + std::to_string( entry.egressIntf & Netix::IntfId::maxNumber ) +
                          stateSuffix( handle ) );
      } );
   }
};

}  // namespace

Lines Tables::text() const {
   RewriteText rewrites;
   rewrites.unicast( "source", *source );
   rewrites.unicast( "destination", *destination );
   rewrites.multicast( *multicast );

   std::map< Asic::EntryHandle const *, std::string > twinOf{
      { Asic::SwTableWorkaround::dontCareHandle( 0 ).ptr(), "none" } };
   ingress->forEach( [ & ]( auto const & key, auto const &, Asic::EntryHandle const & handle ) {
      twinOf[ &handle ] = translationText( key );
   } );

   Lines rows;
   ingress->forEach( [ & ]( auto const & key, auto const & entry, Asic::EntryHandle const & handle ) {
      std::ostringstream out;
      out << sideText( key.target ) << ' ' << Netix::ShortName{ intf( key.natIntf.text() ) };
      if ( key.vrfId != 0 ) {
         out << " vrf " << key.vrfId;
      }
      out << ' ' << translationText( key ) << " proto " << +key.protocol << ( key.mcast ? " mcast" : "" )
          << ( key.fragment ? " fragment" : "" ) << " |";
      entry.egrHdl.forEach( [ & ]( Asic::EntryHandle::PtrConst const & rewrite, bool failureCounts ) {
         out << ' ' << rewrites.nameOf[ rewrite.ptr() ] << ( failureCounts ? "" : " (failure ignored)" );
      } );
      out << " | twin " << twinOf[ entry.fragHdl.ptr() ] << " | nextHop " << entry.nextHopId << " acl " << entry.aclId;
      for ( auto const & filter : entry.filters ) {
         out << " filter " << filter.source.address << '/' << filter.source.mask;
      }
      rows.push_back( out.str() + stateSuffix( handle ) );
   } );
   std::ranges::sort( rows );
   std::ranges::sort( rewrites.lines );
   rows.insert( rows.end(), rewrites.lines.begin(), rewrites.lines.end() );
   return rows;
}

// --- Programmer ------------------------------------------------------------------------------------------------------

Programmer::Programmer( Surroundings surroundings, Make const & make ) : Surroundings( std::move( surroundings ) ) {
   sm = make ? make( *this, status )
             : Pfe::natSwTableProgrammerSmFactory( config, status, Orla::make< Ip::Nat::HwCapabilities >(), natIdInfo );
   tables.hardware->policyIs( chip );
   tables.attachTo( *sm );
   sm->aclNameIdTableIs( acls );
   sm->natTrapConfigIs( traps );
   sm->natProfileConfigIs( profiles );
   sm->mcastProgrammerHelperIs( mcast );
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

std::optional< PfeHelper::NatHwResult > Programmer::result( StaticKey const & key ) const {
   auto const * const found = status->staticStatus().find( key );
   return found ? std::optional( found->result ) : std::nullopt;
}

void Programmer::freeIdsAre( U32 count ) const {
   auto & bitmap = *sm->natIdManager()->natIdBitmap();
   for ( U32 id = 1; id <= Pfe::NatId::max; ++id ) {
      if ( !bitmap.bit( id ) ) {
         if ( count == 0 ) {
            bitmap.setBit( id );
         } else {
            --count;
         }
      }
   }
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
