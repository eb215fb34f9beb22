#include "LineReporter.h"

#include <array>
#include <cstdio>
#include <ostream>
#include <string>
#include <string_view>

namespace Bench {

namespace {

struct Column {
   std::string_view name;
   int decimals;
};

constexpr std::array columns{ Column{ "ns", 1 },
                              Column{ "floor_ns", 1 },
                              Column{ "ratio", 2 },
                              Column{ "min_ratio", 2 },
                              Column{ "allocs", 3 },
                              Column{ "bytes", 0 },
                              Column{ "config_ns", 1 },
                              Column{ "plain_ns", 1 },
                              Column{ "plain_ratio", 2 },
                              Column{ "fresh_ratio", 2 },
                              Column{ "run_ratio", 2 },
                              Column{ "same_heap_ratio", 2 },
                              Column{ "second_cycle_bytes", 0 },
                              Column{ "ids", 0 },
                              Column{ "static_ns", 1 },
                              Column{ "static_ratio", 2 },
                              Column{ "sum_ns", 1 },
                              Column{ "sum_ratio", 2 },
                              Column{ "batch_ns", 1 },
                              Column{ "batch_ratio", 2 },
                              Column{ "single_ns", 1 },
                              Column{ "single_ratio", 2 },
                              Column{ "read_ns", 1 },
                              Column{ "read_ratio", 2 },
                              Column{ "rows", 0 },
                              Column{ "kernel_ns", 1 },
                              Column{ "kernel_ratio", 2 } };

}  // namespace

void LineReporter::ReportRuns( std::vector< Run > const & runs ) {
   for ( auto const & run : runs ) {
      if ( run.run_type != Run::RT_Iteration ) {
         continue;
      }
      auto const & name = run.run_name.function_name;
      auto const slash = name.rfind( '/' );
      std::string line = "case=" + name.substr( 0, slash );
      if ( slash != name.npos ) {
         line += " n=" + name.substr( slash + 1 );
      }
      if ( run.error_occurred ) {
         anyFailed_ = true;
         line += " error=\"" + run.error_message + '"';
      }
      for ( auto const & column : columns ) {
         auto const counter = run.counters.find( std::string( column.name ) );
         bool const isTime = column.name == "ns";
         if ( run.error_occurred || ( counter == run.counters.end() && !isTime ) ) {
            continue;
         }
         char text[ 64 ];
         std::snprintf( text, sizeof( text ), " %s=%.*f", column.name.data(), column.decimals,
                        isTime ? run.GetAdjustedRealTime() : counter->second.value );
         line += text;
      }
      GetOutputStream() << line << '\n' << std::flush;
   }
}

}  // namespace Bench
