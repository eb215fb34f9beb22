#include <Vexa/Assert.h>

#include <Trace/RingTrace.h>

#include <cstdlib>
#include <iostream>

namespace [[gnu::visibility( "default" )]] Vexa {

namespace {

constexpr std::size_t ringLinesShown = 32;

}  // namespace

void stop( char const * text ) {
   std::cerr << text << '\n';
   for ( auto const & line : Trace::RingTrace::defaultHandle().lastLines( ringLinesShown ) ) {
      std::cerr << "  " << line << '\n';
   }
   std::cerr.flush();
   std::abort();
}

}  // namespace Vexa
