// The port field of an access-list rule.
#pragma once

#include <Netix/RangeMaskGen.h>
#include <Vexa/Types.h>

#include <compare>
#include <vector>

namespace [[gnu::visibility( "default" )]] Acl {

struct PortRange {
   U16 first = 0;
   U16 last = 0;  // included
   friend auto operator<=>( PortRange const &, PortRange const & ) = default;
};

// The ports that match: those of any of the ranges; without ranges every port. At most 255 ranges.
struct PortSpec {
   std::vector< PortRange > ranges;
   friend auto operator<=>( PortSpec const &, PortSpec const & ) = default;
};

using PortMaskList = std::vector< Netix::RangeMaskGen< U16 >::Entry >;

// One list of value and mask pairs per range of the field; `count` is set to the number of lists. Every port is one
// list of one pair whose mask is 0. The two sides of a rule expand alike, so `isSource` decides nothing here.
std::vector< PortMaskList > generatePortRange( PortSpec const & ports, U8 & count, bool isSource );

}  // namespace Acl
