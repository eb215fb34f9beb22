#include <Vexa/Type.h>

#include <algorithm>
#include <vector>

namespace [[gnu::visibility( "default" )]] Vexa {

namespace {

// Modules register from static constructors, in any order, so the list is built on first use.
std::vector< Module const * > & modules() {
   static auto * const list = new std::vector< Module const * >;
   return *list;
}

struct Found {
   TypeData const * type = nullptr;
   U32 id = 0;
};

Found attributeOf( TypeData const & type, std::string_view name ) {
   for ( auto const * t = &type; t; t = t->base ? &t->base() : nullptr ) {
      if ( auto const id = attributeId( t->attributes, name ) ) {
         return { t, *id };
      }
   }
   return {};
}

}  // namespace

ModuleRegistration::ModuleRegistration( Module const & module ) : module_( module ) { modules().push_back( &module ); }

ModuleRegistration::~ModuleRegistration() { std::erase( modules(), &module_ ); }

ModuleRegistration vexaModuleIs( Module const & module ) { return ModuleRegistration( module ); }

Module const * moduleOf( std::string_view moduleName ) {
   auto const found = std::ranges::find( modules(), moduleName, &Module::name );
   return found == modules().end() ? nullptr : *found;
}

TypeData const * typeOf( std::string_view typeName ) {
   for ( auto const * module : modules() ) {
      auto const found = std::ranges::find( module->types, typeName, &TypeData::name );
      if ( found != module->types.end() ) {
         return *found;
      }
   }
   return nullptr;
}

AttrResult attributeRead( Orla::Entity const & entity, std::string_view name, std::any & value ) {
   auto const found = attributeOf( entity.typeData(), name );
   return found.type ? attributeRead( found.type->attributes, entity, found.id, value ) : AttrResult::noSuchAttribute;
}

AttrResult attributeWrite( Orla::Entity & entity, std::string_view name, std::any const & value ) {
   auto const found = attributeOf( entity.typeData(), name );
   return found.type ? attributeWrite( found.type->attributes, entity, found.id, value ) : AttrResult::noSuchAttribute;
}

namespace {

template< class Operation >
AttrResult invoke( Orla::Entity & entity, std::string_view name, Operation Attribute< Orla::Entity >::*operation,
                   AttrArguments arguments, std::any & result ) {
   auto const found = attributeOf( entity.typeData(), name );
   return found.type ? attributeInvoke( found.type->attributes, entity, found.id, operation, arguments, result )
                     : AttrResult::noSuchAttribute;
}

}  // namespace

AttrResult attributeCall( Orla::Entity & entity, std::string_view name, AttrArguments arguments, std::any & result ) {
   return invoke( entity, name, &Attribute< Orla::Entity >::call, arguments, result );
}

AttrResult attributeInsert( Orla::Entity & entity, std::string_view name, AttrArguments arguments, std::any & result ) {
   return invoke( entity, name, &Attribute< Orla::Entity >::insert, arguments, result );
}

AttrResult attributeDel( Orla::Entity & entity, std::string_view name, AttrArguments arguments, std::any & result ) {
   return invoke( entity, name, &Attribute< Orla::Entity >::del, arguments, result );
}

}  // namespace Vexa
