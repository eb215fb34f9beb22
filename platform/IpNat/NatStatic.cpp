#include <IpNat/NatStatic.h>

namespace [[gnu::visibility( "default" )]] Ip {
namespace Nat {

namespace {

std::string textOf( Netix::IpAndPort const & pair ) {
   auto text = Vexa::stringOf( pair.ip ) + ':';
   Vexa::append( text, pair.port );
   return text;
}

}  // namespace

std::string StaticKey::stringValue() const {
   auto text = textOf( { ip, port } );
   if ( !aclName.empty() ) {
      Vexa::append( text.append( " acl " ), aclName );
   }
   return text;
}

std::string TwiceKey::stringValue() const { return textOf( source ) + " -> " + textOf( destination ); }

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
