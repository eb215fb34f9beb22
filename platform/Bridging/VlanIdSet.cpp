#include <Bridging/VlanIdSet.h>

#include <algorithm>
#include <numeric>

namespace [[gnu::visibility( "default" )]] Bridging {

VlanIdSet::VlanIdSet( VlanIdSet const & other ) : present_( other.present_ ), single_( other.single_ ) {
   if ( other.many_ ) {
      many_ = std::make_unique_for_overwrite< U64[] >( wordCount() );
      std::copy_n( other.many_.get(), wordCount(), many_.get() );
   }
}

std::size_t VlanIdSet::count() const {
   return std::accumulate( words(), words() + wordCount(), std::size_t{ 0 }, []( std::size_t sum, U64 word ) {
      return sum + static_cast< std::size_t >( std::popcount( word ) );
   } );
}

bool VlanIdSet::is( VlanId vlanId ) {
   auto const index = indexOf( vlanId );
   if ( present_ & placeOf( vlanId ) ) {
      auto & word = words()[ index ];
      auto const before = std::exchange( word, word | bitOf( vlanId ) );
      return before != word;
   }
   auto const count = wordCount();
   if ( count != 0 ) {
      auto wider = std::make_unique_for_overwrite< U64[] >( count + 1 );
      std::copy_n( words(), index, wider.get() );
      std::copy_n( words() + index, count - index, wider.get() + index + 1 );
      many_ = std::move( wider );
   }
   present_ |= placeOf( vlanId );
   words()[ index ] = bitOf( vlanId );
   return true;
}

bool VlanIdSet::del( VlanId vlanId ) {
   if ( !has( vlanId ) ) {
      return false;
   }
   auto const index = indexOf( vlanId );
   words()[ index ] &= ~bitOf( vlanId );
   if ( words()[ index ] == 0 ) {
      std::copy( words() + index + 1, words() + wordCount(), words() + index );
      present_ &= ~placeOf( vlanId );
      if ( many_ && wordCount() == 1 ) {
         single_ = many_[ 0 ];
         many_ = nullptr;
      }
   }
   return true;
}

bool operator==( VlanIdSet const & a, VlanIdSet const & b ) {
   return a.present_ == b.present_ && std::equal( a.words(), a.words() + a.wordCount(), b.words() );
}

}  // namespace Bridging
