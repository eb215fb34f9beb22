// The software tables of platform/ over a chip that can be told to fail.
#include "ChipPort.h"
#include "Port.h"

#include <Asic/Hardware.h>

#include <algorithm>

namespace Conformance {

namespace {

// Fails or refuses without asking the chip behind it.
class FailingChip final : public Asic::Chip {
 public:
   bool writesFail = false;
   bool removalsAreRefused = false;

   void carryOut( std::span< Asic::ChipRequest const > requests, std::span< Asic::EntryState > outcomes ) override {
      if ( requests.front().version ? writesFail : removalsAreRefused ) {
         std::ranges::fill( outcomes, Asic::EntryState::failed );
      } else {
         chip_->carryOut( requests, outcomes );
      }
   }
   std::size_t batchLimit() const override { return chip_->batchLimit(); }
   bool isReady( Asic::ChipRequest const & request ) override { return chip_->isReady( request ); }
   bool reorders() const override { return chip_->reorders(); }
   std::size_t choose( std::size_t count ) override { return chip_->choose( count ); }
   bool reportsEverything() const override { return chip_->reportsEverything(); }

 private:
   std::shared_ptr< Asic::Chip > chip_ = emptyChip();
};

}  // namespace

struct Port::Chip {
   std::shared_ptr< FailingChip > chip = std::make_shared< FailingChip >();
   Asic::Hardware::Ptr hardware = Orla::make< Asic::Hardware >();
};

Port::Port() : chip_( std::make_unique< Chip >() ) {
   auto const & hardware = chip_->hardware;
   hardware->chipIs( chip_->chip );
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

void Port::writesFail( bool all ) { chip_->chip->writesFail = all; }
bool Port::removalsAreRefused( bool all ) {
   chip_->chip->removalsAreRefused = all;
   return true;
}
void Port::retryFailed() { chip_->hardware->retryFailed(); }

}  // namespace Conformance
