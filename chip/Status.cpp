// What a chip holds and has counted, read from its pins.
#include "chip/Attachments.h"
#include "chip/EbpfChip.h"
#include "chip/Maps.h"
#include "chip/Pins.h"
#include "chip/Rows.h"

#include <Pfe/EgrNatTables.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <algorithm>
#include <cerrno>

namespace [[gnu::visibility( "default" )]] Ebpf {

namespace {

using Totals = std::vector< ChipCount >;

Totals totalsOf( Pins const & pins ) {
   auto const map = pins.openMap( "counters" );
   auto const processors = libbpf_num_possible_cpus();
   std::vector< ChipCount > each( static_cast< std::size_t >( std::max( processors, 1 ) ) );
   Totals totals( chipCounters );
   for ( U32 counter = 0; counter < chipCounters; ++counter ) {
      if ( bpf_map_lookup_elem( map.number(), &counter, each.data() ) != 0 ) {
         throw Refusal( withErrno( pins.pathOf( "maps", "counters" ) + ": can not be read" ) );
      }
      for ( auto const & count : each ) {
         totals[ counter ].packets += count.packets;
         totals[ counter ].bytes += count.bytes;
      }
   }
   return totals;
}

template< class Key, class Value > U64 countIn( Pins const & pins, char const * name, U64 & room ) {
   HashOf< Key, Value > const map( pins.openMap( name ) );
   room = map.room();
   U64 count = 0;
   map.forEach( [ & ]( Key const &, Value const & ) { ++count; } );
   return count;
}

template< class Table > Status::Table ingressTable( Pins const & pins, std::string_view name, Totals const & totals ) {
   using Names = ChipTableOf< Table >;
   Status::Table table{ .name = std::string( name ) };
   table.rows = countIn< typename Names::Key, ChipRow >( pins, Names::map, table.room );
   table.packets = totals[ Names::packets ].packets;
   table.bytes = totals[ Names::packets ].bytes;
   return table;
}

template< class Traits > Status::Table ingress( Pins const & pins, Totals const & totals ) {
   return ingressTable< Asic::SwTable< Traits > >( pins, Traits::tableName, totals );
}

Status::Table rewrites( Pins const & pins, std::string_view name, char const * slotsName, ChipRewriteTable side ) {
   ArrayOf< ChipSlot > const slots( pins.openMap( slotsName ) );
   Status::Table table{ .name = std::string( name ) };
   table.room = chipNatIds - 1;
   table.rows = static_cast< U64 >(
      std::ranges::count_if( slots.elements(), []( auto const & slot ) { return isInUse( current( slot ) ); } ) );
   HashOf< ChipSecondKey, ChipSlot > const seconds( pins.openMap( "secondSlots" ) );
   seconds.forEach( [ & ]( ChipSecondKey const & key, ChipSlot const & ) {
      table.rows += key.rewriteTable == static_cast< U32 >( side );
   } );
   return table;
}

struct Named {
   ChipCounter counter;
   char const * what;
};

constexpr Named counted[] = { { chipMissed, "no row applied" },
                              { chipTrapped, "trapped" },
                              { chipErrorsPassed, "ICMP errors translated" },
                              { chipForwarded, "forwarded past the kernel" } };
constexpr Named dropped[] = { { chipDropChanged, "row was being replaced" },
                              { chipDropUnwritable, "packet could not be changed" },
                              { chipDropNoCopies, "no copy could be sent" },
                              { chipDropNoPort, "copy for an interface without port" } };

template< std::size_t count >
std::vector< Status::Counter > named( Named const ( &names )[ count ], Totals const & totals ) {
   std::vector< Status::Counter > counters;
   for ( auto const & [ counter, what ] : names ) {
      counters.push_back( { what, totals[ counter ].packets, totals[ counter ].bytes } );
   }
   return counters;
}

}  // namespace

std::string folderOf( Place const & place ) { return Pins( place ).folder(); }

std::optional< Status > statusOf( Place const & place ) {
   requireBpffs( place );
   Pins const pins( place );
   auto const marker = pins.marker();
   if ( !marker ) {
      return std::nullopt;
   }
   if ( marker->layoutVersion != chipLayoutVersion ) {
      throw Refusal( pins.folder() + ": a chip of another version (" + std::to_string( marker->layoutVersion ) +
                     "); allowed: " + std::to_string( int{ chipLayoutVersion } ) );
   }
   auto const totals = totalsOf( pins );
   Status status;
   status.store = marker->store;
   status.tables = {
      ingress< Pfe::IngTwiceNatTableTraits >( pins, totals ),
      ingress< Pfe::IngStaticNatTableTraits >( pins, totals ),
      ingress< Pfe::IngDynamicSnaptTableTraits >( pins, totals ),
      ingress< Pfe::IngDynamicDnaptTableTraits >( pins, totals ),
      ingress< Pfe::IngDynamicSnatAddrOnlyTableTraits >( pins, totals ),
      ingress< Pfe::IngDynamicDnatAddrOnlyTableTraits >( pins, totals ),
      rewrites( pins, Pfe::EgrSourceNatUcRewriteTableTraits::tableName, "sourceSlots", chipSourceRewrite ),
      rewrites( pins, Pfe::EgrDestinationNatUcRewriteTableTraits::tableName, "targetSlots", chipDestinationRewrite ) };
   auto & copies = status.tables.emplace_back();
   copies.name = Pfe::EgrNatMcRewriteTableTraits::tableName;
   copies.rows = countIn< ChipCopyKey, ChipCopy >( pins, "copies", copies.room );
   copies.packets = totals[ chipCopiesSent ].packets;
   copies.bytes = totals[ chipCopiesSent ].bytes;
   status.counters = named( counted, totals );
   status.drops = named( dropped, totals );
   status.attachments = attachmentsOf( pins );
   status.lastWriteNanoseconds = ArrayOf< ChipSettings >( pins.openMap( "settings" ) )[ 0 ].lastWrite;
   return status;
}

bool remove( Place const & place ) {
   requireBpffs( place );
   Pins const pins( place );
   if ( !pins.exists() ) {
      return false;
   }
   pins.removeAll();
   return true;
}

}  // namespace Ebpf
