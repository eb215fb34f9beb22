// Broken invariants stop the agent, in release builds too.
#pragma once

namespace [[gnu::visibility( "default" )]] Vexa {

// Writes `text`, then the last lines of the ring trace, to standard error and aborts.
[[noreturn, gnu::cold]] void stop( char const * text );

}  // namespace Vexa

// Stops with the condition as it is written in the source: the text is behaviour, the blanks in it included.
// The diagnostic that a literal compared with nullptr would raise is meant for code, not for a message.
#define VEXA_ASSERT( ... )                                                                                             \
   do {                                                                                                                \
      _Pragma( "GCC diagnostic push" );                                                                                \
      _Pragma( "GCC diagnostic ignored \"-Waddress\"" );                                                               \
      if ( !( __VA_ARGS__ ) ) [[unlikely]] {                                                                           \
         ::Vexa::stop( #__VA_ARGS__ );                                                                                 \
      }                                                                                                                \
      _Pragma( "GCC diagnostic pop" );                                                                                 \
   } while ( false )
