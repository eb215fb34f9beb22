// Things of a host in an order, by and by, while the host goes on.
#pragma once

#include "agent/host/Host.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace Agent {

// Hands out items in their order though the host may change between two of them. Until it does, the items chosen last
// are good; afterwards those behind the last one are chosen anew. So what stays all the time comes exactly once.
//
// `Order` has the types Item, which may refer to what the host holds, and Mark, which keeps an item's place and may
// not; mark( item ), isBefore( item, item ), and isBehind( item, mark ).
template< class Order > class InOrder {
 public:
   using Item = typename Order::Item;
   using Take = std::function< void( Item ) >;
   using ForEach = std::function< void( Take const & ) >;  // calls it for every item that there is

   InOrder( Host const & host, ForEach forEach ) : host_( host ), forEach_( std::move( forEach ) ) {}

   // Good until the host changes; none: there is no other.
   std::optional< Item > next() {
      if ( changes_ != host_.changes() ) {
         changes_ = host_.changes();
         chosen_.clear();
         given_ = 0;
         isAll_ = false;
      }
      if ( given_ == chosen_.size() && !isAll_ ) {
         choose();
      }
      if ( given_ == chosen_.size() ) {
         return std::nullopt;
      }
      auto const item = chosen_[ given_++ ];
      last_ = Order::mark( item );
      return item;
   }

   void rewind() {
      last_.reset();
      chosen_.clear();
      given_ = 0;
      isAll_ = false;
   }

 private:
   // A choice looks at everything, and 64 clients may have one each.
   static constexpr std::size_t mostChosen = 4096;

   void choose() {
      std::vector< Item > behind;
      forEach_( [ & ]( Item item ) {
         if ( !last_ || Order::isBehind( item, *last_ ) ) {
            behind.push_back( item );
         }
      } );
      isAll_ = behind.size() <= mostChosen;
      if ( !isAll_ ) {
         std::nth_element( behind.begin(), behind.begin() + mostChosen, behind.end(), &Order::isBefore );
         behind.resize( mostChosen );
      }
      std::sort( behind.begin(), behind.end(), &Order::isBefore );
      chosen_.assign( behind.begin(), behind.end() );
      given_ = 0;
   }

   Host const & host_;
   ForEach forEach_;
   U64 changes_ = 0;
   std::vector< Item > chosen_;
   std::size_t given_ = 0;  // of them
   bool isAll_ = false;     // none is behind the chosen ones
   std::optional< typename Order::Mark > last_;
};

// That many rows are appended at once.
constexpr int rowsOfAPiece = 64;

}  // namespace Agent
