#include <IpNat/NatDynamic.h>

#include <sstream>

namespace [[gnu::visibility( "default" )]] Ip {
namespace Nat {

std::string DynamicKey::stringValue() const {
   std::ostringstream out;
   out << "acl " << aclName << " pool " << poolId;
   return std::move( out ).str();
}

}  // namespace Nat
}  // namespace Ip
