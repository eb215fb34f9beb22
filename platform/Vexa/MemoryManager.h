// The process's memory manager, as far as plug-ins talk to it.
#pragma once

#include <string>

namespace [[gnu::visibility( "default" )]] Vexa {

// The name under which the agent's memory is accounted. Null, as without a name: empty.
void memoryManagerAgentNameIs( char const * name );
std::string const & memoryManagerAgentName();

}  // namespace Vexa
