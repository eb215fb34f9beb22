#include <Vexa/MemoryManager.h>

namespace [[gnu::visibility( "default" )]] Vexa {

namespace {

// Set while libraries are loaded, so built on first use.
std::string & agentName() {
   static auto * const name = new std::string;
   return *name;
}

}  // namespace

void memoryManagerAgentNameIs( char const * name ) { agentName() = name ? name : ""; }

std::string const & memoryManagerAgentName() { return agentName(); }

}  // namespace Vexa
