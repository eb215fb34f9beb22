// Handles that stand for no row.
#pragma once

#include <Asic/EntryHandle.h>

namespace [[gnu::visibility( "default" )]] Asic {
namespace SwTableWorkaround {

// The handle that an entry carries where it refers to no row and the hardware shall not care. The same for every call
// with the same index.
EntryHandle::PtrConst dontCareHandle( U32 index );

}  // namespace SwTableWorkaround
}  // namespace Asic
