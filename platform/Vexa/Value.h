// Value types are described once: a plain aggregate names its type and lists its members, and order, seeded hash, text
// form and parser follow from that list.
//
//    struct Point {
//       U32 x = 0;
//       U16 y = 0;
//       static constexpr std::string_view typeName = "Example::Point";
//       static constexpr auto attributes() {
//          return std::tuple( Vexa::attr< &Point::x >( "x" ), Vexa::attr< &Point::y >( "y" ) );
//       }
//       friend auto operator<=>( Point const &, Point const & ) = default;
//    };
//    static_assert( Vexa::describesEveryMember< Point > );
//
// The text of Point{ 1, 2 } is Value('Example::Point', x=1, y=2); Vexa::parse< Point > reads it back.
#pragma once

#include <Vexa/CharRange.h>
#include <Vexa/Exception.h>
#include <Vexa/Hash.h>
#include <Vexa/Types.h>

#include <charconv>
#include <concepts>
#include <iterator>
#include <ostream>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

namespace [[gnu::visibility( "default" )]] Vexa {

template< auto memberPointer > struct Attr {
   static constexpr auto member = memberPointer;
   char const * name;
};

template< auto memberPointer > constexpr Attr< memberPointer > attr( char const * name ) { return { name }; }

template< class T >
concept Described = requires {
   { T::typeName } -> std::convertible_to< std::string_view >;
   T::attributes();
};

namespace detail {

struct ConvertsToAnything {
   template< class T > operator T() const;
};

template< class T, std::size_t... index > constexpr bool initialisableWith( std::index_sequence< index... > ) {
   return requires { T{ ( static_cast< void >( index ), ConvertsToAnything{} )... }; };
}

template< class T, std::size_t count = 0 > constexpr std::size_t memberCount() {
   if constexpr ( initialisableWith< T >( std::make_index_sequence< count + 1 >{} ) ) {
      return memberCount< T, count + 1 >();
   } else {
      return count;
   }
}

template< class Wanted, class... Listed >
inline constexpr bool isAmongOnce = ( ... + static_cast< int >( std::is_same_v< Wanted, Listed > ) ) == 1;

}  // namespace detail

// Whether the description lists as many members as the aggregate has, none of them twice. A base class that is no part
// of the value announces itself by a constant undescribedBases.
template< Described T > constexpr bool everyMemberIsDescribed() {
   std::size_t described = std::tuple_size_v< decltype( T::attributes() ) >;
   if constexpr ( requires { T::undescribedBases; } ) {
      described += T::undescribedBases;
   }
   bool const distinct = std::apply(
      []( auto... attribute ) {
         return ( ... && detail::isAmongOnce< decltype( attribute ), decltype( attribute )... > );
      },
      T::attributes() );
   return std::is_aggregate_v< T > && distinct && detail::memberCount< T >() == described;
}
template< Described T > inline constexpr bool describesEveryMember = everyMemberIsDescribed< T >();

// Whole numbers, flags and enumerations: the leaves of every value.
template< class T >
concept Scalar = std::integral< T > || std::is_enum_v< T >;

template< class T >
concept HashesItself = requires( T const & value, U32 seed ) {
   { value.hash( seed ) } -> std::same_as< U32 >;
};

template< class T >
concept ParsesItself = std::constructible_from< T, CharRange & >;

// --- Hash ------------------------------------------------------------------------------------------------------------

// Collects the members of a value into 4-byte steps; neighbours that fit share a step.
class HashPacker {
 public:
   constexpr explicit HashPacker( U32 seed ) : hash_( seed ) {}

   template< Scalar T > constexpr void add( T value ) {
      static_assert( sizeof( T ) <= sizeof( U64 ) );
      if constexpr ( sizeof( T ) == sizeof( U64 ) ) {
         flush();
         hash_.mix( static_cast< U32 >( value ) );
         hash_.mix( static_cast< U32 >( static_cast< U64 >( value ) >> 32 ) );
      } else {
         constexpr unsigned bits = 8 * sizeof( T );
         if ( pendingBits_ + bits > 32 ) {
            flush();
         }
         pending_ |= ( static_cast< U32 >( value ) & ( ~U32{ 0 } >> ( 32 - bits ) ) ) << pendingBits_;
         pendingBits_ += bits;
      }
   }

   template< HashesItself T > constexpr void add( T const & value ) {
      if constexpr ( requires { typename T::Raw; } ) {
         add( value.value() );  // a restricted number is as good a leaf as a plain one
      } else {
         flush();
         hash_.mix( value.hash( 0 ) );
      }
   }

   template< Described T > constexpr void add( T const & value ) {
      std::apply( [ & ]( auto... attribute ) { ( add( value.*attribute.member ), ... ); }, T::attributes() );
   }

   constexpr U32 result() {
      flush();
      return hash_.result();
   }

 private:
   constexpr void flush() {
      if ( pendingBits_ != 0 ) {
         hash_.mix( pending_ );
         pending_ = 0;
         pendingBits_ = 0;
      }
   }

