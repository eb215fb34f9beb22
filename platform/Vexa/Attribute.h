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
   // Collections and instantiating attributes: put in, and take out. The result is what the accessor returns.
   AttrResult ( *insert )( Object & object, AttrArguments arguments, std::any & result ) = nullptr;
   AttrResult ( *del )( Object & object, AttrArguments arguments, std::any & result ) = nullptr;
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

template< auto map, class Object > AttrResult findThunk( Object & object, AttrArguments arguments, std::any & result ) {
   using Traits = MemberTraits< decltype( map ) >;
   using Key = typename std::remove_cvref_t< typename Traits::Result >::Key;
   auto const * const key = arguments.size() == 1 ? std::any_cast< Key >( &arguments[ 0 ] ) : nullptr;
   if ( !key ) {
      return AttrResult::notSupported;
   }
   auto const * const value = ( static_cast< typename Traits::Class const & >( object ).*map )().find( *key );
   result = value ? std::any( *value ) : std::any();
   return AttrResult::done;
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

// A collection answers a call with one key by what it holds under that key.
template< class Object, auto lookUp, auto insert, auto del >
constexpr Attribute< Object > collectionAttribute( std::string_view name ) {
   return { .name = name,
            .kind = AttrKind::collection,
            .call = &detail::callThunk< lookUp, Object >,
            .insert = &detail::callThunk< insert, Object >,
            .del = &detail::callThunk< del, Object > };
}

// The type of the accessor of a whole map; picks it among the look-ups of the same name.
template< class Object, class Map > using MapOf = Map const & (Object::*)() const;

// A collection whose accessor returns its HashMap: the value under a key, an empty std::any when there is none.
template< class Object, auto map, auto insert, auto del >
constexpr Attribute< Object > mapAttribute( std::string_view name ) {
   return { .name = name,
            .kind = AttrKind::collection,
            .call = &detail::findThunk< map, Object >,
            .insert = &detail::callThunk< insert, Object >,
            .del = &detail::callThunk< del, Object > };
}

// Read as a value; an insertion creates what it holds from the arguments, and so does a call.
template< class Object, auto getter, auto create, auto del >
constexpr Attribute< Object > instantiatingAttribute( std::string_view name ) {
   return { .name = name,
            .kind = AttrKind::instantiating,
            .read = &detail::readThunk< getter, Object >,
            .call = &detail::callThunk< create, Object >,
            .insert = &detail::callThunk< create, Object >,
            .del = &detail::callThunk< del, Object > };
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

// Calls, inserts or deletes: `operation` is the row's member that does it.
template< class Object, class Operation >
AttrResult attributeInvoke( std::span< Attribute< Object > const > table, Object & object, U32 id,
                            Operation Attribute< Object >::*operation, AttrArguments arguments, std::any & result ) {
   if ( id == 0 || id > table.size() ) {
      return AttrResult::noSuchAttribute;
   }
   auto const function = table[ id - 1 ].*operation;
   return function ? function( object, arguments, result ) : AttrResult::notSupported;
}

template< class Object >
AttrResult attributeCall( std::span< Attribute< Object > const > table, Object & object, U32 id,
                          AttrArguments arguments, std::any & result ) {
   return attributeInvoke( table, object, id, &Attribute< Object >::call, arguments, result );
}

}  // namespace Vexa
