// A list that is empty nearly everywhere.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

namespace Vexa {

// Elements in order; an empty list is one null pointer.
template< class T > class RareList {
 public:
   void push( T element ) {
      if ( !elements_ ) {
         elements_ = std::make_unique< std::vector< T > >();
      }
      elements_->push_back( std::move( element ) );
   }

   bool empty() const { return !elements_; }
   std::size_t size() const { return elements_ ? elements_->size() : 0; }
   T const * begin() const { return elements_ ? elements_->data() : nullptr; }
   T const * end() const { return begin() + size(); }

   friend bool operator==( RareList const & a, RareList const & b ) {
      return a.elements_ && b.elements_ ? *a.elements_ == *b.elements_ : a.size() == b.size();
   }

 private:
   std::unique_ptr< std::vector< T > > elements_;  // never empty
};

}  // namespace Vexa
