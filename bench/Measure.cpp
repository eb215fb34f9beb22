#include "Measure.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

namespace {

// Enough for a steady median, in about a second per case.
std::size_t roundsFor( std::size_t operations ) { return std::clamp< std::size_t >( 400'000 / operations, 15, 101 ); }

std::string readAll( int file ) {
   std::string text;
   char part[ 4096 ];
   for ( ssize_t count = 0; ( count = read( file, part, sizeof( part ) ) ) > 0; ) {
      text.append( part, static_cast< std::size_t >( count ) );
   }
   return text;
}

[[noreturn]] void runAndTell( std::function< Figures() > const & run, int file ) {
   std::ostringstream out;
   out.precision( 17 );
   for ( auto const & [ name, value ] : run() ) {
      out << name << ' ' << value << '\n';
   }
   auto const text = std::move( out ).str();
   auto const written = write( file, text.data(), text.size() );
   // Nothing of the parent's is to be flushed or destroyed here.
   _exit( written == static_cast< ssize_t >( text.size() ) ? EXIT_SUCCESS : EXIT_FAILURE );
}

}  // namespace

Figures inOwnProcess( std::function< Figures() > const & run ) {
   std::fflush( nullptr );
   int ends[ 2 ];
   if ( pipe( ends ) != 0 ) {
      return {};
   }
   auto const child = fork();
   if ( child == 0 ) {
      close( ends[ 0 ] );
      runAndTell( run, ends[ 1 ] );
   }
   close( ends[ 1 ] );
   std::istringstream text( readAll( ends[ 0 ] ) );
   close( ends[ 0 ] );
   int status = 0;
   if ( child < 0 || waitpid( child, &status, 0 ) != child || !WIFEXITED( status ) || WEXITSTATUS( status ) != 0 ) {
      return {};
   }
   Figures figures;
   std::string name;
   for ( double value = 0; text >> name >> value; ) {
      figures[ name ] = value;
   }
   return figures;
}

double median( std::vector< double > values ) {
   auto const middle = values.begin() + static_cast< std::ptrdiff_t >( values.size() / 2 );
   std::ranges::nth_element( values, middle );
   return *middle;
}

Figures pairedRounds( std::size_t operations, Round const & system, Round const & reference ) {
   std::vector< double > systemNs;
   std::vector< double > referenceNs;
   std::vector< double > ratios;
   auto const rounds = roundsFor( operations );
   for ( std::size_t i = 0; i <= rounds; ++i ) {
      bool const systemFirst = i % 2 == 0;
      auto const first = systemFirst ? system() : reference();
      auto const second = systemFirst ? reference() : system();
      if ( i > 0 ) {
         systemNs.push_back( ( systemFirst ? first : second ) / static_cast< double >( operations ) );
         referenceNs.push_back( ( systemFirst ? second : first ) / static_cast< double >( operations ) );
         ratios.push_back( systemNs.back() / referenceNs.back() );
      }
   }
   return { { "ns", median( systemNs ) },
            { "floor_ns", median( referenceNs ) },
            { "ratio", median( ratios ) },
            { "min_ratio", std::ranges::min( systemNs ) / std::ranges::min( referenceNs ) },
            { "rounds", static_cast< double >( rounds ) } };
}

Figures pairedRounds( std::size_t operations, Round const & system, Round const & reference,
                      std::string const & name ) {
   auto const figures = pairedRounds( operations, system, reference );
   return { { "ns", figures.at( "ns" ) },
            { name + "_ns", figures.at( "floor_ns" ) },
            { name + "_ratio", figures.at( "ratio" ) },
            { "min_ratio", figures.at( "min_ratio" ) },
            { "rounds", figures.at( "rounds" ) } };
}

void caseIs( std::string const & name, std::size_t n, std::function< Figures() > run ) {
   auto const measure = [ run = std::move( run ) ]( benchmark::State & state ) {
      auto const figures = inOwnProcess( run );
      auto const ns = figures.find( "ns" );
      if ( ns == figures.end() ) {
         state.SkipWithError( "the case's process failed" );
         return;
      }
      for ( [[maybe_unused]] auto const _ : state ) {
         state.SetIterationTime( ns->second * 1e-9 );
      }
      state.counters.insert( figures.begin(), figures.end() );
   };
   benchmark::RegisterBenchmark( ( name + '/' + std::to_string( n ) ).c_str(), measure )
      ->Iterations( 1 )
      ->UseManualTime()
      ->Unit( benchmark::kNanosecond );
}

}  // namespace Bench
