// What rules must leave in the tables, told without the programmer, and what is there.
#pragma once

#include "Rules.h"

#include <map>
#include <set>
#include <unordered_map>

namespace Model {

struct Match {
   std::vector< RewriteKey > rewrites;
   std::optional< IngressKey > twin;
   Carried carried;
   friend bool operator==( Match const &, Match const & ) = default;
};

// --- What is there ---------------------------------------------------------------------------------------------------

// A row of which something is left.
template< class Content > struct Seen {
   std::optional< Content > visible;
   std::optional< Content > inHardware;
   Asic::EntryState state = Asic::EntryState::none;
   bool outstanding = false;
   bool removalRefused = false;
};

// The tables at one moment.
struct Snapshot {
   explicit Snapshot( Support::Tables const & tables );

   std::map< IngressKey, Seen< Match > > matches;
   std::map< RewriteKey, Seen< Rewrite > > rewrites;
   // What no moment allows: references to rows that are gone, rows in the hardware without their rewrite.
   Lines faults;

 private:
   template< class Table >
   void readMatches( Table & table, std::unordered_map< Asic::EntryHandle const *, RewriteKey > const & rewriteOf );
};

// --- What must be there ----------------------------------------------------------------------------------------------

// The rows, rewrites and NAT ids that programmed rules need, and all that was ever asked for rows that are still there.
class ExpectedTables {
 public:
   // Programs the rule. False when the id pool runs out on the way; what was written until then is recorded.
   bool program( std::vector< Direction > const & directions, bool fragmentationEnabled );
   void remove( std::vector< Direction > const & directions );

   // Settled removals: ids that no row holds any more are free.
   void catchUp( Snapshot const & seen );
   // The tables are dropped; ids stay.
   void clear();

   // Of those that nobody holds now, the ids behind `last` are not to be handed out.
   void freeIdsAre( U32 last );
   std::map< Pfe::NatMatchKey, U32 > ids;

   // Whether row and rewrites have settled, these last asked for as the direction wants them. Directions that match the
   // same share their rewrites, and the last one writes them.
   bool isAsWanted( Direction const & direction, bool isTwin, Snapshot const & seen ) const;

   // Compares after any step, and once more when nothing is outstanding.
   void check( Snapshot const & seen, Pfe::NatIdManager const & manager, Lines & faults ) const;
   void checkAtRest( Snapshot const & seen, Lines & faults ) const;

   static constexpr U32 largestId = 500;  // of all that a history needs

 private:
   static std::vector< Rewrite > rewritesOf( Direction const & direction, bool isTwin );
   std::set< U32 > takenIds() const;
   std::optional< U32 > allocate( Pfe::NatMatchKey const & matchKey );
   bool write( Direction const & direction, bool isTwin, std::optional< IngressKey > const & twin );
   void checkIds( Snapshot const & seen, Pfe::NatIdManager const & manager, Lines & faults ) const;

   std::set< U32 > blockedIds_;
   std::set< IngressKey > wanted_;  // rows for whole packets
   // Contents asked for since the row came up, the newest last.
   std::map< IngressKey, std::vector< Match > > matches_;
   std::map< RewriteKey, std::vector< Rewrite > > rewrites_;
   std::map< Orla::String, U32 > aclIds_;
};

}  // namespace Model
