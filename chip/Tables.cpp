#include "chip/Tables.h"

#include <Pfe/NatTable.h>
#include <Trace/Trace.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <type_traits>
#include <utility>

namespace Ebpf {

namespace {

Trace::Handle const & traceHandle() {
   static Trace::Handle const handle( "EbpfChip" );
   return handle;
}

template< class Table >
constexpr bool isUnicastRewrite = std::is_same_v< Table, Pfe::EgrSourceNatUcRewriteTable > ||
                                  std::is_same_v< Table, Pfe::EgrDestinationNatUcRewriteTable >;

template< class Value > bool isSame( Value const & a, Value const & b ) { return std::memcmp( &a, &b, sizeof a ) == 0; }

Asic::EntryState stateOf( int fault, Asic::ChipRequest const & request ) {
   if ( fault == 0 ) {
      return Asic::EntryState::settled;
   }
   std::ostringstream row;
   request.row.describe( row );
   TRACE( traceHandle(), 1, request.version ? "write" : "removal", " of ", row.str(), " in ", request.table.name(),
          ": ", fault == E2BIG ? "the table is full" : std::strerror( fault ), " (", fault, ")" );
   return fault == E2BIG && request.version ? Asic::EntryState::full : Asic::EntryState::failed;
}

// Nothing else in the chip has this number.
constexpr int missingRewrite = ENOENT;

}  // namespace

Chip::Tables::Tables( Pins const & pins, PortTable & ports )
   : filters_( pins ),
     source_( pins, chipSourceRewrite ),
     destination_( pins, chipDestinationRewrite ),
     copies_( pins.openMap( "copies" ) ),
     copyLists_( pins.openMap( "copyLists" ) ),
     rows_( [ & ]< class... Rows >( std::type_identity< std::tuple< Rows... > > ) {
        auto const drop = [ this ]( ChipRow const & row ) { dropped( row ); };
        return std::tuple< Rows... >( Rows( pins, ports, drop )... );
     }( std::type_identity< decltype( rows_ ) >() ) ) {
   copies_.forEach( [ & ]( ChipCopyKey const & key, ChipCopy const & copy ) {
      foundCopies_.insert_or_assign( { key.natId, key.replication }, copy );
   } );
   copyLists_.forEach( [ & ]( U32 natId, ChipCopyList const & list ) { foundLists_.insert_or_assign( natId, list ); } );
   rowsOf< Pfe::IngStaticNatTable >().forEachUnclaimed( [ & ]( ChipRow const & row ) {
      hasFilters_ |= row.filters != 0;
      filters_.found( row.filters );
   } );
}

void Chip::Tables::carryOut( std::span< Asic::ChipRequest const > requests, std::span< Asic::EntryState > outcomes ) {
   bool const writes = requests.front().version != nullptr;
   for ( std::size_t number = 0; number < requests.size(); ++number ) {
      auto const & request = requests[ number ];
      auto const fault = Pfe::visitNatTable(
         request.table, [ & ]< class Table >( Table const & ) { return take< Table >( request, number ); } );
      if ( fault ) {
         outcomes[ number ] = stateOf( *fault, request );
      }
   }
   auto const outcome = [ & ]( std::size_t number, int fault ) {
      outcomes[ number ] = stateOf( fault, requests[ number ] );
   };
   forEachIngress( [ & ]( auto & rows ) { writes ? rows.putPending( outcome ) : rows.erasePending( outcome ); } );
   freeDropped();
}

template< class Table >
std::optional< int > Chip::Tables::take( Asic::ChipRequest const & request, std::size_t number ) {
   if constexpr ( isUnicastRewrite< Table > ) {
      auto & rewrites = std::is_same_v< Table, Pfe::EgrSourceNatUcRewriteTable > ? source_ : destination_;
      auto const & key = Table::keyOf( request.row );
      return request.version ? rewrites.put( key, Table::entryOf( *request.version ) ) : rewrites.erase( key );
   } else if constexpr ( std::is_same_v< Table, Pfe::EgrNatMcRewriteTable > ) {
      auto const & key = Table::keyOf( request.row );
      if ( request.version ) {
         return putCopy( key, Table::entryOf( *request.version ) );
      }
      auto const natId = static_cast< U16 >( key.natId.value() );
      foundCopies_.erase( { natId, key.replication } );
      ++written_;
      auto const fault = copies_.erase( { natId, key.replication } );
      return fault == ENOENT ? 0 : fault;
   } else {
      auto const fault = takeIngress< Table >( request, number );
      return fault == 0 ? std::nullopt : std::optional( fault );
   }
}

// --- Ingress rows ----------------------------------------------------------------------------------------------------

template< class Table > int Chip::Tables::takeIngress( Asic::ChipRequest const & request, std::size_t number ) {
   constexpr bool isStatic = std::is_same_v< Table, Pfe::IngStaticNatTable >;
   auto & rows = rowsOf< Table >();
   auto const key = chipKeyOf( Table::keyOf( request.row ), vrfLess_ );
   bool mayReferToMore = isStatic && hasFilters_;
   if constexpr ( requires { Table::keyOf( request.row ).mcast; } ) {
      mayReferToMore |= Table::keyOf( request.row ).mcast;
   }
   if ( !request.version ) {
      if ( auto const held = mayReferToMore && rows.hasOneOwner( key ) ? rows.held( key ) : std::nullopt ) {
         dropped( *held );
         if ( held->rewriteTable == chipCopyRewrite ) {
            copyLists_.erase( held->natId );
         }
      }
      rows.erase( key, number );
      return 0;
   }
   auto const & entry = Table::entryOf( *request.version );
   U16 generation = 0;
   auto row = rowOf( entry, generation );
   if ( !row ) {
      return missingRewrite;
   }
   row->nextHopId = entry.nextHopId;
   if ( row->rewriteTable == chipCopyRewrite ) {
      if ( auto const fault = putCopyList( row->natId, entry ) ) {
         return fault;
      }
   }
   if constexpr ( isStatic ) {
      if ( auto const fault = putFilters( rows, key, entry, *row ) ) {
         return fault;
      }
   }
   row->check = chipCheckOf( hashOf( key ), &*row, generation );
   rows.put( key, *row, request.addsRow, number );
   return 0;
}

std::optional< ChipRow > Chip::Tables::rowOf( Asic::ReferringEntry const & entry, U16 & generation ) {
   std::optional< ChipRow > row;
   entry.egrHdl.forEach( [ & ]( Asic::EntryHandle::PtrConst const & handle, bool ) {
      auto const * const rewrite = handle->row();
      if ( row || !rewrite || !rewrite->table ) {
         return;
      }
      Pfe::visitNatTable( *rewrite->table, [ & ]< class Table >( Table const & ) {
         if constexpr ( isUnicastRewrite< Table > ) {
            constexpr bool isSource = std::is_same_v< Table, Pfe::EgrSourceNatUcRewriteTable >;
            auto const & key = Table::keyOf( *rewrite );
            auto const natId = static_cast< U16 >( key.natId.value() );
            if ( auto const place = ( isSource ? source_ : destination_ ).located( natId, key.qualifier ) ) {
               row = { .check = 0,
                       .natId = natId,
                       .qualifier = key.qualifier,
                       .nextHopId = 0,
                       .filters = 0,
                       .rewriteTable = isSource ? chipSourceRewrite : chipDestinationRewrite,
                       .inSecondTable = place->inSecondTable };
               generation = place->generation;
            }
         } else if constexpr ( std::is_same_v< Table, Pfe::EgrNatMcRewriteTable > ) {
            row = { .check = 0,
                    .natId = static_cast< U16 >( Table::keyOf( *rewrite ).natId.value() ),
                    .qualifier = 0,
                    .nextHopId = 0,
                    .filters = 0,
                    .rewriteTable = chipCopyRewrite,
                    .inSecondTable = 0 };
         }
      } );
   } );
   return row;
}

int Chip::Tables::putFilters( IngressRows< Pfe::IngStaticNatTable > & rows, ChipStaticKey const & key,
                              Pfe::IngStaticNatTable::Entry const & entry, ChipRow & row ) {
   if ( auto const * const found = rows.unclaimed( key ); found && filters_.holds( found->filters, entry.filters ) ) {
      row.filters = found->filters;
      return 0;
   }
   if ( hasFilters_ && !rows.unclaimed( key ) ) {
      if ( auto const held = rows.held( key ) ) {
         dropped( *held );
      }
   }
   if ( entry.filters.empty() ) {
      return 0;
   }
   auto const first = filters_.put( entry.filters );
   if ( !first ) {
      return E2BIG;
   }
   hasFilters_ = true;
   row.filters = *first;
   return 0;
}

void Chip::Tables::dropped( ChipRow const & row ) {
   if ( row.filters != 0 ) {
      droppedFilters_.push_back( row.filters );
   }
}

void Chip::Tables::freeDropped() {
   for ( auto const first : std::exchange( droppedFilters_, {} ) ) {
      filters_.free( first );
   }
}

// --- Multicast -------------------------------------------------------------------------------------------------------

int Chip::Tables::putCopy( Pfe::EgrNatMcRewriteKey const & key, Pfe::EgrNatMcRewriteEntry const & entry ) {
   ChipCopyKey const chipKey{ static_cast< U16 >( key.natId.value() ), key.replication };
   ChipCopy copy{
      .check = 0, .source = inPacket( entry.srcIp ), .destination = inPacket( entry.dstIp ), .intf = entry.egressIntf };
   copy.check = chipCopyCheckOf( &chipKey, &copy );
   auto const found = foundCopies_.find( { chipKey.natId, chipKey.replication } );
   bool const isThere = found != foundCopies_.end() && isSame( found->second, copy );
   if ( found != foundCopies_.end() ) {
      foundCopies_.erase( found );
   }
   if ( isThere ) {
      return 0;
   }
   auto const fault = copies_.put( chipKey, copy );
   written_ += fault == 0;
   return fault;
}

int Chip::Tables::putCopyList( U32 natId, Asic::ReferringEntry const & entry ) {
   ChipCopyList list{};
   entry.egrHdl.forEach( [ & ]( Asic::EntryHandle::PtrConst const & handle, bool ) {
      auto const * const rewrite = handle->row();
      if ( rewrite && list.count < chipCopies ) {
         list.replication[ list.count ] = Pfe::EgrNatMcRewriteTable::keyOf( *rewrite ).replication;
      }
      ++list.count;
   } );
   if ( list.count > chipCopies ) {
      return E2BIG;
   }
   list.check = chipListCheckOf( natId, &list );
   auto const found = foundLists_.find( natId );
   bool const isThere = found != foundLists_.end() && isSame( found->second, list );
   if ( found != foundLists_.end() ) {
      foundLists_.erase( found );
   }
   return isThere ? 0 : copyLists_.put( natId, list );
}

// --- All -------------------------------------------------------------------------------------------------------------

void Chip::Tables::sweep() {
   forEachIngress( []( auto & rows ) { rows.sweep(); } );
   freeDropped();
   for ( auto const & [ natId, list ] : foundLists_ ) {
      copyLists_.erase( natId );
   }
   for ( auto const & [ key, copy ] : foundCopies_ ) {
      written_ += copies_.erase( { key.first, key.second } ) == 0;
   }
   foundLists_.clear();
   foundCopies_.clear();
   source_.sweep();
   destination_.sweep();
}

Asic::ChipHits Chip::Tables::hitsOf( U32 natId ) const {
   Asic::ChipHits hits;
   for ( auto const * const slot : { &source_.slot( natId ), &destination_.slot( natId ) } ) {
      if ( isInUse( current( *slot ) ) ) {
         hits.packets += slot->packets;
         hits.bytes += slot->bytes;
         hits.lastPacketNanoseconds = std::max< U64 >( hits.lastPacketNanoseconds, slot->lastPacket );
      }
   }
   return hits;
}

U64 Chip::Tables::written() const {
   return written_ + source_.written() + destination_.written() +
          std::apply( []( auto const &... rows ) { return ( rows.written() + ... ); }, rows_ );
}

}  // namespace Ebpf
