// How the platform reads connections.
#pragma once

#include <Pfe/NatProgrammerEntries.h>
#include <Pfe/NatProgrammerKeys.h>
#include <Vexa/InlineList.h>

namespace [[gnu::visibility( "default" )]] Pfe {

// Whether the rule translates multicast traffic (RFC 5771 addresses). The untranslated address decides;
// `considerTranslated` lets the translated one decide as well.
bool staticConnectionIsMulticast( NatProgrammerStaticKey const & key, NatProgrammerStaticEntry::PtrConst const & entry,
                                  bool considerTranslated );

// Whether any address of the rule is a multicast one.
bool twiceConnectionIsMulticast( NatProgrammerTwiceKey const & key, NatProgrammerTwiceEntry::PtrConst const & entry );

// The directions that a twice connection is programmed for, true for forward: a unicast one for both, forward first; a
// multicast one, which has no replies, forward only.
using NatDirections = Vexa::InlineList< bool, 2 >;
NatDirections getTwiceConnectionDirections( bool isMulticast );

}  // namespace Pfe
