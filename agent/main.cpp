#include "agent/CommandLine.h"
#include "agent/basics/Heap.h"

#include <initializer_list>

#include <fcntl.h>
#include <unistd.h>

namespace {

// A file that is opened while one of these is closed would take its place, and what is meant for people would go there.
// What takes it cannot be written instead, nor read.
void occupyStandardStreams() {
   for ( int const stream : { STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO } ) {
      if ( fcntl( stream, F_GETFD ) < 0 ) {
         static_cast< void >( open( "/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY ) );
      }
   }
}

}  // namespace

int main( int argumentCount, char ** arguments ) {
   occupyStandardStreams();
   Agent::prepareHeap();
   return Agent::run( argumentCount, arguments );
}
