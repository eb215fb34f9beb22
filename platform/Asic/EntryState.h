// How far the hardware write of a table entry has come.
#pragma once

#include <Vexa/Types.h>

namespace Asic {

// The values that tables report; others are no states of an entry.
enum class EntryState : U8 {
   none = 0,
   pending = 1,  // written again, not settled
   settled = 3,
   failed = 4,  // refused by the hardware, or not sent because a row that it refers to is not there
   full = 5,    // no space left
};

constexpr bool isFailure( EntryState state ) { return state == EntryState::failed || state == EntryState::full; }

}  // namespace Asic
