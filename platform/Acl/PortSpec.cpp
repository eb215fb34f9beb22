#include <Acl/PortSpec.h>

#include <Vexa/Assert.h>

#include <limits>

namespace [[gnu::visibility( "default" )]] Acl {

std::vector< PortMaskList > generatePortRange( PortSpec const & ports, U8 & count, bool /* isSource */ ) {
   VEXA_ASSERT( ports.ranges.size() <= std::numeric_limits< U8 >::max() );
   std::vector< PortMaskList > lists;
   if ( ports.ranges.empty() ) {
      lists.push_back( { { 0, 0 } } );
   }
   for ( auto const & range : ports.ranges ) {
      lists.push_back( Netix::RangeMaskGen< U16 >::entriesOf( range.first, range.last ) );
   }
   count = static_cast< U8 >( lists.size() );
   return lists;
}

}  // namespace Acl
