// Files of text.
#pragma once

#include <string>
#include <string_view>

namespace Agent {

// The name of the file that a process is handed at its start.
inline constexpr std::string_view standardInput = "-";

// Throws UnusableInput when the file cannot be read.
std::string textOfFile( std::string const & file );

}  // namespace Agent
