// What the benchmarks ask; one file each, which registers its cases.
#pragma once

#include <cstddef>
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
void registerKernelConntrack();
// With a configuration file of that many connections.
void registerAgent( std::string const & file, std::size_t connections );
void registerReload( std::string const & file, std::size_t connections );

}  // namespace Bench
