// The agent as a command.
#pragma once

namespace Agent {

// Runs the command. Returns the exit status: 0 everything is programmed and every row accepted, 1 something was not, or
// a packet's way is not certain, 2 the input cannot be used, 3 standard output cannot be written.
int run( int argumentCount, char ** arguments );

}  // namespace Agent
