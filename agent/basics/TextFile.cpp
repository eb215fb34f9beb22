#include "agent/basics/TextFile.h"

#include "agent/basics/UnusableInput.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include <unistd.h>

namespace Agent {

std::string textOfFile( std::string const & file ) {
   constexpr std::size_t chunk = 1U << 16;
   constexpr std::size_t largest = std::size_t{ 1 } << 30;  // not all that can be named ends
   bool const isStandardInput = file == standardInput;
   std::unique_ptr< std::FILE, int ( * )( std::FILE * ) > const in(
      isStandardInput ? fdopen( dup( STDIN_FILENO ), "rb" ) : std::fopen( file.c_str(), "rb" ), &std::fclose );
   std::error_code unknown;  // of what is no regular file
   auto const size = isStandardInput ? 0 : std::filesystem::file_size( file, unknown );
   std::string text;
   text.reserve( unknown ? 0 : std::min< std::size_t >( size, largest ) + chunk );
   for ( std::size_t taken = chunk; in && taken == chunk; ) {
      auto const before = text.size();
      text.resize( before + chunk );
      taken = std::fread( text.data() + before, 1, chunk, in.get() );
      text.resize( before + taken );
      if ( text.size() > largest ) {
         throw UnusableInput( file + ": is too large; allowed: at most 1 GiB" );
      }
   }
   if ( !in || std::ferror( in.get() ) ) {
      throw UnusableInput( file + ": cannot be read: " + std::strerror( errno ) );
   }
   return text;
}

}  // namespace Agent
