// The texts of all values that are not keys of NAT ids: the first byte picks the type, the rest is the text.
#include "RoundTrip.h"

#include <Bridging/VlanId.h>
#include <Pfe/EgrNatTables.h>
#include <Pfe/IngDynamicNatTables.h>
#include <Pfe/IngStaticNatTable.h>
#include <Pfe/IngTwiceNatTable.h>
#include <Pfe/NatProgrammerKeys.h>
#include <Pfe/NatSideTables.h>

#include <cstddef>
#include <cstdint>

namespace {

using RoundTrip = void ( * )( std::string_view );

constexpr RoundTrip types[] = {
   &Fuzz::roundTrip< bool >,
   &Fuzz::roundTrip< U64 >,
   &Fuzz::roundTrip< Pfe::NatId >,
   &Fuzz::roundTrip< Bridging::VlanIdOrNone >,
   &Fuzz::roundTrip< Netix::IpAddr >,
   &Fuzz::roundTrip< Netix::IntfId >,
   &Fuzz::roundTrip< Orla::String >,
   &Fuzz::roundTrip< Pfe::EgrNatUcRewriteKey >,
   &Fuzz::roundTrip< Pfe::EgrNatUcRewriteEntry >,
   &Fuzz::roundTrip< Pfe::EgrNatMcRewriteEntry >,
   &Fuzz::roundTrip< Pfe::IngStaticNatTableKey >,
   &Fuzz::roundTrip< Pfe::IngTwiceNatTableKey >,
   &Fuzz::roundTrip< Pfe::IngDynamicSnaptTable::Key >,
   &Fuzz::roundTrip< Pfe::IngDynamicDnatAddrOnlyTable::Key >,
   &Fuzz::roundTrip< Pfe::NatProgrammerStaticKey >,
   &Fuzz::roundTrip< Pfe::NatProgrammerTwiceKey >,
   &Fuzz::roundTrip< Pfe::NatProgrammerDynamicKey >,
   &Fuzz::roundTrip< Pfe::NatProgrammerTrapKey >,
   &Fuzz::roundTrip< Pfe::NatTrapRule >,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput( std::uint8_t const * data, std::size_t size ) {
   if ( size != 0 ) {
      types[ data[ 0 ] % std::size( types ) ]( { reinterpret_cast< char const * >( data ) + 1, size - 1 } );
   }
   return 0;
}
