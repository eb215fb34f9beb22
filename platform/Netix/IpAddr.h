// IPv4 addresses.
#pragma once

#include <Vexa/Value.h>

#include <optional>
#include <string_view>

namespace [[gnu::visibility( "default" )]] Netix {

// An IPv4 address, in host byte order. Text form: dotted quad (RFC 6943, section 3.1.1, strict form: four decimal
// numbers without leading zeros).
class IpAddr {
 public:
   using Raw = U32;

   constexpr IpAddr() = default;
   constexpr explicit IpAddr( U32 value ) : value_( value ) {}
   explicit IpAddr( Vexa::CharRange & text );

   // Absent when `text` is not exactly one dotted quad.
   static std::optional< IpAddr > fromText( std::string_view text );

   constexpr U32 value() const { return value_; }
   constexpr U32 hash( U32 seed ) const { return Vexa::hash( value_, seed ); }

   // 224.0.0.0/4 (RFC 5771).
   constexpr bool isMulticast() const { return value_ >> 28 == 0xE; }

   friend constexpr auto operator<=>( IpAddr const &, IpAddr const & ) = default;
   friend std::ostream & operator<<( std::ostream & out, IpAddr address );

 private:
   U32 value_ = 0;
};

}  // namespace Netix
