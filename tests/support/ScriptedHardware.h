// A simulated chip whose behaviour a test writes down.
#pragma once

#include <Asic/Hardware.h>

#include <cstddef>
#include <limits>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace Support {

// Accepts everything, in request order, at the next turn, until told otherwise.
class ScriptedHardware final : public Asic::HardwarePolicy {
 public:
   U64 failEvery = 0;                                                 // every n-th write that is sent fails; 0: none
   std::size_t capacity = std::numeric_limits< std::size_t >::max();  // rows per table
   U64 delay = 0;                                                     // turns that an operation waits beyond the next

   // Rows, as nameOf() spells them, that the chip treats specially.
   std::set< std::string > failing;   // each write of them fails
   std::set< std::string > refusing;  // each removal of them is refused
   std::set< std::string > waiting;   // nothing of them settles
   bool refuseAll = false;            // removals

   // Settles in any order that the tables allow; absent: in request order.
   void orderSeedIs( std::optional< U32 > seed );

   // What reached the chip since the last call, oldest first: "write NAME", "write NAME failed", "write NAME full",
   // "remove NAME", "remove NAME refused". An operation that is not sent is not among them.
   std::vector< std::string > takeLog();

   // The table's name, a blank, the text of the row's key.
   static std::string nameOf( Asic::SwTableBase const & table, Asic::EntryHandle const & row );

   bool isReady( Request const & request ) override;
   Asic::EntryState outcomeOfWrite( Request const & request ) override;
   bool refusesRemoval( Request const & request ) override;
   bool reorders() const override { return order_.has_value(); }
   std::size_t choose( std::size_t count ) override;

 private:
   U64 writes_ = 0;
   std::optional< std::mt19937 > order_;
   std::vector< std::string > log_;
};

}  // namespace Support
