// A short list inside its owner.
#pragma once

#include <Vexa/Assert.h>

#include <array>
#include <cstddef>

namespace [[gnu::visibility( "default" )]] Vexa {

// Up to `capacity` elements in order, without a heap allocation; one more stops the agent.
template< class T, std::size_t capacity > class InlineList {
 public:
   void push( T const & element ) {
      VEXA_ASSERT( count_ < capacity );
      elements_[ count_++ ] = element;
   }

   std::size_t count() const { return count_; }
   bool empty() const { return count_ == 0; }
   T const * begin() const { return elements_.data(); }
   T const * end() const { return elements_.data() + count_; }

 private:
   std::array< T, capacity > elements_{};
   unsigned count_ = 0;
};

}  // namespace Vexa
