// Chips that take everything, as CONFORMANCE_CHIP in the environment says: one request at a time in order, or in any
// order and reporting all, or in batches. Each keeps the rows that it was given, by their typed keys.
#include "tests/conformance/ChipPort.h"

#include <Pfe/NatTable.h>
#include <Vexa/Assert.h>
#include <Vexa/Value.h>

#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <string_view>

namespace Conformance {

namespace {

// Holds what a chip must: after a write the row's entry, after a removal nothing, and nothing is removed that it does
// not hold.
class KeepingChip : public Asic::Chip {
 public:
   void carryOut( std::span< Asic::ChipRequest const > requests, std::span< Asic::EntryState > outcomes ) override {
      for ( std::size_t i = 0; i < requests.size(); ++i ) {
         carryOut( requests[ i ] );
         outcomes[ i ] = Asic::EntryState::settled;
      }
   }

 private:
   void carryOut( Asic::ChipRequest const & request ) {
      Pfe::visitNatTable( request.table, [ & ]< class Table >( Table const & table ) {
         auto const & key = Table::keyOf( request.row );
         auto const place = std::string( table.name() ) + ' ' + Vexa::stringOf( key );
         VEXA_ASSERT( rows_.contains( place ) != request.addsRow );
         if ( request.version ) {
            rows_[ place ] = Vexa::stringOf( Table::entryOf( *request.version ) );
         } else {
            VEXA_ASSERT( rows_.at( place ) == Vexa::stringOf( *table.hardwareEntry( key ) ) );
            rows_.erase( place );
         }
      } );
   }

   std::map< std::string, std::string > rows_;
};

class BatchingChip final : public KeepingChip {
 public:
   std::size_t batchLimit() const override { return 16; }
};

class TalkativeChip final : public KeepingChip {
 public:
   bool reportsEverything() const override { return true; }
   bool reorders() const override { return true; }
   std::size_t choose( std::size_t count ) override { return random_() % count; }

 private:
   std::minstd_rand random_;
};

}  // namespace

std::shared_ptr< Asic::Chip > emptyChip() {
   auto const * const wanted = std::getenv( "CONFORMANCE_CHIP" );
   std::string_view const name = wanted ? wanted : "plain";
   if ( name == "batching" ) {
      return std::make_shared< BatchingChip >();
   }
   if ( name == "talkative" ) {
      return std::make_shared< TalkativeChip >();
   }
   VEXA_ASSERT( name == "plain" && "CONFORMANCE_CHIP is plain, batching or talkative" );
   return std::make_shared< KeepingChip >();
}

}  // namespace Conformance
