// NAT ids: the number that ties an ingress row to its rewrite.
#pragma once

#include <Vexa/Ranged.h>

namespace [[gnu::visibility( "default" )]] Pfe {

struct NatIdTraits {
   using Raw = U16;
   static constexpr U64 min = 1;
   static constexpr U64 max = 65535;
   static constexpr char rangeError[] = "Pfe::NatId::value < Pfe::NatId::min or > Pfe::NatId::max not allowed";
};
using NatId = Vexa::Ranged< NatIdTraits >;

}  // namespace Pfe
