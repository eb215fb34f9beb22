// Where a rule sends its packets, when not by the routes.
#pragma once

#include <Orla/Entity.h>
#include <Orla/Ptr.h>
#include <Vexa/Types.h>

namespace [[gnu::visibility( "default" )]] Pfe {

class NatNextHopInfo : public Orla::Entity {
 public:
   using PtrConst = Orla::Ptr< NatNextHopInfo const >;
   Vexa::TypeData const & typeData() const override;
};

// A next hop that the hardware knows by id.
class NatNextHopId final : public NatNextHopInfo {
 public:
   explicit NatNextHopId( U32 id ) : id_( id ) {}
   U32 id() const { return id_; }
   Vexa::TypeData const & typeData() const override;

 private:
   U32 id_;
};

}  // namespace Pfe
