#include "chip/PortTable.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <map>
#include <set>

namespace Ebpf {

// --- Ports in the kernel ---------------------------------------------------------------------------------------------

namespace {

class Devices {
 public:
   Devices() : socket_( socket( AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0 ) ) {
      if ( !socket_ ) {
         throw Refusal( withErrno( "devices can not be looked up" ) );
      }
   }

   // 0: absent.
   U32 indexOf( std::string const & name ) const { return if_nametoindex( name.c_str() ); }

   void takeAddress( std::string const & name, ChipPort & port ) const {
      auto request = requestFor( name );
      if ( ioctl( socket_.number(), SIOCGIFHWADDR, &request ) == 0 ) {
         std::memcpy( port.mac, request.ifr_hwaddr.sa_data, sizeof port.mac );
      }
   }

   std::string driverOf( std::string const & name ) const {
      ethtool_drvinfo info{};
      info.cmd = ETHTOOL_GDRVINFO;
      auto request = requestFor( name );
      request.ifr_data = reinterpret_cast< char * >( &info );
      return ioctl( socket_.number(), SIOCETHTOOL, &request ) == 0 ? info.driver : "";
   }

 private:
   static ifreq requestFor( std::string const & name ) {
      ifreq request{};
      name.copy( request.ifr_name, IFNAMSIZ - 1 );
      return request;
   }

