// The text of ingress table keys.
#include "RoundTrip.h"

#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput( std::uint8_t const * data, std::size_t size ) {
   Fuzz::roundTrip< Pfe::IngNatTableKey >( { reinterpret_cast< char const * >( data ), size } );
   return 0;
}
