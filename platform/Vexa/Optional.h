// A value or none.
#pragma once

#include <optional>

namespace Vexa {

template< class T > using Optional = std::optional< T >;

}  // namespace Vexa
