// Listings of the Linux tool conntrack: `conntrack -L`, also with `-o extended`, `id`, `timestamp` and `labels`.
#pragma once

#include "agent/configuration/Configuration.h"
#include "agent/learning/LearnedConnection.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

// The translated connections of a listing. Timeouts do not matter: what the kernel still knows is taken.
struct ConntrackListing {
   struct Learned {
      U32 line;
      LearnedConnection connection;
   };
   // An entry that is no dynamic connection.
   struct PassedOver {
      U32 line;
      NotLearned reason;
      U32 other;          // line of the connection whose rows it would derive; 0: none
      std::string entry;  // as listed
   };

   std::string file;
   std::vector< Learned > learned;  // both in the order of the lines, which count from 1
   std::vector< PassedOver > passedOver;

   std::size_t passedOverFor( NotLearned reason ) const;
   // For people, in lines: how many were learned; then one per reason, with the number of entries and the lines of the
   // first ones.
   std::string summary() const;
};

// Reads a file. Every key and row of what is learned is claimed, under the number of its line.
// Throws UnusableInput when the file cannot be read, or with one line per malformed line: file, line, column, what
// stands there and what is allowed. Claims are of no use then.
ConntrackListing conntrackListingFrom( std::string const & file, RowClaims & claims );

// The same of a text; `file` only names it.
ConntrackListing conntrackListing( std::string file, std::string_view text, RowClaims & claims );

// Reads a file and adds what is learned to the configuration, whose own dynamic connections keep their keys and rows.
// Before the rules are programmed: NAT ids that were kept for the connections are given up otherwise. Throws
// UnusableInput as above; nothing was added then.
ConntrackListing learnFrom( std::string const & file, Configuration & configuration, NatInterface const & intf );

}  // namespace Agent
