#include <IpNat/NatDynamic.h>

namespace [[gnu::visibility( "default" )]] Ip {
namespace Nat {

std::string DynamicKey::stringValue() const {
   std::string text = "acl ";
   Vexa::append( text, aclName );
   Vexa::append( text.append( " pool " ), poolId );
   return text;
}

}  // namespace Nat
}  // namespace Ip
