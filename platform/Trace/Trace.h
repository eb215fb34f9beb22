// Text traces: one handle per source unit, lines at fixed levels, nothing evaluated while a level is off.
#pragma once

#include <Vexa/Types.h>
#include <Vexa/Value.h>

#include <functional>
#include <sstream>
#include <string>
#include <string_view>

namespace [[gnu::visibility( "default" )]] Trace {

// Receives every line of every handle, without its end of line.
using Sink = std::function< void( std::string_view handleName, U8 level, std::string const & line ) >;

// The level of all handles; lines up to it are written. 0, the default, switches the text traces off.
extern U8 enabledLevel;
void enabledLevelIs( U8 level );

// Where lines go; standard error as "name level line" until set. An empty sink restores that.
void sinkIs( Sink sink );

class Handle {
 public:
   explicit Handle( std::string_view name ) : name_( name ) {}

   std::string_view name() const { return name_; }

   // Writes the parts with nothing between or after them. Kept out of the functions that trace, whose frames would all
   // hold a stream.
   template< class... Parts > [[gnu::noinline, gnu::cold]] void line( U8 level, Parts const &... parts ) const {
      std::ostringstream out;
      ( Vexa::write( out, parts ), ... );
      deliver( level, std::move( out ).str() );
   }

 private:
   void deliver( U8 level, std::string const & line ) const;

   std::string_view name_;
};

}  // namespace Trace

// Neither the handle nor the parts are evaluated while the level is off.
#define TRACE( handle, level, ... )                                                                                    \
   do {                                                                                                                \
      if ( ::Trace::enabledLevel >= ( level ) ) [[unlikely]] {                                                         \
         ( handle ).line( ( level ), __VA_ARGS__ );                                                                    \
      }                                                                                                                \
   } while ( false )
