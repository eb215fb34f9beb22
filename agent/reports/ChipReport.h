// What the agent shows of a chip in the kernel, whether or not a process uses it.
#pragma once

#include "agent/basics/Report.h"

#include <string>

namespace Agent {

// Tables with rows, room and packets; what was missed, dropped and trapped; where programs are attached; the age of the
// last write. False: there is no chip of that state folder. Throws UnusableInput.
bool reportKernelChip( Report & report, std::string const & stateFolder, std::string const & bpffs );

}  // namespace Agent