   Descriptor socket_;
};

// A frame that XDP hands to one of these is lost unless its other end asks for such frames, which nobody here can know.
bool isVirtual( std::string const & driver ) { return driver == "veth" || driver == "tun" || driver.empty(); }

struct Found {
   std::string name;
   U32 index;
   U16 vlanId;
};

Found found( std::string const & device, Devices const & devices ) {
   if ( auto const index = devices.indexOf( device ) ) {
      return { device, index, 0 };
   }
   auto const dot = device.rfind( '.' );
   if ( dot != std::string::npos ) {
      auto const name = device.substr( 0, dot );
      U16 vlanId = 0;
      auto const * const end = device.data() + device.size();
      auto const read = std::from_chars( device.data() + dot + 1, end, vlanId );
      auto const index = devices.indexOf( name );
      if ( index && read.ptr == end && read.ec == std::errc() && vlanId >= 1 && vlanId <= 4094 ) {
         return { name, index, vlanId };
      }
   }
   throw Refusal( device + ": no such device, nor one whose VLAN it could name; allowed: DEVICE, or DEVICE.VLAN with a "
                           "VLAN from 1 to 4094" );
}

}  // namespace

std::vector< ResolvedPort > resolved( std::vector< Port > const & ports, Hook hook ) {
   Devices const devices;
   std::vector< ResolvedPort > result;
   std::set< std::pair< U32, U16 > > frames;
   std::map< U32, std::set< U16 > > tagsOf;
   std::set< Netix::IntfId > interfaces;
   for ( auto const & port : ports ) {
      auto const [ name, index, vlanId ] = found( port.device, devices );
      if ( !frames.emplace( index, vlanId ).second || !interfaces.insert( port.interface ).second ) {
         throw Refusal( std::string( port.interface.name().text() ) + ", " + port.device +
                        ": interface or device is that of another port" );
      }
      tagsOf[ index ].insert( vlanId );
      bool const withXdp = hook == Hook::xdp || ( hook == Hook::automatic && !isVirtual( devices.driverOf( name ) ) );
      auto & next = result.emplace_back();
      next.device = { .name = name, .index = index, .withXdp = withXdp };
      next.entry.ifindex = index;
      next.entry.vlanId = vlanId;
      next.entry.flags = static_cast< U16 >( chipPortIsUsed | ( withXdp ? chipPortTakesFrames : 0 ) );
      next.entry.intf = port.interface.value();
      next.entry.vrfId = port.vrfId;
      next.entry.qualifier = port.qualifier.value_or( 0 );
      next.entry.hasQualifier = port.qualifier.has_value();
      devices.takeAddress( name, next.entry );
   }
   // What leaves a device without a tag is given one when there is but one to give.
   std::vector< ResolvedPort > pushing;
   for ( auto const & port : result ) {
      auto const & tags = tagsOf.at( port.entry.ifindex );
      if ( tags.size() == 1 && port.entry.vlanId != 0 ) {
         pushing.push_back( port );
         pushing.back().entry.flags |= chipPortPushesTag;
      } else if ( !tags.contains( 0 ) ) {
         throw Refusal( port.device.name +
                        ": several ports have tags, and none has not, so nothing tells by which of "
                        "them a packet leaves; allowed: one tag, or a device of the kernel for each" );
      }
   }
   result.insert( result.end(), pushing.begin(), pushing.end() );
   return result;
}

std::vector< Device > devicesOf( std::vector< ResolvedPort > const & ports ) {
   std::set< Device > devices;
   for ( auto const & port : ports ) {
      devices.insert( port.device );
   }
   return { devices.begin(), devices.end() };
}

// --- The table -------------------------------------------------------------------------------------------------------

namespace {

U32 tagInPlace( ChipPort const & port ) { return port.flags & chipPortPushesTag ? 0 : port.vlanId; }

bool haveSameFrames( ChipPort const & a, ChipPort const & b ) {
   return a.ifindex == b.ifindex && a.vlanId == b.vlanId &&
          ( a.flags & chipPortPushesTag ) == ( b.flags & chipPortPushesTag );
}

}  // namespace

PortTable::PortTable( Pins const & pins )
   : ports_( pins.openMap( "ports" ) ),
     settings_( pins.openMap( "settings" ) ),
     placeOfPort_( pins.openMap( "placeOfPort" ) ) {}

// The place that it has, or a free one.
U32 PortTable::placeFor( ChipPort const & port ) const {
   auto const first = chipPortPlace( port.ifindex, tagInPlace( port ) );
   std::optional< U32 > free;
   for ( U32 i = 0; i < chipPortProbes; ++i ) {
      auto const place = ( first + i ) & ( chipPorts - 1 );
      auto const & there = ports_[ place ];
      if ( there.flags & chipPortIsUsed && haveSameFrames( there, port ) ) {
         return place;
      }
      if ( !( there.flags & chipPortIsUsed ) && !free ) {
         free = place;
      }
   }
   if ( !free ) {
      throw Refusal( "the port table has no place left for the device with index " + std::to_string( port.ifindex ) );
   }
   return *free;
}

void PortTable::portsAre( std::vector< ResolvedPort > const & ports ) {
   std::set< U32 > places;
   for ( auto port : ports ) {
      auto const place = placeFor( port.entry );
      places.insert( place );
      port.entry.entering = shapesOf( port.entry, false );
      port.entry.leaving = shapesOf( port.entry, true );
      auto & there = ports_[ place ];
      if ( std::memcmp( &there, &port.entry, sizeof there ) != 0 ) {
         auto const flags = std::exchange( port.entry.flags, U16{ chipPortWasUsed } );
         there = port.entry;
         std::atomic_ref( there.flags ).store( flags, std::memory_order_release );
      }
      if ( !( port.entry.flags & chipPortPushesTag ) ) {
         placeOfPort_.put( port.entry.intf, place );
      }
   }
   std::set< U32 > interfaces;
   for ( auto const & port : ports ) {
      interfaces.insert( port.entry.intf );
   }
   for ( U32 place = 0; place < chipPorts; ++place ) {
      auto & there = ports_[ place ];
      if ( there.flags & chipPortIsUsed && !places.contains( place ) ) {
         std::atomic_ref( there.flags ).store( chipPortWasUsed, std::memory_order_release );
         if ( !interfaces.contains( there.intf ) ) {
            placeOfPort_.erase( there.intf );
         }
      }
   }
   isStale_ = true;
   refresh();
}

PortTable::Counts & PortTable::countsOf( U64 scope ) {
   if ( !lastCounts_ || scope != lastScope_ ) {
      lastCounts_ = &counts_[ scope ];
      lastScope_ = scope;
   }
   return *lastCounts_;
}

void PortTable::rowCame( Shape const & shape ) {
   if ( shape.number < chipShapes ) {
      auto & counts = countsOf( shape.scope );
      isStale_ |= ( shape.leaving ? counts.leaving : counts.entering )[ shape.number ]++ == 0;
   }
}

void PortTable::rowWent( Shape const & shape ) {
   if ( shape.number < chipShapes ) {
      auto & counts = countsOf( shape.scope );
      isStale_ |= --( shape.leaving ? counts.leaving : counts.entering )[ shape.number ] == 0;
   }
}

U32 PortTable::shapesOf( ChipPort const & port, bool leaving ) const {
   U32 shapes = 0;
   auto const add = [ & ]( U64 scope ) {
      if ( auto const found = counts_.find( scope ); found != counts_.end() ) {
         auto const & counts = leaving ? found->second.leaving : found->second.entering;
         for ( unsigned shape = 0; shape < chipShapes; ++shape ) {
            shapes |= U32{ counts[ shape ] != 0 } << shape;
         }
      }
   };
   add( scopeOfInterface( port.intf ) );
   if ( port.hasQualifier ) {
      add( scopeOfQualifier( port.qualifier ) );
   }
   return shapes;
}

void PortTable::refresh() {
   if ( !std::exchange( isStale_, false ) ) {
      return;
   }
   U32 leaving = 0;
   for ( auto & port : ports_.elements() ) {
      if ( port.flags & chipPortIsUsed ) {
         auto const set = []( U32 & field, U32 value ) {
            if ( field != value ) {
               std::atomic_ref( field ).store( value, std::memory_order_release );
            }
         };
         set( port.entering, shapesOf( port, false ) );
         set( port.leaving, shapesOf( port, true ) );
         leaving |= port.leaving;
      }
   }
   std::atomic_ref( settings_[ 0 ].leaving ).store( leaving, std::memory_order_release );
}

}  // namespace Ebpf
