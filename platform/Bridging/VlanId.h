// VLAN ids (IEEE 802.1Q).
#pragma once

#include <Vexa/Ranged.h>

namespace [[gnu::visibility( "default" )]] Bridging {

struct VlanIdTraits {
   using Raw = U16;
   static constexpr U64 min = 1;
   static constexpr U64 max = 4094;
   static constexpr char rangeError[] = "Bridging::VlanId::value < 1 or > 4094 not allowed";
};
using VlanId = Vexa::Ranged< VlanIdTraits >;

struct VlanIdOrNoneTraits {
   using Raw = U16;
   static constexpr U64 min = 0;  // none
   static constexpr U64 max = 4094;
   static constexpr char rangeError[] = "Bridging::VlanIdOrNone::value > 4094 not allowed";
};
using VlanIdOrNone = Vexa::Ranged< VlanIdOrNoneTraits >;

}  // namespace Bridging
