// How the platform reads connections.
#pragma once

#include <Pfe/NatProgrammerEntries.h>
#include <Pfe/NatProgrammerKeys.h>

namespace [[gnu::visibility( "default" )]] Pfe {

// Whether the rule translates multicast traffic (RFC 5771 addresses). The untranslated address decides;
// `considerTranslated` lets the translated one decide as well.
bool staticConnectionIsMulticast( NatProgrammerStaticKey const & key, NatProgrammerStaticEntry::PtrConst const & entry,
                                  bool considerTranslated );

}  // namespace Pfe
