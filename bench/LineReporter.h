// One line per case: case=static-add n=30000 ns=.. floor_ns=.. ratio=.. allocs=.. bytes=..
#pragma once

#include <benchmark/benchmark.h>

namespace Bench {

class LineReporter : public benchmark::BenchmarkReporter {
 public:
   bool ReportContext( Context const & ) override { return true; }
   void ReportRuns( std::vector< Run > const & runs ) override;

   bool anyFailed() const { return anyFailed_; }

 private:
   bool anyFailed_ = false;
};

}  // namespace Bench
