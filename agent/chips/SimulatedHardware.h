// A forwarding chip that forwards nothing: it takes rows, or does not, as told.
#pragma once

#include <Asic/Chip.h>
#include <Asic/SwTableBase.h>
#include <Vexa/Types.h>

#include <algorithm>
#include <optional>

namespace Agent {

// Without settings it takes everything at once.
class SimulatedHardware final : public Asic::Chip {
 public:
   struct Settings {
      U64 failEvery = 0;              // every so-manieth write fails; 0: none
      std::optional< U64 > capacity;  // rows that a table has room for; none: as many as it is given
      U64 delay = 0;                  // turns until a write or removal settles
   };

   explicit SimulatedHardware( Settings settings ) : settings_( settings ) {}

   bool isReady( Asic::ChipRequest const & request ) override { return request.turnsWaited >= settings_.delay; }

   void carryOut( std::span< Asic::ChipRequest const > requests, std::span< Asic::EntryState > outcomes ) override {
      std::ranges::transform( requests, outcomes.begin(),
                              [ & ]( Asic::ChipRequest const & request ) { return outcomeOf( request ); } );
   }

 private:
   Asic::EntryState outcomeOf( Asic::ChipRequest const & request ) {
      if ( !request.version ) {
         return Asic::EntryState::settled;
      }
      ++writes_;
      if ( settings_.failEvery != 0 && writes_ % settings_.failEvery == 0 ) {
         return Asic::EntryState::failed;
      }
      bool const isFull = settings_.capacity && request.table.hardwareRowCount() >= *settings_.capacity;
      return request.addsRow && isFull ? Asic::EntryState::full : Asic::EntryState::settled;
   }

   Settings settings_;
   U64 writes_ = 0;
};

}  // namespace Agent
