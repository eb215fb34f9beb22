// How the simulated forwarding chip behaves.
#pragma once

#include <Asic/Hardware.h>
#include <Vexa/Types.h>

#include <optional>

namespace Agent {

// Without settings it takes everything at once.
class SimulatedHardware final : public Asic::HardwarePolicy {
 public:
   struct Settings {
      U64 failEvery = 0;              // every so-manieth write fails; 0: none
      std::optional< U64 > capacity;  // rows that a table has room for; none: as many as it is given
      U64 delay = 0;                  // turns until a write or removal settles
   };

   explicit SimulatedHardware( Settings settings ) : settings_( settings ) {}

   bool isReady( Request const & request ) override { return request.turnsWaited >= settings_.delay; }

   Asic::EntryState outcomeOfWrite( Request const & request ) override {
      ++writes_;
      if ( settings_.failEvery != 0 && writes_ % settings_.failEvery == 0 ) {
         return Asic::EntryState::failed;
      }
      bool const isFull = settings_.capacity && request.table.hardwareRowCount() >= *settings_.capacity;
      return request.addsRow && isFull ? Asic::EntryState::full : Asic::EntryState::settled;
   }

 private:
   Settings settings_;
   U64 writes_ = 0;
};

}  // namespace Agent
