// A simulated chip that does what a test tells it.
#pragma once

#include <Asic/Hardware.h>

#include <algorithm>
#include <cstddef>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace Support {

// Accepts everything, in request order, at the turn after it was asked for, until told otherwise.
class ScriptedHardware final : public Asic::Chip {
 public:
   unsigned failEvery = 0;                    // every n-th write that is sent; 0: none
   unsigned refuseEvery = 0;                  // every n-th removal
   std::size_t capacity = ~std::size_t{ 0 };  // rows per table
   U64 delay = 0;                             // turns that an operation waits beyond the next
   std::optional< std::mt19937 > order;       // of all that the tables allow; absent: as requested
   std::size_t batch = 1;                     // requests that it takes at once; one while there is an order
   bool talkative = false;                    // reports every operation, overtaken ones too

   // While there is one: "write NAME" and "remove NAME" for what reached the chip, oldest first.
   std::optional< std::vector< std::string > > log;
   // Calls that no chip need bear: what SettleOrder should have kept apart.
   unsigned wrongCalls = 0;

   // Takes everything at once from now on.
   void heal() {
      bool const reports = talkative;
      *this = {};
      talkative = reports;
   }

   // The table's name, a blank, the text of the row's key.
   static std::string nameOf( Asic::ChipRequest const & request ) {
      std::ostringstream out;
      out << request.table.name() << ' ';
      request.row.describe( out );
      return std::move( out ).str();
   }

   bool isReady( Asic::ChipRequest const & request ) override { return request.turnsWaited > delay; }
   void carryOut( std::span< Asic::ChipRequest const > requests, std::span< Asic::EntryState > outcomes ) override {
      wrongCalls += !mayBeOneCall( requests );
      added_.clear();
      std::ranges::transform( requests, outcomes.begin(), [ & ]( Asic::ChipRequest const & request ) {
         return request.version ? outcomeOfWrite( request ) : outcomeOfRemoval( request );
      } );
   }
   std::size_t batchLimit() const override { return batch; }
   bool reorders() const override { return order.has_value(); }
   bool reportsEverything() const override { return talkative; }
   std::size_t choose( std::size_t count ) override { return ( *order )() % count; }

 private:
   // In the order of the requests, which is the one in which they were asked for, no row is written after one that it
   // refers to, nor removed before it.
   bool mayBeOneCall( std::span< Asic::ChipRequest const > requests ) const {
      std::set< Asic::EntryHandle const * > older, referredTo;
      bool may = !requests.empty() && requests.size() <= ( order ? 1 : batch );
      for ( auto const & request : requests ) {
         may = may && older.insert( &request.row ).second && !request.version == !requests.front().version &&
               !referredTo.contains( &request.row );
         auto * const version =
            request.version ? const_cast< Asic::Version * >( request.version ) : request.row.inHardware;
         if ( auto const * const entry = request.row.referringEntryOf( *version ) ) {
            entry->forEachHandle( [ & ]( Asic::EntryHandle const & handle ) {
               if ( request.version ) {
                  may = may && !older.contains( &handle );
               } else {
                  referredTo.insert( &handle );
               }
            } );
         }
      }
      return may;
   }

   Asic::EntryState outcomeOfWrite( Asic::ChipRequest const & request ) {
      note( "write ", request );
      if ( failEvery != 0 && ++writes_ % failEvery == 0 ) {
         return Asic::EntryState::failed;
      }
      if ( !request.addsRow ) {
         return Asic::EntryState::settled;
      }
      auto & added = added_[ &request.table ];
      bool const isFull = request.table.hardwareRowCount() + added >= capacity;
      added += !isFull;
      return isFull ? Asic::EntryState::full : Asic::EntryState::settled;
   }
   Asic::EntryState outcomeOfRemoval( Asic::ChipRequest const & request ) {
      note( "remove ", request );
      bool const refuses = refuseEvery != 0 && ++removals_ % refuseEvery == 0;
      return refuses ? Asic::EntryState::failed : Asic::EntryState::settled;
   }
   void note( char const * what, Asic::ChipRequest const & request ) {
      if ( log ) {
         log->push_back( what + nameOf( request ) );
      }
   }

   unsigned writes_ = 0;
   unsigned removals_ = 0;
   std::map< Asic::SwTableBase const *, std::size_t > added_;  // by the writes of this call
};

}  // namespace Support
