#include "agent/configuration/JsonDocument.h"

#include "agent/basics/Json.h"
#include "agent/basics/UnusableInput.h"

#include <boost/json/basic_parser_impl.hpp>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <utility>

namespace Agent {

namespace {

constexpr std::size_t excerptLength = 60;
constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

char const * dotsBehind( std::string_view text ) { return text.size() > excerptLength ? "..." : ""; }

// As JSON, so that nothing in it disturbs a terminal; a character that is cut in two is replaced.
std::string quoted( std::string_view text ) {
   return lineOf( Json( text.substr( 0, excerptLength ) ) ) + dotsBehind( text );
}

std::string placeInText( std::string_view text, std::size_t at ) {
   auto const before = text.substr( 0, at );
   auto const line = 1 + std::ranges::count( before, '\n' );
   auto const column = at - ( before.rfind( '\n' ) + 1 ) + 1;
   return "line " + std::to_string( line ) + ", column " + std::to_string( column );
}

// What may follow a text that is JSON as far as it goes. `top`: the kind of the innermost container that is open, null:
// none.
std::string allowedBehind( std::string_view text, JsonDocument::Kind top, bool isBehindName, bool isBehindNumber ) {
   bool isInText = false;
   char last = 0;
   std::size_t wordLength = 0;
   for ( std::size_t i = 0; i < text.size(); ++i ) {
      auto const c = text[ i ];
      bool const isBlank = std::string_view( " \t\r\n" ).find( c ) != std::string_view::npos;
      bool const isInWord = !isInText && !isBlank && std::string_view( "{}[],:\"" ).find( c ) == std::string_view::npos;
      wordLength = isInWord ? wordLength + 1 : 0;
      last = isInText || isBlank ? last : c;
      if ( isInText && c == '\\' ) {
         ++i;
      } else if ( c == '"' ) {
         isInText = !isInText;
      }
   }
   auto const word = text.substr( text.size() - std::min( wordLength, text.size() ) );
   bool const isObject = top == JsonDocument::Kind::object;
   if ( isInText ) {
      return "UTF-8 without control characters, and escapes, up to a closing quote";
   }
   if ( !word.empty() && !isBehindNumber && word != "true" && word != "false" && word != "null" ) {
      return "a number, true, false or null";
   }
   switch ( last ) {
   case '{': return "a name in quotes, or '}'";
   case '[': return "a value, or ']'";
   case ',': return isObject ? "a name in quotes" : "a value";
   case ':':
   case 0: return "a value";
   default: break;
   }
   if ( isBehindName ) {
      return "':'";
   }
   return isObject ? "',' or '}'" : top == JsonDocument::Kind::list ? "',' or ']'" : "nothing more";
}

}  // namespace

// Appends the values of a text as Boost's parser finds them.
class JsonDocument::Reader {
   using Text = boost::json::string_view;
   using Error = boost::json::error_code;

 public:
   static void read( JsonDocument & document ) {
      auto const text = document.text_;
      boost::json::basic_parser< Reader > parser( { .max_depth = mostLevels }, document );
      auto const skipped = text.starts_with( byteOrderMark ) ? byteOrderMark.size() : 0;
      Error error;
      auto const end = skipped + parser.write_some( false, text.data() + skipped, text.size() - skipped, error );
      if ( error || end != text.size() ) {
         parser.handler().explain( skipped, end, error );
      }
   }

   explicit Reader( JsonDocument & document ) : document_( document ) {
      // More than there can be. Memory is taken as it is written to.
      document_.nodes_.reserve( document_.text_.size() / 2 + mostLevels );
   }

   static constexpr auto max_array_size = std::numeric_limits< std::size_t >::max();
   static constexpr auto max_object_size = max_array_size;
   static constexpr auto max_string_size = max_array_size;
   static constexpr auto max_key_size = max_array_size;

