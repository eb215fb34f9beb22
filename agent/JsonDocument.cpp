#include "agent/JsonDocument.h"

#include "agent/UnusableInput.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

namespace Agent {

namespace {

constexpr std::size_t excerptLength = 60;

// What the parser has to say, without its own name, its error number and the place, which is told in front.
std::string withoutPreamble( std::string_view text ) {
   if ( auto const bracket = text.find( "] " ); bracket != text.npos ) {
      text.remove_prefix( bracket + 2 );
   }
   if ( text.starts_with( "parse error at " ) ) {
      text.remove_prefix( text.find( ": " ) + 2 );
   }
   std::string told( text );
   std::ranges::replace_if(
      told, []( char c ) { return static_cast< unsigned char >( c ) >= 0x80; }, '?' );
   return told;
}

// As JSON, so that nothing in it disturbs a terminal; a character that is cut in two is replaced.
std::string quoted( std::string_view text ) {
   return nlohmann::json( text ).dump( -1, ' ', false, nlohmann::json::error_handler_t::replace );
}

// `position` counts characters from 1.
std::string placeInText( std::string_view text, std::size_t position ) {
   auto const before = text.substr( 0, position - 1 );
   auto const line = 1 + std::ranges::count( before, '\n' );
   auto const column = position - ( before.rfind( '\n' ) + 1 );
   return "line " + std::to_string( line ) + ", column " + std::to_string( column );
}

}  // namespace

// Receives the parser's events.
class JsonDocument::Builder {
 public:
   Builder( JsonDocument & document, std::string_view text ) : document_( document ), text_( text ) {}

   bool null() { return add( Kind::null, 0 ); }
   bool boolean( bool value ) { return add( Kind::boolean, value ); }
   bool number_unsigned( U64 value ) { return add( Kind::number, value ); }
   bool number_integer( std::int64_t value ) { return add( Kind::otherNumber, kept( std::to_string( value ) ) ); }
   bool number_float( double, std::string const & raw ) { return add( Kind::otherNumber, kept( raw ) ); }
   bool string( std::string const & value ) { return add( Kind::text, kept( value ) ); }
   bool binary( std::vector< U8 > const & ) { return false; }  // not in texts

   bool key( std::string const & name ) {
      name_ = kept( name );
      return true;
   }
   bool start_object( std::size_t ) { return open( Kind::object ); }
   bool start_array( std::size_t ) { return open( Kind::list ); }
   bool end_object() { return close(); }
   bool end_array() { return close(); }

   bool parse_error( std::size_t position, std::string const &, std::exception const & error ) {
      auto const place = placeInText( text_, std::max< std::size_t >( position, 1 ) );
      throw UnusableInput( document_.file_ + ": " + place + ": " + withoutPreamble( error.what() ) );
   }

 private:
   // A text never becomes longer when its escapes are resolved, so all texts together fit into as much as the file.
   U64 kept( std::string_view text ) {
      std::memcpy( document_.texts_.get() + used_, text.data(), text.size() );
      auto const place = U64{ used_ } << 32 | text.size();
      used_ += static_cast< U32 >( text.size() );
      return place;
   }

   bool add( Kind kind, U64 value ) {
      auto const name = std::exchange( name_, 0 );
      auto & nodes = document_.nodes_;
      nodes.push_back( { .kind = kind,
                         .end = static_cast< U32 >( nodes.size() ) + 1,
                         .nameAt = static_cast< U32 >( name >> 32 ),
                         .nameLength = static_cast< U32 >( name ),
                         .value = value } );
      return true;
   }

   bool open( Kind kind ) {
      add( kind, 0 );
      open_.push_back( static_cast< U32 >( document_.nodes_.size() ) - 1 );
      return true;
   }

   bool close() {
      document_.nodes_[ open_.back() ].end = static_cast< U32 >( document_.nodes_.size() );
      open_.pop_back();
      return true;
   }

   JsonDocument & document_;
   std::string_view text_;
   U32 used_ = 0;
   U64 name_ = 0;
   std::vector< U32 > open_;
};

JsonDocument::JsonDocument( std::string file, std::string_view text )
   : file_( std::move( file ) ), texts_( std::make_unique_for_overwrite< char[] >( text.size() ) ) {
   if ( text.size() > std::numeric_limits< U32 >::max() ) {
      throw UnusableInput( file_ + ": " + std::to_string( text.size() ) + " bytes; allowed: less than 4 GiB" );
   }
   constexpr std::size_t usualBytesPerValue = 24;
   nodes_.reserve( text.size() / usualBytesPerValue + 1 );
   Builder builder( *this, text );
   nlohmann::json::sax_parse( text.begin(), text.end(), &builder );
}

std::string JsonDocument::Value::pointer() const {
   std::string pointer;
   for ( Value at = document_->root(); at.place_ != place_; ) {
      std::size_t position = 0;
      Value next;
      at.forEach( [ & ]( Value child ) {
         if ( child.place_ <= place_ ) {
            next = child;
            ++position;
         }
      } );
      pointer += '/';
      if ( at.kind() == Kind::list ) {
         pointer += std::to_string( position - 1 );
      }
      auto const name = quoted( next.name() );
      for ( char const c : std::string_view( name ).substr( 1, name.size() - 2 ) ) {
         pointer += c == '~' ? "~0" : c == '/' ? "~1" : std::string( 1, c );
      }
      at = next;
   }
   return pointer;
}

std::string JsonDocument::Value::quotedName() const { return quoted( name() ); }

std::string JsonDocument::Value::excerpt() const {
   switch ( kind() ) {
   case Kind::null: return "null";
   case Kind::boolean: return flag() ? "true" : "false";
   case Kind::number: return std::to_string( number() );
   case Kind::otherNumber: return std::string( text() );
   case Kind::list: return "a list";
   case Kind::object: return "an object";
   case Kind::text: break;
   }
   return quoted( text().substr( 0, excerptLength ) ) + ( text().size() > excerptLength ? "..." : "" );
}

}  // namespace Agent
