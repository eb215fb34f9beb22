// Immutable interned text.
#pragma once

#include <Vexa/CharRange.h>
#include <Vexa/Hash.h>
#include <Vexa/Types.h>

#include <array>
#include <bit>
#include <compare>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

namespace [[gnu::visibility( "default" )]] Orla {

// One pointer to a text that all equal strings share: copying is a count, equality is a comparison of pointers. Hash
// and order are those of the text, so neither depends on addresses. The empty string is the null pointer.
// In values' texts a string stands between single quotes; quotes, backslashes and control characters are escaped.
class String {
 public:
   String() = default;
   String( std::string_view text );
   String( char const * text ) : String( std::string_view( text ) ) {}
   explicit String( Vexa::CharRange & quoted );
   String( String const & other ) : halves_( other.halves_ ) { take(); }
   String( String && other ) noexcept : halves_( std::exchange( other.halves_, {} ) ) {}
   ~String() { drop(); }
   String & operator=( String const & other ) {
      String( other ).swap( *this );
      return *this;
   }
   String & operator=( String && other ) noexcept {
      String( std::move( other ) ).swap( *this );
      return *this;
   }

   std::string_view text() const {
      auto const * const held = record();
      return held ? std::string_view( reinterpret_cast< char const * >( held + 1 ), held->length ) : std::string_view();
   }
   bool empty() const { return record() == nullptr; }
   U32 hash( U32 seed ) const {
      Vexa::Hash hash( seed );
      hash.mix( empty() ? 0 : record()->textHash );
      return hash.result();
   }

   friend bool operator==( String const & a, String const & b ) { return a.record() == b.record(); }
   friend std::strong_ordering operator<=>( String const & a, String const & b ) {
      return a.record() == b.record() ? std::strong_ordering::equal : a.text() <=> b.text();
   }
   void appendTo( std::string & out ) const;
   friend std::ostream & operator<<( std::ostream & out, String const & string );

 private:
   // The characters follow the record in the same allocation.
   struct Record {
      mutable U32 referenceCount;
      U32 length;
      U32 textHash;
   };

   explicit String( Record const * record ) : halves_( std::bit_cast< Halves >( record ) ) {}

   Record const * record() const { return std::bit_cast< Record const * >( halves_ ); }
   void swap( String & other ) noexcept { std::swap( halves_, other.halves_ ); }
   void take() const {
      if ( auto const * const held = record() ) {
         ++held->referenceCount;
      }
   }
   void drop() const {
      if ( auto const * const held = record(); held && --held->referenceCount == 0 ) {
         forget( held );
      }
   }
   static Record const * intern( std::string_view text );
   static void forget( Record const * record );

   friend struct StringTable;

   // The pointer, in units of four bytes: keys of many rows hold a string among shorter members, and are as strictly
   // aligned as it is.
   using Halves = std::array< U32, sizeof( Record const * ) / sizeof( U32 ) >;
   Halves halves_{};
};

}  // namespace Orla
