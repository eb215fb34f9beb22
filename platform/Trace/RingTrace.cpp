#include <Trace/RingTrace.h>

#include <algorithm>
#include <sstream>

namespace [[gnu::visibility( "default" )]] Trace {

RingTrace::~RingTrace() {
   for ( auto & slot : slots_ ) {
      slot.clear();
   }
}

RingTrace & RingTrace::defaultHandle() {
   static auto * const ring = new RingTrace;
   return *ring;
}

std::vector< std::string > RingTrace::lastLines( std::size_t count ) const {
   auto const shown = std::min( { count, written_, capacity } );
   std::vector< std::string > lines;
   lines.reserve( shown );
   for ( auto i = written_ - shown; i < written_; ++i ) {
      auto const & slot = slots_[ i % capacity ];
      if ( slot.kind ) {
         std::ostringstream out;
         slot.kind->write( out, slot.parts.data() );
         lines.push_back( std::move( out ).str() );
      }
   }
   return lines;
}

}  // namespace Trace
