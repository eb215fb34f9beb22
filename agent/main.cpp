#include "agent/CommandLine.h"

#include <malloc.h>

int main( int argumentCount, char ** arguments ) {
   // What the agent gives back it needs again at once: to have it unmapped, and mapped again page by page, costs a
   // tenth of all time with a large configuration.
   constexpr int never = 1 << 30;
   mallopt( M_MMAP_THRESHOLD, never );
   mallopt( M_TRIM_THRESHOLD, never );
   mallopt( M_TOP_PAD, 16 << 20 );
   return Agent::run( argumentCount, arguments );
}
