// Numbers that are only valid between two bounds.
#pragma once

#include <Vexa/Value.h>

namespace [[gnu::visibility( "default" )]] Vexa {

// A number in [ Traits::min, Traits::max ] held as Traits::Raw; its default is the lower bound.
// Construction takes 64 bits, so that a wider number is refused and never cut down; throws RangeException with
// Traits::rangeError.
template< class Traits > class Ranged {
 public:
   using Raw = typename Traits::Raw;
   static constexpr U64 min = Traits::min;
   static constexpr U64 max = Traits::max;
   static constexpr char const * rangeError = Traits::rangeError;

   constexpr Ranged() = default;
   constexpr explicit Ranged( U64 value ) : value_( checked( value ) ) {}
   explicit Ranged( CharRange & text ) : Ranged( detail::parseScalar< U64 >( text ) ) {}

   constexpr Raw value() const { return value_; }
   constexpr U32 hash( U32 seed ) const { return Vexa::hash( value_, seed ); }
   void appendTo( std::string & text ) const { append( text, value_ ); }

   friend constexpr auto operator<=>( Ranged const &, Ranged const & ) = default;
   friend constexpr bool operator==( Ranged const &, Ranged const & ) = default;
   friend constexpr bool operator==( Ranged a, U64 b ) { return a.value_ == b; }
   friend std::ostream & operator<<( std::ostream & out, Ranged number ) {
      write( out, number.value_ );
      return out;
   }

 private:
   static constexpr Raw checked( U64 value ) {
      if ( value - min > max - min ) {
         throw RangeException( Traits::rangeError );
      }
      return static_cast< Raw >( value );
   }

   Raw value_ = static_cast< Raw >( min );
};

}  // namespace Vexa
