#include <Bridging/VlanUsers.h>

namespace [[gnu::visibility( "default" )]] Bridging {

namespace {

bool isVlan( U16 vlanId ) { return vlanId >= VlanId::min && vlanId <= VlanId::max; }

}  // namespace

void VlanUsers::add( U16 vlanId ) {
   if ( !isVlan( vlanId ) ) {
      ++withoutVlan_;
   } else if ( !vlanIds_.is( VlanId( vlanId ) ) ) {
      if ( !others_ ) {
         others_ = std::make_unique< decltype( others_ )::element_type >();
      }
      ++others_->refOrEmplace( vlanId ).first;
   }
}

void VlanUsers::del( U16 vlanId ) {
   if ( !isVlan( vlanId ) ) {
      --withoutVlan_;
      return;
   }
   auto * const others = others_ ? others_->find( vlanId ) : nullptr;
   if ( !others ) {
      vlanIds_.del( VlanId( vlanId ) );
   } else if ( --*others == 0 ) {
      others_->del( vlanId );
      if ( others_->count() == 0 ) {
         others_ = nullptr;
      }
   }
}

}  // namespace Bridging
