// Two tables with numbers for keys and contents: matches refer to rewrites, and to other matches as their twins.
#pragma once

#include <Asic/SwTable.h>
#include <Vexa/Ranged.h>

#include <ostream>
#include <string_view>

namespace Support {

struct RowNumberTraits {
   using Raw = U16;
   static constexpr U64 min = 0;
   static constexpr U64 max = 999;
   static constexpr char rangeError[] = "no such row";
};
using RowNumber = Vexa::Ranged< RowNumberTraits >;

struct Rewrite : Asic::EntryBase {
   U32 data = 0;
   friend std::ostream & operator<<( std::ostream & out, Rewrite const & entry ) { return out << entry.data; }
};

struct Match : Asic::ReferringEntry {
   U32 data = 0;
   friend std::ostream & operator<<( std::ostream & out, Match const & entry ) { return out << entry.data; }
};

struct RewriteTableTraits {
   using Key = RowNumber;
   using Entry = Rewrite;
   static constexpr std::string_view tableName = "rewrite";
   static constexpr std::string_view typeName = "Support::RewriteTable";
   static constexpr U32 hashConstant = 0x12345678;
};
struct MatchTableTraits {
   using Key = RowNumber;
   using Entry = Match;
   static constexpr std::string_view tableName = "match";
   static constexpr std::string_view typeName = "Support::MatchTable";
   static constexpr U32 hashConstant = 0x87654321;
};
using RewriteTable = Asic::SwTable< RewriteTableTraits >;
using MatchTable = Asic::SwTable< MatchTableTraits >;

}  // namespace Support
