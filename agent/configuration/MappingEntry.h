// One mapping entry of a configuration file.
#pragma once

#include "agent/configuration/Configuration.h"
#include "agent/configuration/JsonMembers.h"

#include <map>
#include <memory>
#include <string_view>

namespace Agent {

// By name.
using McastGroups = std::map< std::string_view, std::shared_ptr< McastGroup const > >;

// Reads an entry and makes the connection of it that it stands for. Throws UnusableInput for what is no entry, and for
// what no connection can express: nothing is guessed, nothing passed over.
Connection takeMappingEntry( JsonValue value, McastGroups const & groups );

}  // namespace Agent
