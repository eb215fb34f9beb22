// Gives the conformance test the chip.
#include "MemoryChip.h"

#include <ChipPort.h>

std::shared_ptr< Asic::Chip > Conformance::emptyChip() { return std::make_shared< MemoryChip >(); }
