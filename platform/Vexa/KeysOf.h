// The keys of a collection, for walks during which the collection may change.
#pragma once

#include <vector>

namespace Vexa {

// A copy, in iteration order.
template< class Map > std::vector< typename Map::Key > keysOf( Map const & map ) {
   std::vector< typename Map::Key > keys;
   keys.reserve( map.count() );
   for ( auto const & [ key, value ] : map ) {
      keys.push_back( key );
   }
   return keys;
}

}  // namespace Vexa
