#include "agent/CommandLine.h"
#include "agent/basics/Heap.h"

int main( int argumentCount, char ** arguments ) {
   Agent::prepareHeap();
   return Agent::run( argumentCount, arguments );
}
