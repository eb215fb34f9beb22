#include <Pfe/NatConnections.h>

namespace [[gnu::visibility( "default" )]] Pfe {

bool staticConnectionIsMulticast( NatProgrammerStaticKey const & key, NatProgrammerStaticEntry::PtrConst const & entry,
                                  bool considerTranslated ) {
   return key.key.ip.isMulticast() || ( considerTranslated && entry->connection().translated.ip.isMulticast() );
}

}  // namespace Pfe
