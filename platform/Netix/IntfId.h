// Interfaces of the switch.
#pragma once

#include <Orla/String.h>
#include <Trace/RingTrace.h>
#include <Vexa/Value.h>

#include <optional>
#include <string_view>

namespace [[gnu::visibility( "default" )]] Netix {

enum class IntfKind : U8 { none, ethernet, vlan, portChannel, loopback, tunnel };

// Kind and number of an interface in 32 bits. Computed from the name alone, never from the order in which interfaces
// appear: it is part of persisted keys. Text form: the name, such as ethernet5, vlan10, port-channel3, loopback0,
// tunnel1; "none" for the default.
class IntfId {
 public:
   using Raw = U32;
   static constexpr U32 maxNumber = 0x00ffffff;

   constexpr IntfId() = default;
   explicit IntfId( Vexa::CharRange & text );

   // Absent when `name` is not a known kind followed by a number up to maxNumber without leading zeros.
   static std::optional< IntfId > fromName( std::string_view name );
   // Absent when `value` is that of no interface, nor of the default.
   static std::optional< IntfId > fromValue( U32 value );

   IntfKind kind() const { return static_cast< IntfKind >( value_ >> 24 ); }
   U32 number() const { return value_ & maxNumber; }
   U32 value() const { return value_; }
   Orla::String name() const;
   U32 hash( U32 seed ) const { return Vexa::hash( value_, seed ); }

   friend constexpr auto operator<=>( IntfId const &, IntfId const & ) = default;
   void appendTo( std::string & text ) const { text.append( name().text() ); }
   friend std::ostream & operator<<( std::ostream & out, IntfId intf );

 private:
   constexpr IntfId( IntfKind kind, U32 number ) : value_( static_cast< U32 >( kind ) << 24 | number ) {}

   U32 value_ = 0;
};

// An interface that prints by its short name: eth5, vl10, po3, lo0, tu1.
struct ShortName {
   IntfId intf;
   friend std::ostream & operator<<( std::ostream & out, ShortName name );
};

}  // namespace Netix

template<> inline constexpr char const * Trace::ringType< Netix::ShortName > = "p";
