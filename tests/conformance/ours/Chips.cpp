// Chips that take everything, as CONFORMANCE_CHIP in the environment says: one request at a time in order, or in any
// order and reporting all, or in batches.
#include "../ChipPort.h"

#include "examples/chip/MemoryChip.h"

#include <Vexa/Assert.h>

#include <cstdlib>
#include <random>
#include <string_view>

namespace Conformance {

namespace {

class OneByOneChip final : public MemoryChip {
 public:
   std::size_t batchLimit() const override { return 1; }
};

class TalkativeChip final : public MemoryChip {
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
      return std::make_shared< MemoryChip >();
   }
   if ( name == "talkative" ) {
      return std::make_shared< TalkativeChip >();
   }
   VEXA_ASSERT( name == "plain" && "CONFORMANCE_CHIP is plain, batching or talkative" );
   return std::make_shared< OneByOneChip >();
}

}  // namespace Conformance
