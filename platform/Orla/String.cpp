#include <Orla/String.h>

#include <Vexa/Exception.h>
#include <Vexa/Hash.h>

#include <boost/unordered/unordered_flat_set.hpp>

#include <cstring>
#include <new>
#include <string>

namespace [[gnu::visibility( "default" )]] Orla {

namespace {

U32 hashOfText( std::string_view text ) {
   Vexa::Hash hash( 0 );
   hash.mix( static_cast< U32 >( text.size() ) );  // the last step is filled up with zeros, which the text may hold too
   for ( ; !text.empty(); text.remove_prefix( std::min< std::size_t >( text.size(), 4 ) ) ) {
      U32 step = 0;
      std::memcpy( &step, text.data(), std::min< std::size_t >( text.size(), 4 ) );
      hash.mix( step );
   }
   return hash.result();
}

constexpr std::string_view hexDigits = "0123456789abcdef";

bool isControl( char c ) { return static_cast< unsigned char >( c ) < 0x20 || c == 0x7f; }

}  // namespace

// Every text in use, found by its characters.
struct StringTable {
   using Record = String::Record;

   static std::string_view textOf( Record const * record ) {
      return { reinterpret_cast< char const * >( record + 1 ), record->length };
   }

   struct TextHash {
      using is_transparent = void;
      std::size_t operator()( Record const * record ) const { return record->textHash; }
      std::size_t operator()( std::string_view text ) const { return hashOfText( text ); }
   };
   struct TextEqual {
      using is_transparent = void;
      bool operator()( Record const * a, Record const * b ) const { return a == b; }
      bool operator()( Record const * record, std::string_view text ) const { return textOf( record ) == text; }
      bool operator()( std::string_view text, Record const * record ) const { return textOf( record ) == text; }
   };

   boost::unordered_flat_set< Record const *, TextHash, TextEqual > records;

   // Never destroyed: strings in static storage may outlive any order of destruction.
   static StringTable & instance() {
      static auto * const table = new StringTable;
      return *table;
   }
};

String::String( std::string_view text ) : String( text.empty() ? nullptr : intern( text ) ) {}

String::String( Vexa::CharRange & quoted ) {
   quoted.require( "'" );
   auto const text = quoted.rest();
   std::string plain;
   std::size_t i = 0;
   for ( ; i < text.size() && text[ i ] != '\''; ++i ) {
      if ( text[ i ] != '\\' ) {
         plain += text[ i ];
      } else if ( i + 1 < text.size() && ( text[ i + 1 ] == '\\' || text[ i + 1 ] == '\'' ) ) {
         plain += text[ ++i ];
      } else if ( i + 3 < text.size() && text[ i + 1 ] == 'x' && hexDigits.find( text[ i + 2 ] ) != hexDigits.npos &&
                  hexDigits.find( text[ i + 3 ] ) != hexDigits.npos ) {
         plain += static_cast< char >( hexDigits.find( text[ i + 2 ] ) * 16 + hexDigits.find( text[ i + 3 ] ) );
         i += 3;
      } else {
         throw Vexa::ParseException( "unknown escape in a quoted text" );
      }
   }
   if ( i == text.size() ) {
      throw Vexa::ParseException( "quoted text without its closing quote" );
   }
   quoted.advance( i + 1 );
   *this = String( plain );
}

void String::appendTo( std::string & out ) const {
   out += '\'';
   for ( char const c : text() ) {
      if ( isControl( c ) ) {
         auto const byte = static_cast< unsigned char >( c );
         ( out.append( "\\x" ) += hexDigits[ byte / 16 ] ) += hexDigits[ byte % 16 ];
      } else {
         out.append( c == '\'' || c == '\\' ? "\\" : "" ) += c;
      }
   }
   out += '\'';
}

std::ostream & operator<<( std::ostream & out, String const & string ) {
   std::string quoted;
   string.appendTo( quoted );
   return out << quoted;
}

String::Record const * String::intern( std::string_view text ) {
   auto & records = StringTable::instance().records;
   if ( auto const known = records.find( text ); known != records.end() ) {
      ++( *known )->referenceCount;
      return *known;
   }
   void * const memory = ::operator new( sizeof( Record ) + text.size() );
   auto * const record = new ( memory ) Record{ 1, static_cast< U32 >( text.size() ), hashOfText( text ) };
   std::memcpy( record + 1, text.data(), text.size() );
   records.insert( record );
   return record;
}

void String::forget( Record const * record ) {
   StringTable::instance().records.erase( record );
   ::operator delete( const_cast< Record * >( record ) );
}

}  // namespace Orla
