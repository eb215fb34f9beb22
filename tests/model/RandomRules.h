// Rules out of a small world, so that they meet, and their changes. A changed rule is always another entry, as an agent
// makes one.
#pragma once

#include <tests/support/AnyRule.h>

#include <random>

namespace Model {

using Support::AnyKey;
using Support::AnyRule;

class Choices {
 public:
   explicit Choices( U32 seed = 1 ) : random_( seed ) {}
   virtual ~Choices() = default;
   virtual U32 below( U32 count ) { return random_() % count; }
   bool oneIn( U32 count ) { return below( count ) == 0; }
   template< class T > T of( std::initializer_list< T > values ) {
      return *( values.begin() + below( static_cast< U32 >( values.size() ) ) );
   }

 private:
   std::minstd_rand random_;
};

AnyRule anyRule( Choices & choices );

// The same contents.
AnyRule anew( AnyRule const & rule );
// Other contents of the same rows, which an update in place writes.
AnyRule withOtherContents( AnyRule const & rule, Choices & choices );
// A field changed that decides keys, or whether rows exist.
AnyRule withOtherRows( AnyRule const & rule, Choices & choices );
// The same rows under another key: in the other form, or in the same form. A twice rule stays, its key decides all of
// its rows.
AnyRule withRowsMoved( AnyRule const & rule, Choices & choices );

}  // namespace Model
