// The tables of platform/, which settle at once and in order. With CONFORMANCE_TALKATIVE they report every operation,
// overtaken ones and pending ones too, and settle in any order that they may.
#include "tests/conformance/Port.h"

#include <Asic/Hardware.h>

#include <random>

namespace Conformance {

namespace {

class Policy final : public Asic::HardwarePolicy {
 public:
   bool writesFail = false;
   bool removalsAreRefused = false;

   Asic::EntryState outcomeOfWrite( Request const & ) override {
      return writesFail ? Asic::EntryState::failed : Asic::EntryState::settled;
   }
   bool refusesRemoval( Request const & ) override { return removalsAreRefused; }
#ifdef CONFORMANCE_TALKATIVE
   bool reportsEverything() const override { return true; }
   bool reorders() const override { return true; }
   std::size_t choose( std::size_t count ) override { return random_() % count; }

 private:
   std::minstd_rand random_;
#endif
};

}  // namespace

struct Port::Chip {
   std::shared_ptr< Policy > policy = std::make_shared< Policy >();
   Asic::Hardware::Ptr hardware = Orla::make< Asic::Hardware >();
};

Port::Port() : chip_( std::make_unique< Chip >() ) {
   auto const & hardware = chip_->hardware;
   hardware->policyIs( chip_->policy );
   sources = Orla::make< Pfe::EgrSourceNatUcRewriteTable >( hardware );
   destinations = Orla::make< Pfe::EgrDestinationNatUcRewriteTable >( hardware );
   statics = Orla::make< Pfe::IngStaticNatTable >( hardware );
   twices = Orla::make< Pfe::IngTwiceNatTable >( hardware );
   snapt = Orla::make< Pfe::IngDynamicSnaptTable >( hardware );
   dnapt = Orla::make< Pfe::IngDynamicDnaptTable >( hardware );
   snat = Orla::make< Pfe::IngDynamicSnatAddrOnlyTable >( hardware );
   dnat = Orla::make< Pfe::IngDynamicDnatAddrOnlyTable >( hardware );
}

Port::~Port() = default;

bool Port::settle() {
   chip_->hardware->settle();
   return chip_->hardware->outstanding() == 0;
}

void Port::writesFail( bool all ) { chip_->policy->writesFail = all; }
bool Port::removalsAreRefused( bool all ) {
   chip_->policy->removalsAreRefused = all;
   return true;
}
void Port::retryFailed() { chip_->hardware->retryFailed(); }

}  // namespace Conformance
