// A simulated chip that does what a test tells it.
#pragma once

#include <Asic/Hardware.h>

#include <cstddef>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace Support {

// Accepts everything, in request order, at the turn after it was asked for, until told otherwise.
class ScriptedHardware final : public Asic::HardwarePolicy {
 public:
   unsigned failEvery = 0;                    // every n-th write that is sent; 0: none
   unsigned refuseEvery = 0;                  // every n-th removal
   std::size_t capacity = ~std::size_t{ 0 };  // rows per table
   U64 delay = 0;                             // turns that an operation waits beyond the next
   std::optional< std::mt19937 > order;       // of all that the tables allow; absent: as requested
   bool talkative = false;                    // reports every operation, overtaken ones too

   // While there is one: "write NAME" and "remove NAME" for what reached the chip, oldest first.
   std::optional< std::vector< std::string > > log;

   // Takes everything at once from now on.
   void heal() {
      bool const reports = talkative;
      *this = {};
      talkative = reports;
   }

   // The table's name, a blank, the text of the row's key.
   static std::string nameOf( Asic::SwTableBase const & table, Asic::EntryHandle const & row ) {
      std::ostringstream out;
      out << table.name() << ' ';
      row.describe( out );
      return std::move( out ).str();
   }

   bool isReady( Request const & request ) override { return request.turnsWaited > delay; }
   Asic::EntryState outcomeOfWrite( Request const & request ) override {
      note( "write ", request );
      if ( failEvery != 0 && ++writes_ % failEvery == 0 ) {
         return Asic::EntryState::failed;
      }
      bool const isFull = request.addsRow && request.table.hardwareRowCount() >= capacity;
      return isFull ? Asic::EntryState::full : Asic::EntryState::settled;
   }
   bool refusesRemoval( Request const & request ) override {
      note( "remove ", request );
      return refuseEvery != 0 && ++removals_ % refuseEvery == 0;
   }
   bool reorders() const override { return order.has_value(); }
   bool reportsEverything() const override { return talkative; }
   std::size_t choose( std::size_t count ) override { return ( *order )() % count; }

 private:
   void note( char const * what, Request const & request ) {
      if ( log ) {
         log->push_back( what + nameOf( request.table, request.row ) );
      }
   }

   unsigned writes_ = 0;
   unsigned removals_ = 0;
};

}  // namespace Support
