// Runs a fuzz target over recorded inputs where libFuzzer is not linked: every file given, and every file below every
// folder given. Finding nothing to run is a failure, so a lost corpus cannot pass for a good one.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput( std::uint8_t const * data, std::size_t size );

int main( int argc, char ** argv ) {
   namespace fs = std::filesystem;
   std::vector< fs::path > files;
   for ( int i = 1; i < argc; ++i ) {
      if ( fs::is_directory( argv[ i ] ) ) {
         std::copy( fs::recursive_directory_iterator( argv[ i ] ), {}, std::back_inserter( files ) );
      } else {
         files.emplace_back( argv[ i ] );
      }
   }
   std::erase_if( files, []( fs::path const & file ) { return fs::is_directory( file ); } );
   std::sort( files.begin(), files.end() );  // so that two runs of one corpus agree
   for ( auto const & file : files ) {
      // The name goes out first: when the target stops the process, the last line tells the input.
      std::cout << file.string() << std::endl;
      std::ifstream stream( file, std::ios::binary );
      std::vector< char > const bytes( std::istreambuf_iterator< char >( stream ), {} );
      if ( !stream ) {
         std::cerr << "cannot be read\n";
         return 1;
      }
      LLVMFuzzerTestOneInput( reinterpret_cast< std::uint8_t const * >( bytes.data() ), bytes.size() );
   }
   std::cout << files.size() << " inputs ran\n";
   return files.empty();
}
