// Measures the programmer against the floor (Floor.h), per connection.
//
// A line per case and, with --benchmark_out=FILE, the same as JSON. Times are processor time per operation, the median
// of rounds in which system and floor take turns in one process; ratio is the median of the rounds' ratios, min_ratio
// that of the two shortest times. Only ratios of one run can be compared with one another.
// allocs and bytes are calls of operator new and live heap bytes per operation, counted in the first round of a fresh
// process, when no free list holds anything.
//
//    nat-bench [--configuration=FILE] [--benchmark_filter=REGEX] [--benchmark_out=FILE]
//
// The case of the agent needs a configuration file, and nat-agent where it was built.
#include "Heap.h"
#include "LineReporter.h"
#include "Questions.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string_view>

int main( int argc, char ** argv ) {
   Bench::keepHeapPages();
   Bench::registerStaticConnections();
   Bench::registerKindsOfRules();
   Bench::registerChurn();
   Bench::registerBulkOperations();
   Bench::registerUpdates();
   Bench::registerRestart();
   Bench::registerNatIds();
   Bench::registerKeys();
   Bench::registerInterfaceMode();

   benchmark::Initialize( &argc, argv );
   constexpr std::string_view configuration = "--configuration=";
   if ( argc > 1 && std::string_view( argv[ 1 ] ).starts_with( configuration ) ) {
      Bench::registerAgent( argv[ 1 ] + configuration.size() );
      argv[ 1 ] = argv[ 0 ];
      ++argv;
      --argc;
   }
   if ( benchmark::ReportUnrecognizedArguments( argc, argv ) ) {
      return EXIT_FAILURE;
   }
   Bench::LineReporter reporter;
   auto const run = benchmark::RunSpecifiedBenchmarks( &reporter );
   return run == 0 || reporter.anyFailed() ? EXIT_FAILURE : EXIT_SUCCESS;
}
