#include "chip/Attachments.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/if_link.h>

#include <algorithm>
#include <cerrno>
#include <string>

namespace Ebpf {

namespace {

// "INDEX-DEVICE-HOOK": a device that comes back has another index.
std::string pinOf( Device const & device, HookPoint const & point ) {
   return std::to_string( device.index ) + '-' + withoutDots( device.name ) + '-' + point.name;
}

HookPoint const * pointOf( std::string const & pin ) {
   auto const hook = std::string_view( pin ).substr( pin.rfind( '-' ) + 1 );
   auto const * const found =
      std::ranges::find( hookPoints, hook, []( auto const & point ) { return std::string_view( point.name ); } );
   return found == hookPoints.end() ? nullptr : found;
}

// Of the device that the link is at; 0: it is gone, or somebody detached the link. The index stands at the same place
// for both kinds of links.
U32 deviceOf( Descriptor const & link ) {
   bpf_link_info info{};
   U32 size = sizeof info;
   return bpf_obj_get_info_by_fd( link.number(), &info, &size ) == 0 ? info.xdp.ifindex : 0;
}

Descriptor linkAt( Device const & device, HookPoint const & point, int program ) {
   auto const index = static_cast< int >( device.index );
   auto const type = static_cast< bpf_attach_type >( point.attachType );
   bpf_link_create_opts options{};
   options.sz = sizeof options;
   if ( point.attachType != xdpDevice ) {
      return Descriptor( bpf_link_create( program, index, type, &options ) );
   }
   options.flags = XDP_FLAGS_DRV_MODE;
   Descriptor link( bpf_link_create( program, index, type, &options ) );
   if ( !link && errno == EOPNOTSUPP ) {
      options.flags = XDP_FLAGS_SKB_MODE;
      link = Descriptor( bpf_link_create( program, index, type, &options ) );
   }
   return link;
}

std::string whyNotAttached( Device const & device, HookPoint const & point ) {
   auto const what = device.name + ": the program \"" + point.name + "\" can not be attached";
   if ( errno == EINVAL && point.attachType != xdpDevice ) {
      return withErrno( what ) + "; kernels before 6.6 have no such hooks (tcx)";
   }
   if ( errno == EBUSY || errno == EEXIST ) {
      return withErrno( what ) + "; another one is there, see:  ip link show " + device.name;
   }
   return withErrno( what );
}

}  // namespace

std::size_t attach( Pins const & pins, std::vector< Device > const & devices ) {
   std::set< std::string > wanted;
   std::size_t attached = 0;
   for ( auto const & device : devices ) {
      for ( auto const & point : hookPoints ) {
         if ( point.attachType == xdpDevice && !device.withXdp ) {
            continue;
         }
         auto const pin = pinOf( device, point );
         wanted.insert( pin );
         if ( auto const link = pins.open( "links", pin ); link && deviceOf( link ) == device.index ) {
            continue;
         }
         pins.unpin( "links", pin );
         auto const program = pins.open( "programs", point.program );
         auto const link = linkAt( device, point, program.number() );
         if ( !link ) {
            throw Refusal( whyNotAttached( device, point ) );
         }
         pins.pin( "links", pin, link.number() );
         ++attached;
      }
   }
   for ( auto const & pin : pins.namesOf( "links" ) ) {
      if ( !wanted.contains( pin ) ) {
         pins.unpin( "links", pin );
      }
   }
   return attached;
}

void updateAttachments( Pins const & pins ) {
   for ( auto const & pin : pins.namesOf( "links" ) ) {
      auto const * const point = pointOf( pin );
      auto const link = pins.open( "links", pin );
      if ( !point || !link || deviceOf( link ) == 0 ) {
         continue;
      }
      auto const program = pins.open( "programs", point->program );
      if ( bpf_link_update( link.number(), program.number(), nullptr ) != 0 ) {
         throw Refusal( withErrno( pins.pathOf( "links", pin ) + ": the program can not be replaced" ) );
      }
   }
}

std::vector< Status::Attachment > attachmentsOf( Pins const & pins ) {
   std::vector< Status::Attachment > attachments;
   for ( auto const & pin : pins.namesOf( "links" ) ) {
      auto const first = pin.find( '-' );
      auto const last = pin.rfind( '-' );
      auto const link = pins.open( "links", pin );
      attachments.push_back( { .hook = pin.substr( last + 1 ),
                               .device = withDots( pin.substr( first + 1, last - first - 1 ) ),
                               .isAlive = link && deviceOf( link ) != 0 } );
   }
   return attachments;
}

}  // namespace Ebpf
