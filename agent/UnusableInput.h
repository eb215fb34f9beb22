// Input that the agent cannot use. It says why, programs nothing and changes nothing.
#pragma once

#include <stdexcept>

namespace Agent {

// The text is one line per fault, each naming the file or option, the place in it, the value and what is allowed.
class UnusableInput : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

}  // namespace Agent
