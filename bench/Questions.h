// What the benchmarks ask; one file each, which registers its cases.
#pragma once

namespace Bench {

void registerStaticConnections();
void registerUpdates();
void registerRestart();
void registerNatIds();
void registerKeys();

}  // namespace Bench
