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
   constexpr explicit IpAddr( U32 value )
      : low_( static_cast< U16 >( value ) ), high_( static_cast< U16 >( value >> 16 ) ) {}
   explicit IpAddr( Vexa::CharRange & text );

   // Absent when `text` is not exactly one dotted quad.
   static std::optional< IpAddr > fromText( std::string_view text );

   constexpr U32 value() const { return U32{ high_ } << 16 | low_; }
   constexpr U32 hash( U32 seed ) const { return Vexa::hash( value(), seed ); }

   // 224.0.0.0/4 (RFC 5771).
   constexpr bool isMulticast() const { return value() >> 28 == 0xE; }

   friend constexpr bool operator==( IpAddr a, IpAddr b ) { return a.value() == b.value(); }
   friend constexpr auto operator<=>( IpAddr a, IpAddr b ) { return a.value() <=> b.value(); }
   void appendTo( std::string & text ) const;
   friend std::ostream & operator<<( std::ostream & out, IpAddr address );

 private:
   // In halves, so that an address and a port fill six bytes: keys of many rows are made of such pairs.
   U16 low_ = 0;
   U16 high_ = 0;
};

}  // namespace Netix
