// Immutable interned text.
#pragma once

#include <Vexa/CharRange.h>
#include <Vexa/Types.h>

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
   String( String const & other ) : record_( other.record_ ) { take(); }
   String( String && other ) noexcept : record_( std::exchange( other.record_, nullptr ) ) {}
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
      return record_ ? std::string_view( reinterpret_cast< char const * >( record_ + 1 ), record_->length )
                     : std::string_view();
   }
   bool empty() const { return record_ == nullptr; }
   U32 hash( U32 seed ) const;

   friend bool operator==( String const & a, String const & b ) { return a.record_ == b.record_; }
   friend std::strong_ordering operator<=>( String const & a, String const & b ) {
      return a.record_ == b.record_ ? std::strong_ordering::equal : a.text() <=> b.text();
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

   void swap( String & other ) noexcept { std::swap( record_, other.record_ ); }
   void take() const {
      if ( record_ ) {
         ++record_->referenceCount;
      }
   }
   void drop() const {
      if ( record_ && --record_->referenceCount == 0 ) {
         forget( record_ );
      }
   }
   static Record const * intern( std::string_view text );
   static void forget( Record const * record );

   friend struct StringTable;

   Record const * record_ = nullptr;
};

}  // namespace Orla
