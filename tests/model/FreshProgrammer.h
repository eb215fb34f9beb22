// What a programmer would be like that was handed its configuration just now.
#pragma once

#include <tests/support/Programmer.h>

namespace Model {

// Rows, results and NAT ids in which `programmer`, at rest, differs from a new one with the same configuration; which
// numbers the ids have does not matter.
Support::Lines differencesFromFresh( Support::Programmer const & programmer );

}  // namespace Model
