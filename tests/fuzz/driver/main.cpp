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

namespace {

namespace fs = std::filesystem;

// In the order of their names, so that two runs of one corpus agree.
std::vector< fs::path > inputsBelow( fs::path const & place ) {
   if ( !fs::is_directory( place ) )
      return { place };
   std::vector< fs::path > files;
   for ( auto const & item : fs::recursive_directory_iterator( place ) ) {
      if ( item.is_regular_file() )
         files.push_back( item.path() );
   }
   std::sort( files.begin(), files.end() );
   return files;
}

// The name goes out first: when the target stops the process, the last line tells the input.
bool runInput( fs::path const & file ) {
   std::ifstream stream( file, std::ios::binary );
   if ( !stream ) {
      std::cerr << "cannot read " << file << '\n';
      return false;
   }
   std::cout << file.string() << std::endl;
   std::vector< char > const bytes( std::istreambuf_iterator< char >( stream ), {} );
   LLVMFuzzerTestOneInput( reinterpret_cast< std::uint8_t const * >( bytes.data() ), bytes.size() );
   return true;
}

}  // namespace

int main( int argc, char ** argv ) {
   std::size_t ran = 0;
   for ( int i = 1; i < argc; ++i ) {
      for ( auto const & file : inputsBelow( argv[ i ] ) ) {
         if ( !runInput( file ) )
            return 1;
         ++ran;
      }
   }
   if ( ran == 0 ) {
      std::cerr << "no input to run: give files, or folders that hold some\n";
      return 1;
   }
   std::cout << ran << " inputs ran\n";
   return 0;
}
