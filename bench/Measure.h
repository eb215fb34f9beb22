// How the benchmarks measure: paired rounds, medians, one process per case.
#pragma once

#include <array>
#include <cstddef>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace Bench {

// Named figures of one case. "ns" is the time per operation.
using Figures = std::map< std::string, double >;

// How many connections the cases of connections program.
constexpr std::array< std::size_t, 3 > connectionCounts{ 1000, 8000, 30'000 };

// Processor time of this thread; unlike the clock on the wall it leaves out what other processes took.
class Stopwatch {
 public:
   Stopwatch() : start_( now() ) {}
   double ns() const { return now() - start_; }

 private:
   static double now() {
      timespec time{};
      clock_gettime( CLOCK_THREAD_CPUTIME_ID, &time );
      return static_cast< double >( time.tv_sec ) * 1e9 + static_cast< double >( time.tv_nsec );
   }
   double start_;
};

// One round does `operations` operations once and returns how long they took in ns; what prepares and clears away is
// left out.
using Round = std::function< double() >;

// Runs `system` and `reference` in turn, who goes first alternating, one unmeasured pair before. Per operation: ns and
// floor_ns, their medians; ratio, the median of the pairs' ratios; min_ratio, the ratio of the two shortest times.
Figures pairedRounds( std::size_t operations, Round const & system, Round const & reference );

// The same with the reference's figures named <name>_ns and <name>_ratio; for rounds that are not compared with the
// floor.
Figures pairedRounds( std::size_t operations, Round const & system, Round const & reference, std::string const & name );

double median( std::vector< double > values );

// Figures of a process of its own that calls run(); empty when it did not come to its end.
Figures inOwnProcess( std::function< Figures() > const & run );

// Registers a case. It runs in a process of its own, forked before anything was programmed, so that no case finds the
// free lists filled or the heap scattered by another one. `n` goes to the name: case/n.
void caseIs( std::string const & name, std::size_t n, std::function< Figures() > run );

}  // namespace Bench
