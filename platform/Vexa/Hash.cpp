#include <Vexa/Hash.h>

namespace [[gnu::visibility( "default" )]] Vexa {

constinit U32 processHashSeed = 0x5EED0001;

}  // namespace Vexa
