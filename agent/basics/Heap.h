// The heap of a process that is about to program a large configuration.
#pragma once

namespace Agent {

// Keeps to itself what the process gives back, and has the kernel map it in huge pages where it can. A large
// configuration takes tens of thousands of small pages otherwise, whose faults are a quarter of all its time. Once, at
// the start.
void prepareHeap();

}  // namespace Agent
