// What the forwarding chip can do about NAT.
#pragma once

#include <Orla/Entity.h>
#include <Orla/Ptr.h>

namespace [[gnu::visibility( "default" )]] Ip {
namespace Nat {

class HwCapabilities : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< HwCapabilities >;
   using PtrConst = Orla::Ptr< HwCapabilities const >;

   // Whether full-cone connections are programmed through the NAT tables; else they are translated elsewhere.
   bool fullConeProgrammed() const { return fullConeProgrammed_; }
   void fullConeProgrammedIs( bool programmed ) { fullConeProgrammed_ = programmed; }

   Vexa::TypeData const & typeData() const override;

 private:
   bool fullConeProgrammed_ = true;
};

}  // namespace Nat
}  // namespace Ip
