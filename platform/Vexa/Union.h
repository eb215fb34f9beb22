// Tagged unions: std::variant plus one table of names in the same order.
#pragma once

#include <Vexa/Value.h>

#include <cstddef>
#include <utility>
#include <variant>

namespace [[gnu::visibility( "default" )]] Vexa {

// `Names` gives typeName, shortName (for error texts) and alternativeName[], one per alternative in order.
//
// Compared by the alternative's index first (no alternative before all others), then by the alternative; an object
// equals itself without a look at what it holds. Text form: Value('<typeName>', <alternativeName>=<its text>).
template< class Names, class... Alternatives > class Union {
 public:
   using Storage = std::variant< Alternatives... >;
   static_assert( std::size( Names::alternativeName ) == sizeof...( Alternatives ) );

   Union() = default;
   template< class T >
      requires( ... || std::same_as< T, Alternatives > )
   Union( T const & alternative ) : storage_( alternative ) {}

   // Takes the text form from the front of the range.
   // Throws ParseException or RangeException; those of the alternative's parser carry the alternative's name.
   explicit Union( CharRange & text );

   // The index of the alternative held; -1 after a failed assignment.
   signed char tag() const { return static_cast< signed char >( storage_.index() ); }

   template< class T > bool contains() const { return std::holds_alternative< T >( storage_ ); }

   // Throws BadUnionAccessException while another alternative is held.
   template< class T > T const & get() const {
      if ( auto const * const held = std::get_if< T >( &storage_ ) ) {
         return *held;
      }
      throw BadUnionAccessException( std::string( Names::shortName ) + " holds another alternative" );
   }

   Storage const & storage() const { return storage_; }

   // The index as a 4-byte signed step, then the alternative's own hash with seed 0.
   U32 hash( U32 seed ) const {
      Hash result( seed );
      result.mix( static_cast< U32 >( int{ tag() } ) );
      if ( !storage_.valueless_by_exception() ) {
         result.mix( std::visit( []( auto const & held ) { return Vexa::hash( held, 0 ); }, storage_ ) );
      }
      return result.result();
   }

   friend bool operator==( Union const & a, Union const & b ) { return &a == &b || a.storage_ == b.storage_; }
   friend std::strong_ordering operator<=>( Union const & a, Union const & b ) {
      return &a == &b ? std::strong_ordering::equal : a.storage_ <=> b.storage_;
   }

   void appendTo( std::string & text ) const {
      text.append( "Value('" ).append( Names::typeName ) += '\'';
      if ( !storage_.valueless_by_exception() ) {
         text.append( ", " ).append( Names::alternativeName[ storage_.index() ] ) += '=';
         std::visit( [ & ]( auto const & held ) { append( text, held ); }, storage_ );
      }
      text += ')';
   }
   friend std::ostream & operator<<( std::ostream & out, Union const & value ) {
      std::string text;
      value.appendTo( text );
      return out << text;
   }

 protected:
   template< class T > void assign( T const & alternative ) { storage_ = alternative; }

 private:
   // False when the alternative has another name than the text begins with.
   template< std::size_t index > bool parseAlternative( std::string_view name, CharRange & text ) {
      if ( name != Names::alternativeName[ index ] ) {
         return false;
      }
      text.advance( name.size() + 1 );
      try {
         storage_.template emplace< index >( parse< std::variant_alternative_t< index, Storage > >( text ) );
      } catch ( Exception const & ) {
         rethrowFromDeserializeAttr( Names::alternativeName[ index ].data() );
      }
      return true;
   }

   // False when no alternative has the name.
   template< std::size_t... index >
   bool parseNamed( std::string_view name, CharRange & text, std::index_sequence< index... > ) {
      return ( parseAlternative< index >( name, text ) || ... );
   }

   Storage storage_;
};

template< class Names, class... Alternatives > Union< Names, Alternatives... >::Union( CharRange & text ) {
   text.require( "Value('" );
   text.require( Names::typeName );
   text.require( "'" );
   text.require( ", " );
   auto const rest = text.rest();
   if ( rest.empty() ) {
      throw RangeException( "Invalid string rep for " + std::string( Names::shortName ) );
   }
   auto const equals = rest.find( '=' );
   auto const name = rest.substr( 0, equals );
   bool const parsed = equals != rest.npos && parseNamed( name, text, std::index_sequence_for< Alternatives... >{} );
   if ( !parsed ) {
      throw RangeException( "Invalid string rep for " + std::string( Names::shortName ) + ":  unknown alternative " +
                            std::string( name ) );
   }
   text.require( ")" );
}

}  // namespace Vexa
