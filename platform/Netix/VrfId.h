// VRF ids as the dynamic tables' keys hold them.
#pragma once

#include <Vexa/Ranged.h>

namespace [[gnu::visibility( "default" )]] Netix {

struct VrfIdTraits {
   using Raw = U32;
   static constexpr U64 min = 0;
   static constexpr U64 max = 0x00ffffff;
   static constexpr char rangeError[] = "VrfId::value > 0x00ffffff not allowed";
};
using VrfId = Vexa::Ranged< VrfIdTraits >;

}  // namespace Netix