   static bool on_document_begin( Error & ) { return true; }
   static bool on_document_end( Error & ) { return true; }
   bool on_object_begin( Error & ) { return open( Kind::object ); }
   bool on_object_end( std::size_t, Error & ) { return close(); }
   bool on_array_begin( Error & ) { return open( Kind::list ); }
   bool on_array_end( std::size_t, Error & ) { return close(); }
   bool on_key_part( Text part, std::size_t, Error & ) { return copy( part ); }
   bool on_key( Text rest, std::size_t length, Error & ) { return addText( Kind::name, rest, length ); }
   bool on_string_part( Text part, std::size_t, Error & ) { return copy( part ); }
   bool on_string( Text rest, std::size_t length, Error & ) { return addText( Kind::text, rest, length ); }
   static bool on_number_part( Text, Error & ) { return true; }
   bool on_int64( std::int64_t value, Text written, Error & ) {
      return addWritten( value < 0 ? Kind::otherNumber : Kind::number, written );
   }
   bool on_uint64( U64, Text written, Error & ) { return addWritten( Kind::number, written ); }
   bool on_double( double, Text written, Error & ) { return addWritten( Kind::otherNumber, written ); }
   bool on_bool( bool value, Error & ) { return add( Kind::boolean, value ? 1 : 0 ); }
   bool on_null( Error & ) { return add( Kind::null ); }
   static bool on_comment_part( Text, Error & ) { return false; }  // not in RFC 8259
   static bool on_comment( Text, Error & ) { return false; }

 private:
   bool add( Kind kind, std::size_t at = 0, std::size_t size = 0 ) {
      document_.nodes_.emplace_back( kind, size, at );
      return true;
   }

   bool open( Kind kind ) {
      open_.push_back( document_.nodes_.size() );
      return add( kind );
   }

   bool close() {
      auto & nodes = document_.nodes_;
      nodes[ open_.back() ] = { nodes[ open_.back() ].kind(), nodes.size(), 0 };
      open_.pop_back();
      return true;
   }

   bool copy( Text part ) {
      document_.copies_.append( part.data(), part.size() );
      return true;
   }

   std::size_t placeInFile( Text part ) const {
      return reinterpret_cast< std::uintptr_t >( part.data() ) -
             reinterpret_cast< std::uintptr_t >( document_.text_.data() );
   }

   bool addWritten( Kind kind, Text written ) { return add( kind, placeInFile( written ), written.size() ); }

   // A text without escapes comes in one piece, and that is a piece of the file.
   bool addText( Kind kind, Text rest, std::size_t length ) {
      if ( rest.size() == length && placeInFile( rest ) < document_.text_.size() ) {
         return addWritten( kind, rest );
      }
      copy( rest );
      return add( kind, document_.text_.size() + document_.copies_.size() - length, length );
   }

   [[noreturn]] void explain( std::size_t start, std::size_t at, Error const & error ) const {
      auto const & nodes = document_.nodes_;
      auto const text = document_.text_;
      auto const last = nodes.empty() ? Node( Kind::null, 0, 0 ) : nodes.back();
      bool const isNumber = last.kind() == Kind::number || last.kind() == Kind::otherNumber;
      auto const allowed = error == boost::json::error::too_deep
                              ? std::to_string( mostLevels ) + " levels of lists and objects in each other"
                              : allowedBehind( text.substr( start, at - start ),
                                               open_.empty() ? Kind::null : nodes[ open_.back() ].kind(),
                                               last.kind() == Kind::name, isNumber && last.at() + last.size() == at );
      auto const found = at < text.size() ? quoted( text.substr( at, 1 ) ) + " is no part of JSON" : "the text ends";
      throw UnusableInput( document_.file_ + ": " + placeInText( text, at ) + ": " + found +
                           " here; allowed: " + allowed );
   }

   JsonDocument & document_;
   std::vector< std::size_t > open_;  // the containers, by their places among the nodes
};

JsonDocument::JsonDocument( std::string file, std::string_view text ) : file_( std::move( file ) ), text_( text ) {
   if ( text.size() > Node::largestSize ) {
      throw UnusableInput( file_ + ": " + std::to_string( text.size() ) + " bytes; allowed: less than 512 MiB" );
   }
   Reader::read( *this );
}

U64 JsonDocument::Value::number() const {
   auto const written = text();
   U64 number = 0;
   std::from_chars( written.data(), written.data() + written.size(), number );
   return number;
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
      auto name = quoted( next.name() );
      name.erase( name.rfind( '"' ), 1 ).erase( 0, 1 );
      for ( char const c : name ) {
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
   case Kind::otherNumber: return std::string( text().substr( 0, excerptLength ) ) + dotsBehind( text() );
   case Kind::list: return "a list";
   case Kind::object: return "an object";
   case Kind::text:
   case Kind::name: break;
   }
   return quoted( text() );
}

}  // namespace Agent
