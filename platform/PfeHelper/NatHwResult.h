// What became of a rule, as the programmer status tells it.
#pragma once

#include <Vexa/Types.h>

namespace PfeHelper {

enum class NatHwResult : U8 {
   pending = 0,
   programmed = 1,
   failed = 2,
   unsupported = 3,
   noSpace = 4,
   rejectedMulticast = 5,
};

}  // namespace PfeHelper
