#include <Vexa/CharRange.h>

#include <Vexa/Exception.h>

#include <string>

namespace [[gnu::visibility( "default" )]] Vexa {

namespace {

constexpr std::size_t excerptLength = 40;

std::string excerptOf( std::string_view text ) {
   return text.size() <= excerptLength ? std::string( text ) : std::string( text.substr( 0, excerptLength ) ) + "...";
}

}  // namespace

void CharRange::require( std::string_view literal ) {
   if ( !rest_.starts_with( literal ) ) {
      throw ParseException( "expected \"" + std::string( literal ) + "\" at \"" + excerptOf( rest_ ) + "\"" );
   }
   rest_.remove_prefix( literal.size() );
}

void CharRange::requireEnd() const {
   if ( !rest_.empty() ) {
      throw ParseException( "unexpected text \"" + excerptOf( rest_ ) + "\" at the end" );
   }
}

}  // namespace Vexa
