#include "agent/configuration/JsonDocument.h"

#include "agent/basics/UnusableInput.h"

#include <boost/json/basic_parser_impl.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdint>
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

// Appends the values that a parser finds.
class JsonDocument::Builder {
 public:
   explicit Builder( JsonDocument & document ) : document_( document ) {
      constexpr std::size_t usualBytesPerValue = 20;
      document_.nodes_.clear();
      document_.nodes_.reserve( document_.text_.size() / usualBytesPerValue + 1 );
      document_.copies_.clear();
   }

 protected:
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
      open_.push_back( static_cast< U32 >( document_.nodes_.size() ) );
      return add( kind, 0 );
   }

   bool close() {
      document_.nodes_[ open_.back() ].end = static_cast< U32 >( document_.nodes_.size() );
      open_.pop_back();
      return true;
   }

   bool nameNext( U64 place ) {
      name_ = place;
      return true;
   }

   bool copy( std::string_view part ) {
      document_.copies_ += part;
      return true;
   }

   // Of the last `length` bytes that were copied.
   U64 placeOfCopy( std::size_t length ) const {
      return U64{ document_.text_.size() + document_.copies_.size() - length } << 32 | length;
   }

   JsonDocument & document_;

 private:
   U64 name_ = 0;
   std::vector< U32 > open_;
};

// Receives the events of Boost's parser, which takes a seventh of the other's time. It does not say where and why it
// refuses a text, reads no byte order mark and nests no deeper than 32 levels, so what it refuses is left to the other.
// So are numbers that no member can hold.
class JsonDocument::Reader : private Builder {
   using Text = boost::json::string_view;
   using Error = boost::json::error_code;

 public:
   // False: the other parser is to read the text, from the start.
   static bool read( JsonDocument & document ) {
      boost::json::basic_parser< Reader > parser( {}, document );
      Error error;
      return parser.write_some( false, document.text_.data(), document.text_.size(), error ) == document.text_.size() &&
             !error;
   }

   explicit Reader( JsonDocument & document ) : Builder( document ) {}

   static constexpr auto max_array_size = std::numeric_limits< std::size_t >::max();
   static constexpr auto max_object_size = max_array_size;
   static constexpr auto max_string_size = max_array_size;
   static constexpr auto max_key_size = max_array_size;

   bool on_document_begin( Error & ) { return true; }
   bool on_document_end( Error & ) { return true; }
   bool on_object_begin( Error & ) { return open( Kind::object ); }
   bool on_object_end( std::size_t, Error & ) { return close(); }
   bool on_array_begin( Error & ) { return open( Kind::list ); }
   bool on_array_end( std::size_t, Error & ) { return close(); }
   bool on_key_part( Text part, std::size_t, Error & ) { return copy( part ); }
   bool on_key( Text rest, std::size_t length, Error & ) { return nameNext( placeOf( rest, length ) ); }
   bool on_string_part( Text part, std::size_t, Error & ) { return copy( part ); }
   bool on_string( Text rest, std::size_t length, Error & ) { return add( Kind::text, placeOf( rest, length ) ); }
   bool on_number_part( Text, Error & ) { return true; }
   bool on_int64( std::int64_t value, Text written, Error & error ) {
      return written.front() == '-' ? leave( error ) : add( Kind::number, static_cast< U64 >( value ) );
   }
   bool on_uint64( U64 value, Text, Error & ) { return add( Kind::number, value ); }
   bool on_double( double, Text, Error & error ) { return leave( error ); }
   bool on_bool( bool value, Error & ) { return add( Kind::boolean, value ); }
   bool on_null( Error & ) { return add( Kind::null, 0 ); }
   bool on_comment_part( Text, Error & error ) { return leave( error ); }
   bool on_comment( Text, Error & error ) { return leave( error ); }

 private:
   static bool leave( Error & error ) {
      error = boost::json::error::not_exact;
      return false;
   }

   // A text without escapes comes in one piece, and that is a piece of the file.
   U64 placeOf( Text rest, std::size_t length ) {
      auto const at = reinterpret_cast< std::uintptr_t >( rest.data() ) -
                      reinterpret_cast< std::uintptr_t >( document_.text_.data() );
      if ( rest.size() == length && at < document_.text_.size() ) {
         return U64{ at } << 32 | length;
      }
      copy( rest );
      return placeOfCopy( length );
   }
};

// Receives the events of nlohmann's parser, which reads everything and says what is wrong.
class JsonDocument::ExplainingReader : private Builder {
 public:
   static void read( JsonDocument & document ) {
      ExplainingReader reader( document );
      nlohmann::json::sax_parse( document.text_.begin(), document.text_.end(), &reader );
   }

   explicit ExplainingReader( JsonDocument & document ) : Builder( document ) {}

   bool null() { return add( Kind::null, 0 ); }
   bool boolean( bool value ) { return add( Kind::boolean, value ); }
   bool number_unsigned( U64 value ) { return add( Kind::number, value ); }
   bool number_integer( std::int64_t value ) { return add( Kind::otherNumber, kept( std::to_string( value ) ) ); }
   bool number_float( double, std::string const & written ) { return add( Kind::otherNumber, kept( written ) ); }
   bool string( std::string const & value ) { return add( Kind::text, kept( value ) ); }
   bool binary( std::vector< U8 > const & ) { return false; }  // not in texts
   bool key( std::string const & name ) { return nameNext( kept( name ) ); }
   bool start_object( std::size_t ) { return open( Kind::object ); }
   bool start_array( std::size_t ) { return open( Kind::list ); }
   bool end_object() { return close(); }
   bool end_array() { return close(); }

   bool parse_error( std::size_t position, std::string const &, std::exception const & error ) {
      auto const place = placeInText( document_.text_, std::max< std::size_t >( position, 1 ) );
      throw UnusableInput( document_.file_ + ": " + place + ": " + withoutPreamble( error.what() ) );
   }

 private:
   U64 kept( std::string_view text ) {
      copy( text );
      return placeOfCopy( text.size() );
   }
};

JsonDocument::JsonDocument( std::string file, std::string_view text ) : file_( std::move( file ) ), text_( text ) {
   // Copies never take more than what they were copied from, and all places have 32 bits.
   if ( text.size() > std::numeric_limits< U32 >::max() / 2 ) {
      throw UnusableInput( file_ + ": " + std::to_string( text.size() ) + " bytes; allowed: less than 2 GiB" );
   }
   if ( !Reader::read( *this ) ) {
      ExplainingReader::read( *this );
   }
}

std::string JsonDocument::Value::pointer() const {
   std::string pointer;
   for ( Value at = document_->root(); at.place_ != place_; ) {
      std::size_t position = 0;
      Value next = at;
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
