// The text of persisted NAT ids' keys, as a store may hand it back.
#include "RoundTrip.h"

#include <Pfe/NatMatchKey.h>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput( std::uint8_t const * data, std::size_t size ) {
   Fuzz::roundTrip< Pfe::NatMatchKey >( { reinterpret_cast< char const * >( data ), size } );
   return 0;
}
