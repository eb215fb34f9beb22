// What the whole unit shares: its trace handle and the handle that stands for no fragment twin.
#pragma once

#include <Asic/EntryHandle.h>
#include <Trace/Trace.h>

namespace Pfe {

Trace::Handle const & traceHandle();

// Taken once when the library is loaded.
extern Asic::EntryHandle::PtrConst const dontCareHandle;

}  // namespace Pfe
