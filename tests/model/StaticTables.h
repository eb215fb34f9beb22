// What static rules must leave in the tables, told without the programmer, and what is there.
#pragma once

#include <tests/support/Programmer.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Model {

using Support::Lines;
using Support::StaticEntry;
using Support::StaticKey;
using IngressKey = Pfe::IngStaticNatTable::Key;

struct Rule {
   StaticKey key;
   StaticEntry entry;
};

bool isMulticast( Rule const & rule );
// The ingress keys of whole packets, in the order in which they are programmed.
std::vector< IngressKey > rowsOf( Rule const & rule );
IngressKey twinOf( IngressKey key );
Pfe::NatMatchKey matchKeyOf( IngressKey const & key );

// --- Contents of rows ------------------------------------------------------------------------------------------------

enum class RewriteTable : U8 { source, destination, copies };

struct RewriteKey {
   RewriteTable table;
   U32 natId;
   U16 number;  // qualifier or replication
   friend auto operator<=>( RewriteKey const &, RewriteKey const & ) = default;
};

struct Rewrite {
   Netix::IpAndPort source;
   Netix::IpAndPort destination;
   U32 egressIntf = 0;
   friend bool operator==( Rewrite const &, Rewrite const & ) = default;
};

struct Match {
   std::vector< RewriteKey > rewrites;
   std::optional< IngressKey > twin;
   U32 nextHopId = 0;
   U32 aclId = 0;
   std::vector< Ip::Nat::NatFilter > filters;
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

// The tables of static rules at one moment.
struct Snapshot {
   explicit Snapshot( Support::Tables const & tables );

   std::map< IngressKey, Seen< Match > > matches;
   std::map< RewriteKey, Seen< Rewrite > > rewrites;
   // What no moment allows: references to rows that are gone, rows in the hardware without their rewrite.
   Lines faults;
};

// --- What must be there ----------------------------------------------------------------------------------------------

// The rows, rewrites and NAT ids that programmed rules need, and all that was ever asked for rows that are still there.
class ExpectedTables {
 public:
   // Programs the rule. False when the id pool runs out on the way; what was written until then is recorded.
   bool program( Rule const & rule, bool fragmentationEnabled );
   void remove( Rule const & rule );

   // Settled removals: ids that no row holds any more are free.
   void catchUp( Snapshot const & seen );
   // The tables are dropped; ids stay.
   void clear();

   // Ids that are not to be handed out although nobody holds them.
   std::set< U32 > blockedIds;
   std::map< Pfe::NatMatchKey, U32 > ids;

   // Compares after any step, and once more when nothing is outstanding.
   void check( Snapshot const & seen, Pfe::NatIdManager const & manager, Lines & faults ) const;
   void checkAtRest( Snapshot const & seen, Lines & faults ) const;

   static constexpr U32 largestId = 250;  // of all that a history needs

 private:
   std::optional< U32 > allocate( Pfe::NatMatchKey const & matchKey );
   bool write( Rule const & rule, IngressKey const & key, std::optional< IngressKey > const & twin );
   void checkIds( Snapshot const & seen, Pfe::NatIdManager const & manager, Lines & faults ) const;

   std::set< IngressKey > wanted_;  // rows for whole packets
   // Contents asked for since the row came up, the newest last.
   std::map< IngressKey, std::vector< Match > > matches_;
   std::map< RewriteKey, std::vector< Rewrite > > rewrites_;
   std::map< Orla::String, U32 > aclIds_;
};

}  // namespace Model
