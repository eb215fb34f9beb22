// A port that gives the software tables of platform/ another chip brings this function instead of a Port.cpp.
#pragma once

#include <Asic/Chip.h>

#include <memory>

namespace Conformance {

// An empty chip that takes everything it has room for. Failures and refusals are put in front of it.
std::shared_ptr< Asic::Chip > emptyChip();

}  // namespace Conformance
