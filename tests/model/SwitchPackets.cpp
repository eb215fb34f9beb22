#include "Switch.h"

#include <algorithm>
#include <iterator>
#include <regex>

namespace Model {

using Agent::Packet;
using Netix::IpAndPort;
using Support::DynamicRule;
using Support::Lines;
using Support::StaticRule;
using Support::TwiceRule;

// --- Packets ---------------------------------------------------------------------------------------------------------

namespace {

struct Flow {
   IpAndPort source, destination;
};

// A packet that meets the rule, and what its addresses become; port 0: any, or as it was.
struct Translation {
   bool leaves;  // by the rule's interface, else it enters
   Flow before, after;
};

Translation translationOf( StaticRule const & rule ) {
   auto const & connection = rule.entry->connection();
   IpAndPort const own{ rule.key.key.ip, rule.key.key.port }, peer = Support::pair( "203.0.113.99:443" );
   return connection.target == Ip::Nat::NatTarget::source
             ? Translation{ true, { own, peer }, { connection.translated, peer } }
             : Translation{ false, { peer, own }, { peer, connection.translated } };
}

Translation translationOf( TwiceRule const & rule ) {
   auto const & [ source, destination, translatedSource, translatedDestination ] = rule.entry->connection();
   return { true, { source, destination }, { translatedSource, translatedDestination } };
}

Translation translationOf( DynamicRule const & rule ) {
   auto const & [ source, destination, protocol ] = rule.key.conn;
   auto const & global = rule.entry->global();
   return rule.entry->connection().target == Ip::Nat::NatTarget::source
             ? Translation{ true, { source, destination }, { global, destination } }
             : Translation{ false, { source, destination }, { source, global } };
}

U8 protocolOf( StaticRule const & rule ) { return rule.entry->connection().protocol; }
U8 protocolOf( TwiceRule const & ) { return 6; }
U8 protocolOf( DynamicRule const & rule ) { return rule.key.conn.protocol; }

}  // namespace

// What the rule's later fragments become, by the rows that translate them.
void Switch::noteTwins( AnyRule const & rule ) {
   auto const [ leaves, before, after ] = std::visit( []( auto const & r ) { return translationOf( r ); }, rule );
   for ( auto const & row : rowsOf( rule ) ) {
      twinWrites_[ Agent::fragmentRowOf( row ) ].insert(
         { before.source.ip, before.destination.ip, after.source.ip, after.destination.ip } );
   }
}

// What goes out is translated and comes back, unless it meets another rule's rows, or the rule shares a rewrite, which
// the last writer decides.
void Switch::checkPacket( AnyRule const & rule, Packet::Part part ) {
   bool const later = part == Packet::Part::laterFragment;
   auto const translation = std::visit( []( auto const & r ) { return translationOf( r ); }, rule );
   auto own = rowsOf( rule );
   auto const rows = rowsLeft( *running_ );
   bool const hasTwin =
      !std::holds_alternative< DynamicRule >( rule ) || !std::get< DynamicRule >( rule ).entry->connection().addrOnly;
   for ( auto & row : own ) {
      row = later && hasTwin && !Agent::ignoresPorts( row ) ? Agent::fragmentRowOf( row ) : row;
      bool const sharesRewrite = std::ranges::any_of(
         holders_, [ & ]( auto const & known ) { return known.second.size() > 1 && known.second.contains( row ); } );
      if ( !rows.isSettled( row ) || sharesRewrite || ( later && twinWrites_[ row ].size() > 1 ) ) {
         return;
      }
   }
   auto const sentAs = [ & ]( IpAndPort const & pair ) {
      return IpAndPort{ pair.ip, later ? U16{ 0 } : pair.port != 0 ? pair.port : U16{ 4000 } };
   };
   auto const name = [ & ] { return Support::textOf( keyOf( rule ) ); };
   Agent::Interfaces interfaces{ .qualifiers = {}, .vrfLess = settings_.vrfLess };
   Packet sent{ .part = part };
   std::visit(
      [ & ]( auto const & r ) {
         ( translation.leaves ? sent.out : sent.in ) = r.key.natIntf;
         ( translation.leaves ? sent.in : sent.out ) = Support::intf( "ethernet99" );
         interfaces.qualifiers.emplace( r.key.natIntf, r.entry->intfQualifier() );
         bool const hasVrf = !settings_.vrfLess || std::holds_alternative< StaticRule >( rule );
         sent.vrfId = hasVrf ? r.entry->vrfId() : 0;
         sent.protocol = protocolOf( r ) != 0 ? protocolOf( r ) : 6;
      },
      rule );
   sent.source = sentAs( translation.before.source );
   sent.destination = sentAs( translation.before.destination );
   auto const leaving = [ & ]( Packet const & packet ) {
      std::vector< Packet > result;
      auto const passage = walk( running_->tables.all, packet, interfaces );
      expect( !passage.matches.empty(), "a packet meets no row", name() );
      if ( passage.matches.size() == 1 && std::ranges::find( own, passage.matches[ 0 ].key ) != own.end() ) {
         std::ranges::transform( passage.copies, std::back_inserter( result ), &Agent::Copy::packet );
         expect( !result.empty(), "a packet is lost", name() );
      }
      return result;
   };
   auto const out = leaving( sent );
   if ( out.empty() ) {
      return;
   }
   ++exchangesChecked[ rule.index() ];
   bool const multicast = isMulticast( own[ 0 ] );
   auto const became = [ & ]( IpAndPort const & pair, IpAndPort const & to, IpAndPort const & was ) {
      return pair.ip == to.ip && pair.port == ( later ? 0 : to.port == 0 || multicast ? was.port : to.port );
   };
   auto const & egress = surroundings_.mcast->egressIntfs;
   expect( out.size() == ( multicast ? egress.size() : 1 ), "another number of copies", name() );
   for ( std::size_t i = 0; i < out.size(); ++i ) {
      // A static rule leaves the peer as it is.
      bool const rewritten = became( out[ i ].source, translation.after.source, sent.source ) &&
                             became( out[ i ].destination, translation.after.destination, sent.destination );
      expect( rewritten, "a packet is not translated, fragment " + std::to_string( static_cast< int >( part ) ),
              name() );
      expect( !multicast || out[ i ].out == Support::intf( egress[ i ] ), "a copy leaves elsewhere", name() );
   }
   auto const back = multicast ? std::vector< Packet >() : leaving( replyTo( out[ 0 ] ) );
   if ( back.empty() ) {
      return;
   }
   // With a port only after the translation, replies do not tell which one they are for.
   auto const comesBack = []( IpAndPort const & before, IpAndPort const & after ) {
      return before.port != 0 || after.port == 0;
   };
   bool const hasPorts = comesBack( translation.before.source, translation.after.source ) &&
                         comesBack( translation.before.destination, translation.after.destination );
   expect( back[ 0 ].destination.ip == sent.source.ip && back[ 0 ].source.ip == sent.destination.ip &&
              ( !hasPorts || ( back[ 0 ].destination == sent.source && back[ 0 ].source == sent.destination ) ),
           "an answer does not come back, fragment " + std::to_string( static_cast< int >( part ) ), name() );
}

// --- The end ---------------------------------------------------------------------------------------------------------

namespace {

// Rows, results and the number of NAT ids, a line each; which numbers the ids have does not matter.
std::multiset< std::string > textOf( Support::Programmer const & programmer ) {
   static std::regex const ids( "natId=[0-9]+" );
   std::multiset< std::string > lines;
   for ( auto const & line : programmer.tables.text() ) {
      lines.insert( std::regex_replace( line, ids, "natId" ) );
   }
   for ( auto const & [ key, outcome ] : Support::outcomes( *programmer.status ) ) {
      lines.insert( Support::textOf( key ) + " has result " + std::to_string( static_cast< int >( outcome.result ) ) );
   }
   lines.insert( std::to_string( programmer.idsInUse() ) + " NAT ids" );
   return lines;
}

}  // namespace

void Switch::checkAgainstFresh() {
   Support::Surroundings surroundings = surroundings_;
   surroundings.natIdInfo = Orla::make< Pfe::NatIdInfo >();
   surroundings.chip = std::make_shared< Support::ScriptedHardware >();
   Support::Programmer const fresh( std::move( surroundings ) );
   fresh->replay();
   expect( fresh.settleToRest(), "a fresh programmer does not come to rest", 0 );
   // Without rules before them, twins of configured rules write no ports, unless they share their rewrites with whole
   // packets.
   auto const rows = rowsLeft( fresh );
   for ( auto const & [ key, row ] : rows.matches ) {
      bool const isDynamic =
         key.contains< Pfe::IngDynamicSnaptTable::Key >() || key.contains< Pfe::IngDynamicDnaptTable::Key >();
      if ( isFragment( key ) && !isDynamic && !rows.idsOfWholePackets.contains( rows.natIdOf.at( key ) ) ) {
         row->referringEntryOf( *row->newest )->egrHdl.forEach( [ & ]( auto const & handle, bool ) {
            expect( !rows.rewrites.at( handle.ptr() ).namesPorts, "a fragment gets ports", key );
         } );
      }
   }
   auto const here = textOf( *running_ ), there = textOf( fresh );
   Lines differences;
   std::ranges::set_difference( here, there, std::back_inserter( differences ) );
   for ( auto const & line : differences ) {
      expect( false, "a fresh programmer has not", line );
   }
   differences.clear();
   std::ranges::set_difference( there, here, std::back_inserter( differences ) );
   for ( auto const & line : differences ) {
      expect( false, "a fresh programmer has", line );
   }
}

void Switch::end() {
   whenStatusChanges = {};
   hardware().heal();
   if ( freeIds_ != allIds ) {
      freeIdsAre( 500 );  // more than any history needs
   }
   if ( isCleaningUp() ) {
      endCleanup();
   }
   expect( turnUntilAtRest(), "it does not come to rest before the retry", 0 );
   running_->tables.hardware->retryFailed();
   expect( turnUntilAtRest(), "it does not come to rest", 0 );
   expect( running_->tables.failedRowCount() == 0, "rows stay failed", running_->tables.failedRowCount() );
   check();
   running_->sm->replay();
   holders_.clear();
   twinWrites_.clear();
   noteHolders();
   for ( auto const & [ key, rule ] : configured() ) {
      noteTwins( rule );
   }
   rest();
   std::size_t outOfRange = 0;
   for ( auto const & [ key, rule ] : configured() ) {
      outOfRange += rowsOf( rule ).empty();
   }
   expect( running_->sm->refusedCount() == outOfRange, "rules stay refused", running_->sm->refusedCount() );
   checkAgainstFresh();
   for ( auto const & [ key, rule ] : configured() ) {
      unconfigure( key );
   }
   rest();
   expect( running_->isEmpty(), "something is left of deleted rules", 0 );
   auto const sm = running_->sm;
   stop();
   expect( sm->referenceCount() == 1, "somebody else holds the programmer", sm->referenceCount() );
}

}  // namespace Model
