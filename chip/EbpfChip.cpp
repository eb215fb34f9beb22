#include "chip/EbpfChip.h"

#include "chip/Pipeline.h"
#include "chip/Tables.h"

#include <ctime>

#include <atomic>

namespace [[gnu::visibility( "default" )]] Ebpf {

namespace {

U64 nanosecondsOf( clockid_t clock ) {
   timespec now{};
   clock_gettime( clock, &now );
   return static_cast< U64 >( now.tv_sec ) * 1'000'000'000 + static_cast< U64 >( now.tv_nsec );
}

}  // namespace

Chip::Chip( Settings settings )
   : pipeline_( std::make_unique< Pipeline >( std::move( settings ) ) ),
     tables_( std::make_unique< Tables >( pipeline_->pins(), pipeline_->ports() ) ) {
   // Only now the look-ups that rows need are known.
   tables_->vrfLessIs( pipeline_->settings().vrfLess );
   try {
      pipeline_->attachAll();
   } catch ( Refusal const & ) {
      if ( found() != Found::itself ) {
         pipeline_->pins().removeAll();  // whoever was refused leaves nothing behind
      }
      throw;
   }
}

Chip::~Chip() = default;

Found Chip::found() const { return pipeline_->found(); }

void Chip::portsAre( std::vector< Port > ports ) { pipeline_->portsAre( std::move( ports ) ); }

std::size_t Chip::repairAttachments() { return pipeline_->attachAll(); }

void Chip::vrfLessIs( bool vrfLess ) {
   tables_->vrfLessIs( vrfLess );
   pipeline_->shared().vrfLess = vrfLess;
}

std::size_t Chip::trapsAre( Pfe::NatTrapConfig const & traps ) { return pipeline_->trapsAre( traps ); }

void Chip::statesElsewhereIs( bool elsewhere ) { pipeline_->shared().statesElsewhere = elsewhere; }

void Chip::dynamicRowsLastUntil( U64 until ) {
   std::atomic_ref( pipeline_->shared().dynamicUntil ).store( until, std::memory_order_release );
}

U64 Chip::rowsWritten() const { return tables_->written(); }

void Chip::carryOut( std::span< Asic::ChipRequest const > requests, std::span< Asic::EntryState > outcomes ) {
   if ( requests.empty() ) {
      return;
   }
   auto const before = rowsWritten();
   tables_->carryOut( requests, outcomes );
   pipeline_->ports().refresh();
   if ( rowsWritten() != before ) {
      pipeline_->shared().lastWrite = nanosecondsOf( CLOCK_REALTIME_COARSE );
   }
}

void Chip::sweep() {
   tables_->sweep();
   pipeline_->ports().refresh();
}

std::optional< Asic::ChipHits > Chip::hitsOf( U32 natId ) const {
   if ( natId >= chipNatIds ) {
      return std::nullopt;
   }
   auto hits = tables_->hitsOf( natId );
   if ( hits.lastPacketNanoseconds != 0 ) {  // since boot, in the pipeline
      hits.lastPacketNanoseconds += nanosecondsOf( CLOCK_REALTIME ) - nanosecondsOf( CLOCK_MONOTONIC );
   }
   return hits;
}

Status Chip::status() const { return statusOf( pipeline_->settings().place ).value(); }

}  // namespace Ebpf
