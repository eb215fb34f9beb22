#include <IpNat/NatStatic.h>

#include <sstream>

namespace [[gnu::visibility( "default" )]] Ip {
namespace Nat {

std::string StaticKey::stringValue() const {
   std::ostringstream out;
   out << ip << ':' << port;
   if ( !aclName.empty() ) {
      out << " acl " << aclName;
   }
   return std::move( out ).str();
}

std::string TwiceKey::stringValue() const {
   std::ostringstream out;
   out << source.ip << ':' << source.port << " -> " << destination.ip << ':' << destination.port;
   return std::move( out ).str();
}

NatTargets getStaticConnectionTargets( NatTarget target, bool isMulticast ) {
   NatTargets targets;
   targets.push( target );
   if ( !isMulticast ) {
      targets.push( target == NatTarget::source ? NatTarget::destination : NatTarget::source );
   }
   return targets;
}

}  // namespace Nat
}  // namespace Ip
