// The rows of a static connection, and what became of it.
#pragma once

#include "agent/Host.h"

#include <IpNat/NatStatic.h>
#include <Pfe/IngStaticNatTable.h>

#include <string>
#include <string_view>

namespace Agent {

struct ConnectionState {
   bool programmed = false;
   std::string_view result;     // in a word
   std::string reason;          // empty when it is programmed
   std::string natIds;          // of the connection's own target, then of the replies, with a blank between
   std::string fragmentNatIds;  // of the later fragments in these directions; other connections may share them
};

// At rest.
ConnectionState stateOf( StaticConnection const & connection, Host const & host );

// The entry of the file that derives the row; null when none does, as for fragment rows, which entries share.
StaticConnection const * connectionOf( Pfe::IngStaticNatTable::Key const & row, Configuration const & configuration );

}  // namespace Agent
