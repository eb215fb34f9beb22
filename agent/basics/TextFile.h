// Files of text.
#pragma once

#include <string>

namespace Agent {

// Throws UnusableInput when the file cannot be read.
std::string textOfFile( std::string const & file );

}  // namespace Agent
