// What the benchmarks ask; one file each, which registers its cases.
#pragma once

#include <string>

namespace Bench {

void registerStaticConnections();
void registerKindsOfRules();
void registerChurn();
void registerBulkOperations();
void registerUpdates();
void registerRestart();
void registerNatIds();
void registerKeys();
void registerInterfaceMode();
// With that configuration file.
void registerAgent( std::string const & file );

}  // namespace Bench
