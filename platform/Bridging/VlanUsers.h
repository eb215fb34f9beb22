// The VLANs of several users.
#pragma once

#include <Bridging/VlanIdSet.h>
#include <Vexa/HashMap.h>

#include <memory>

namespace [[gnu::visibility( "default" )]] Bridging {

// How many users are on each VLAN.
class VlanUsers {
 public:
   // A user of any number comes or goes; what goes has come before.
   void add( U16 vlanId );
   void del( U16 vlanId );

   // The VLANs of all; null while a user's number is no VLAN id.
   VlanIdSet const * vlanIds() const { return withoutVlan_ == 0 ? &vlanIds_ : nullptr; }

 private:
   VlanIdSet vlanIds_;
   // How many more there are than the first, of VLANs with several; null when there is none.
   std::unique_ptr< Vexa::HashMap< U16, U32, 0x5D1C83E6 > > others_;
   U32 withoutVlan_ = 0;
};

}  // namespace Bridging