   Hash hash_;
   U32 pending_ = 0;
   unsigned pendingBits_ = 0;
};

template< class T > constexpr U32 hash( T const & value, U32 seed = 0 ) {
   if constexpr ( HashesItself< T > ) {
      return value.hash( seed );
   } else {
      HashPacker packer( seed );
      packer.add( value );
      return packer.result();
   }
}

// --- Equality --------------------------------------------------------------------------------------------------------

template< class T > constexpr bool isEq( T const & a, T const & b ) { return &a == &b || a == b; }

// --- Text ------------------------------------------------------------------------------------------------------------

template< class T >
concept AppendsItself = requires( T const & value, std::string & text ) { value.appendTo( text ); };

// Appends a value's text to another: flags, enumerations and 8-bit values as decimal numbers. Without the detour
// through a stream, which takes several times as long.
template< class T > void append( std::string & text, T const & value ) {
   if constexpr ( std::is_enum_v< T > ) {
      append( text, static_cast< std::underlying_type_t< T > >( value ) );
   } else if constexpr ( std::integral< T > ) {
      char digits[ 24 ];
      text.append( digits, std::to_chars( digits, std::end( digits ), +value ).ptr );
   } else if constexpr ( Described< T > ) {
      text.append( "Value('" ).append( T::typeName ) += '\'';
      auto const appendMember = [ & ]( auto attribute ) {
         text.append( ", " ).append( attribute.name ) += '=';
         append( text, value.*attribute.member );
      };
      std::apply( [ & ]( auto... attribute ) { ( appendMember( attribute ), ... ); }, T::attributes() );
      text += ')';
   } else {
      static_assert( AppendsItself< T > );
      value.appendTo( text );
   }
}

// Writes a part of a text: flags, enumerations and 8-bit values as decimal numbers, all else by its own operator. What
// the locale of the stream does to numbers is kept out of every text.
template< class T > void write( std::ostream & out, T const & value ) {
   if constexpr ( Scalar< T > ) {
      std::string digits;
      append( digits, value );
      out << digits;
   } else {
      out << value;
   }
}

template< Described T > std::ostream & operator<<( std::ostream & out, T const & value ) {
   std::string text;
   append( text, value );
   return out << text;
}

template< class T > std::string stringOf( T const & value ) {
   if constexpr ( Scalar< T > || Described< T > || AppendsItself< T > ) {
      std::string text;
      append( text, value );
      return text;
   } else {
      std::ostringstream out;
      write( out, value );
      return std::move( out ).str();
   }
}

// Takes one value of type T from the front of `text`.
// Throws ParseException, or RangeException for a number out of bounds, with the names of the attributes on the way.
template< class T > T parse( CharRange & text );

namespace detail {

template< Scalar T > T parseScalar( CharRange & text ) {
   using Number = typename std::conditional_t<
      std::is_same_v< T, bool >, std::type_identity< U8 >,
      std::conditional_t< std::is_enum_v< T >, std::underlying_type< T >, std::type_identity< T > > >::type;
   auto const rest = text.rest();
   Number number{};
   auto const [ end, error ] = std::from_chars( rest.data(), rest.data() + rest.size(), number );
   if ( error == std::errc::invalid_argument ) {
      throw ParseException( "expected a number at \"" + std::string( rest.substr( 0, 20 ) ) + "\"" );
   }
   if ( error != std::errc{} || ( std::is_same_v< T, bool > && number > Number{ 1 } ) ) {
      throw RangeException( "number out of range at \"" + std::string( rest.substr( 0, 20 ) ) + "\"" );
   }
   text.advance( static_cast< std::size_t >( end - rest.data() ) );
   return static_cast< T >( number );
}

template< Described T > T parseDescribed( CharRange & text ) {
   T value;
   text.require( "Value('" );
   text.require( T::typeName );
   text.require( "'" );
   auto const parseMember = [ & ]( auto attribute ) {
      text.require( ", " );
      text.require( attribute.name );
      text.require( "=" );
      auto & member = value.*attribute.member;
      try {
         member = parse< std::remove_cvref_t< decltype( member ) > >( text );
      } catch ( Exception const & ) {
         rethrowFromDeserializeAttr( attribute.name );
      }
   };
   std::apply( [ & ]( auto... attribute ) { ( parseMember( attribute ), ... ); }, T::attributes() );
   text.require( ")" );
   return value;
}

}  // namespace detail

template< class T > T parse( CharRange & text ) {
   if constexpr ( Scalar< T > ) {
      return detail::parseScalar< T >( text );
   } else if constexpr ( Described< T > ) {
      return detail::parseDescribed< T >( text );
   } else {
      static_assert( ParsesItself< T > );
      return T( text );
   }
}

// Parses a text that holds one value and nothing else.
template< class T > T parseWhole( std::string_view text ) {
   CharRange range( text );
   T value = parse< T >( range );
   range.requireEnd();
   return value;
}

}  // namespace Vexa
