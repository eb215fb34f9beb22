// Generic access to attributes: each class has one table, and reading, writing and calling by id or by name go through
// it. Ids run from 1 in table order.
#pragma once

#include <Vexa/Exception.h>
#include <Vexa/Types.h>

#include <any>
#include <cstddef>
#include <optional>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace [[gnu::visibility( "default" )]] Vexa {

enum class AttrResult : U8 { done, noSuchAttribute, notSupported, wrongAlternative };
enum class AttrKind : U8 { value, collection, method, instantiating };

using AttrArguments = std::span< std::any const >;

// One row of a class's table; `Object` is the class, or for entities Orla::Entity. An operation that the attribute does
// not have is null. Arguments and results travel as std::any of exactly the accessor's own types, references and const
// left out; arguments of other types or number answer notSupported.
template< class Object > struct Attribute {
   std::string_view name;
   AttrKind kind = AttrKind::value;
   AttrResult ( *read )( Object const & object, std::any & value ) = nullptr;
   AttrResult ( *write )( Object & object, std::any const & value ) = nullptr;
   AttrResult ( *call )( Object & object, AttrArguments arguments, std::any & result ) = nullptr;
};

namespace detail {

template< class Member > struct MemberTraits;
template< class C, class R, class... A > struct MemberTraits< R ( C::* )( A... ) > {
   using Class = C;
   using Result = R;
   using Arguments = std::tuple< std::remove_cvref_t< A >... >;
};
template< class C, class R, class... A >
struct MemberTraits< R ( C::* )( A... ) const > : MemberTraits< R ( C::* )( A... ) > {};

// Calls a member function with arguments taken out of std::any; false when number or types do not fit.
template< auto function, class Class, std::size_t... index >
bool invoke( Class & object, AttrArguments arguments, std::any & result, std::index_sequence< index... > ) {
   using Traits = MemberTraits< decltype( function ) >;
   if ( arguments.size() != sizeof...( index ) ) {
      return false;
   }
   auto const pointers = std::tuple(
      std::any_cast< std::tuple_element_t< index, typename Traits::Arguments > >( &arguments[ index ] )... );
   if ( !( ... && std::get< index >( pointers ) ) ) {
      return false;
   }
   if constexpr ( std::is_void_v< typename Traits::Result > ) {
      ( object.*function )( *std::get< index >( pointers )... );
      result.reset();
   } else {
      result =
         std::remove_cvref_t< typename Traits::Result >( ( object.*function )( *std::get< index >( pointers )... ) );
   }
   return true;
}

template< auto function, class Object >
AttrResult callThunk( Object & object, AttrArguments arguments, std::any & result ) {
   using Traits = MemberTraits< decltype( function ) >;
   using Indices = std::make_index_sequence< std::tuple_size_v< typename Traits::Arguments > >;
   auto & self = static_cast< typename Traits::Class & >( object );
   return invoke< function >( self, arguments, result, Indices{} ) ? AttrResult::done : AttrResult::notSupported;
}

template< auto getter, class Object > AttrResult readThunk( Object const & object, std::any & value ) try {
   using Traits = MemberTraits< decltype( getter ) >;
   auto const & self = static_cast< typename Traits::Class const & >( object );
   value = std::remove_cvref_t< typename Traits::Result >( ( self.*getter )() );
   return AttrResult::done;
} catch ( BadUnionAccessException const & ) {
   return AttrResult::wrongAlternative;
}

template< auto setter, class Object > AttrResult writeThunk( Object & object, std::any const & value ) {
   std::any unused;
   return callThunk< setter >( object, AttrArguments( &value, 1 ), unused );
}

}  // namespace detail

template< class Object, auto getter > constexpr Attribute< Object > readOnlyAttribute( std::string_view name ) {
   return { .name = name, .kind = AttrKind::value, .read = &detail::readThunk< getter, Object > };
}

template< class Object, auto getter, auto setter > constexpr Attribute< Object > attribute( std::string_view name ) {
   return { .name = name,
            .kind = AttrKind::value,
            .read = &detail::readThunk< getter, Object >,
            .write = &detail::writeThunk< setter, Object > };
}

template< class Object, auto function > constexpr Attribute< Object > methodAttribute( std::string_view name ) {
   return { .name = name, .kind = AttrKind::method, .call = &detail::callThunk< function, Object > };
}

// A collection answers a call with one key by the value under that key.
template< class Object, auto lookUp > constexpr Attribute< Object > collectionAttribute( std::string_view name ) {
   return { .name = name, .kind = AttrKind::collection, .call = &detail::callThunk< lookUp, Object > };
}

// Read as a value; a call creates what it holds from the arguments.
template< class Object, auto getter, auto create >
constexpr Attribute< Object > instantiatingAttribute( std::string_view name ) {
   return { .name = name,
            .kind = AttrKind::instantiating,
            .read = &detail::readThunk< getter, Object >,
            .call = &detail::callThunk< create, Object > };
}

// The id of the attribute called `name`; absent when the table has none.
template< class Object >
constexpr std::optional< U32 > attributeId( std::span< Attribute< Object > const > table, std::string_view name ) {
   for ( U32 i = 0; i < table.size(); ++i ) {
      if ( table[ i ].name == name ) {
         return i + 1;
      }
   }
   return std::nullopt;
}

template< class Object >
AttrResult attributeRead( std::span< Attribute< Object > const > table, Object const & object, U32 id,
                          std::any & value ) {
   if ( id == 0 || id > table.size() ) {
      return AttrResult::noSuchAttribute;
   }
   auto const & row = table[ id - 1 ];
   return row.read ? row.read( object, value ) : AttrResult::notSupported;
}

template< class Object >
AttrResult attributeWrite( std::span< Attribute< Object > const > table, Object & object, U32 id,
                           std::any const & value ) {
   if ( id == 0 || id > table.size() ) {
      return AttrResult::noSuchAttribute;
   }
   auto const & row = table[ id - 1 ];
   return row.write ? row.write( object, value ) : AttrResult::notSupported;
}

template< class Object >
AttrResult attributeCall( std::span< Attribute< Object > const > table, Object & object, U32 id,
                          AttrArguments arguments, std::any & result ) {
   if ( id == 0 || id > table.size() ) {
      return AttrResult::noSuchAttribute;
   }
   auto const & row = table[ id - 1 ];
   return row.call ? row.call( object, arguments, result ) : AttrResult::notSupported;
}

}  // namespace Vexa
