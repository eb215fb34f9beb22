#include <Trace/Trace.h>

#include <iostream>
#include <utility>

namespace [[gnu::visibility( "default" )]] Trace {

constinit U8 enabledLevel = 0;

namespace {

Sink & currentSink() {
   static Sink sink;
   return sink;
}

}  // namespace

void enabledLevelIs( U8 level ) { enabledLevel = level; }

void sinkIs( Sink sink ) { currentSink() = std::move( sink ); }

void Handle::deliver( U8 level, std::string const & line ) const {
   if ( auto const & sink = currentSink() ) {
      sink( name_, level, line );
   } else {
      std::cerr << name_ << ' ' << +level << ' ' << line << '\n';
   }
}

}  // namespace Trace
