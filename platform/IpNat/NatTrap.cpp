#include <IpNat/NatTrap.h>

#include <tuple>

namespace [[gnu::visibility( "default" )]] Ip {
namespace Nat {

// A descending field is compared with the sides exchanged.
bool operator<( NatTrapFilter const & a, NatTrapFilter const & b ) {
   auto const upToFirstPort = []( NatTrapFilter const & up, NatTrapFilter const & down ) {
      return std::tie( down.sequence, up.source, up.destination, down.protocol, down.protocolMask, down.permit,
                       down.flagMask, up.sourcePortOp, up.sourcePort );
   };
   auto const left = upToFirstPort( a, b );
   auto const right = upToFirstPort( b, a );
   if ( left != right ) {
      return left < right;
   }
   return std::tie( b.destinationPortOp, a.destinationPort ) < std::tie( a.destinationPortOp, b.destinationPort );
}

}  // namespace Nat
}  // namespace Ip
