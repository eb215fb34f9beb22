#include "agent/reports/ChipReport.h"

#include "agent/basics/Text.h"
#include "agent/basics/UnusableInput.h"
#include "agent/chips/KernelChip.h"

#ifdef PFENAT_EBPF_CHIP

#include "chip/EbpfChip.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

namespace Agent {

namespace {

using Kind = Table::Kind;

Table tablesOf( Ebpf::Status const & status ) {
   Table table( { { "table" },
                  { "rows", Kind::number },
                  { "room", Kind::number },
                  { "packets", Kind::number },
                  { "bytes", Kind::number } } );
   for ( auto const & of : status.tables ) {
      table.cell( of.name );
      table.number( of.rows );
      table.number( of.room );
      of.packets ? table.number( *of.packets ) : table.cell( "" );
      of.bytes ? table.number( *of.bytes ) : table.cell( "" );
   }
   return table;
}

Table countersOf( std::vector< Ebpf::Status::Counter > const & counters, std::string_view name ) {
   Table table( { { name }, { "packets", Kind::number }, { "bytes", Kind::number } } );
   for ( auto const & counter : counters ) {
      table.cell( counter.what );
      table.number( counter.packets );
      table.number( counter.bytes );
   }
   return table;
}

Table attachmentsOf( Ebpf::Status const & status ) {
   Table table( { { "device" }, { "hook" }, { "state" } } );
   for ( auto const & attachment : status.attachments ) {
      table.cell( attachment.device );
      table.cell( attachment.hook );
      table.cell( attachment.isAlive ? "attached" : "device gone" );
   }
   return table;
}

}  // namespace

bool reportKernelChip( Report & report, std::string const & stateFolder, std::string const & bpffs ) {
   auto const name = kernelChipName( stateFolder );
   std::optional< Ebpf::Status > status;
   try {
      status = Ebpf::statusOf( { name, bpffs } );
   } catch ( Ebpf::Refusal const & refusal ) {
      throw UnusableInput( refusal.what() );
   }
   if ( !status ) {
      return false;
   }
   auto const pins = Ebpf::folderOf( { name, bpffs } );
   report.fact( "chip", JsonObject{ { "pins", pins }, { "store", status->store } } );
   report.line( "The chip at " + pins + "\n" );
   report.table( "tables", tablesOf( *status ) );
   report.line( "" );
   report.table( "counters", countersOf( status->counters, "counted" ) );
   report.line( "" );
   report.table( "drops", countersOf( status->drops, "dropped" ) );
   report.line( "" );
   report.table( "attachments", attachmentsOf( *status ) );
   if ( status->lastWriteNanoseconds != 0 ) {
      auto const now =
         std::chrono::duration_cast< std::chrono::nanoseconds >( std::chrono::system_clock::now().time_since_epoch() );
      auto const age = std::max< U64 >( static_cast< U64 >( now.count() ), status->lastWriteNanoseconds ) -
                       status->lastWriteNanoseconds;
      report.fact( "lastWriteSecondsAgo", age / 1'000'000'000 );
      report.line( "\nLast written " + std::to_string( age / 1'000'000'000 ) + " s ago" );
   }
   return true;
}

}  // namespace Agent

#else

namespace Agent {

// Refuses as every use of that chip does.
bool reportKernelChip( Report &, std::string const & stateFolder, std::string const & bpffs ) {
   return removeKernelChip( stateFolder, bpffs );
}

}  // namespace Agent

#endif
