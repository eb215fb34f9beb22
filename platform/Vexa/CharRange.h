// A piece of text being parsed: parsers take what they understand from its front and leave the rest to the caller.
#pragma once

#include <string_view>

namespace [[gnu::visibility( "default" )]] Vexa {

class CharRange {
 public:
   explicit CharRange( std::string_view text ) : rest_( text ) {}

   std::string_view rest() const { return rest_; }
   bool empty() const { return rest_.empty(); }
   void advance( std::size_t count ) { rest_.remove_prefix( count ); }

   // Takes `literal` from the front. Throws ParseException, and takes nothing, when the text begins otherwise.
   void require( std::string_view literal );

   // Throws ParseException unless everything has been taken.
   void requireEnd() const;

 private:
   std::string_view rest_;
};

}  // namespace Vexa
