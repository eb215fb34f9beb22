// The type registry: what a loaded library offers, found by name.
#pragma once

#include <Orla/Entity.h>
#include <Orla/Ptr.h>
#include <Vexa/Attribute.h>

#include <any>
#include <span>
#include <string_view>

namespace [[gnu::visibility( "default" )]] Vexa {

// Describes one class of entities. Lives in static storage of the library that defines the class.
struct TypeData {
   std::string_view name;
   TypeData const & ( *base )() = nullptr;  // null: none
   std::span< Attribute< Orla::Entity > const > attributes = {};
   // Creates an object from the arguments of its `...Is` constructor; null pointer when they do not fit. Null for
   // abstract classes.
   Orla::Ptr< Orla::Entity > ( *construct )( AttrArguments arguments ) = nullptr;
};

// The types of one source unit.
struct Module {
   std::string_view name;
   std::span< TypeData const * const > types;
};

// Registers a module; called while a library is loaded, and its unloading takes it out again.
class ModuleRegistration {
 public:
   explicit ModuleRegistration( Module const & module );
   ~ModuleRegistration();
   ModuleRegistration( ModuleRegistration const & ) = delete;
   ModuleRegistration & operator=( ModuleRegistration const & ) = delete;

 private:
   Module const & module_;
};
[[nodiscard]] ModuleRegistration vexaModuleIs( Module const & module );

// Null when no loaded module has it.
Module const * moduleOf( std::string_view moduleName );
TypeData const * typeOf( std::string_view typeName );

// Attribute access by name, the class's own table before those of its bases.
AttrResult attributeRead( Orla::Entity const & entity, std::string_view name, std::any & value );
AttrResult attributeWrite( Orla::Entity & entity, std::string_view name, std::any const & value );
AttrResult attributeCall( Orla::Entity & entity, std::string_view name, AttrArguments arguments, std::any & result );
AttrResult attributeInsert( Orla::Entity & entity, std::string_view name, AttrArguments arguments, std::any & result );
AttrResult attributeDel( Orla::Entity & entity, std::string_view name, AttrArguments arguments, std::any & result );

namespace detail {

// Calls create( arguments... ) when number and types fit.
template< auto create, class Result, class... Arguments, std::size_t... index >
Orla::Ptr< Orla::Entity > constructFrom( AttrArguments arguments, std::index_sequence< index... > ) {
   if ( arguments.size() != sizeof...( Arguments ) ) {
      return nullptr;
   }
   [[maybe_unused]] auto const pointers =
      std::tuple( std::any_cast< std::remove_cvref_t< Arguments > >( &arguments[ index ] )... );
   if ( !( ... && std::get< index >( pointers ) ) ) {
      return nullptr;
   }
   return create( *std::get< index >( pointers )... );
}

template< class Function > struct Constructor;
template< class Result, class... Arguments > struct Constructor< Result ( * )( Arguments... ) > {
   template< Result ( *create )( Arguments... ) >
   static Orla::Ptr< Orla::Entity > construct( AttrArguments arguments ) {
      return constructFrom< create, Result, Arguments... >( arguments, std::index_sequence_for< Arguments... >{} );
   }
};

}  // namespace detail

// The construct-from-arguments entry of a class whose `...Is` constructor is `create`.
template< auto create >
inline constexpr auto constructFromArguments = &detail::Constructor< decltype( create ) >::template construct< create >;

}  // namespace Vexa
