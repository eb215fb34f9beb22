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
// The cases of the agent need a configuration file, and nat-agent where it was built.
#include "Heap.h"
#include "LineReporter.h"
#include "Measure.h"
#include "Questions.h"
#include "System.h"

#include "agent/configuration/Configuration.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <string_view>

namespace {

// Read in a process of its own, so that no case finds its traces in the heap.
std::size_t connectionsIn( std::string const & file ) {
   auto const read = Bench::inOwnProcess( [ & ] {
      auto const connections = Agent::configurationFrom( file ).connections.size();
      return Bench::Figures{ { "connections", static_cast< double >( connections ) } };
   } );
   Bench::require( read.contains( "connections" ), "the configuration can be read" );
   return static_cast< std::size_t >( read.at( "connections" ) );
}

}  // namespace

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
   Bench::registerKernelConntrack();

   benchmark::Initialize( &argc, argv );
   constexpr std::string_view configuration = "--configuration=";
   if ( argc > 1 && std::string_view( argv[ 1 ] ).starts_with( configuration ) ) {
      std::string const file( argv[ 1 ] + configuration.size() );
      auto const connections = connectionsIn( file );
      Bench::registerAgent( file, connections );
      Bench::registerReload( file, connections );
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
