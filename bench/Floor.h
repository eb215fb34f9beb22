// The floor: the same rows as the system keeps, written into bare flat maps and nothing else. What a benchmark costs
// beyond it is what the system does around its rows.
//
// A static unicast connection is eleven rows, with the system's own key types and hash functions and plain values:
//
//    2 ingress rows          ingress key -> key of the rewrite, next hop, access list
//    2 rewrites              (NAT id, qualifier) -> addresses and ports, one table per side
//    2 NAT ids               match key -> NAT id
//    2 holders of them       match key -> ingress key
//    1 status                rule -> result and the entry that it was reached for
//    2 completions           ingress key -> the rule and its entry: whom a settled write reports to
//
// Adding derives the keys from the rule and inserts the rows, ids counted up; deleting derives the keys again and
// erases the rows by them. There is no configuration, no queue, no pool of free ids, no count of holders, no trace.
// What the floor does not do on purpose: keep keys to save deriving them, or reserve room for all rows beforehand.
#pragma once

#include "Rules.h"

#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <boost/unordered/unordered_flat_map.hpp>

namespace Bench {

class Floor {
 public:
   void add( StaticRules const & rules );
   // Writes the rows of rules that were added once more: other values, the same keys and NAT ids.
   void update( StaticRules const & rules );
   void del( StaticRules const & rules );

   std::size_t rows() const;

 private:
   template< class Key, class Value, U32 seed >
   using Map = boost::unordered_flat_map< Key, Value, Vexa::KeyHash< Key, seed > >;

   struct IngressRow {
      Pfe::EgrNatUcRewriteKey rewrite;
      U32 nextHopId;
      U32 aclId;
   };
   struct Rewrite {
      Netix::IpAddr srcIp;
      Netix::IpAddr dstIp;
      U16 srcPort;
      U16 dstPort;
   };
   struct Status {
      PfeHelper::NatHwResult result;
      Pfe::NatProgrammerStaticEntry const * entry;
   };
   struct Completion {
      Pfe::NatProgrammerStaticKey rule;
      Pfe::NatProgrammerStaticEntry const * entry;
   };
   using Rewrites = Map< Pfe::EgrNatUcRewriteKey, Rewrite, 3 >;

   void add( StaticRule const & rule );
   void update( StaticRule const & rule );
   void del( StaticRule const & rule );
   void directionIs( StaticRule const & rule, Pfe::IngStaticNatTable::Key const & ingKey, Pfe::NatId natId );
   Rewrites & rewritesOf( Ip::Nat::NatTarget side );

   Map< Pfe::IngStaticNatTable::Key, IngressRow, 2 > ingress_;
   Rewrites sourceRewrites_;
   Rewrites destinationRewrites_;
   Map< Pfe::NatMatchKey, Pfe::NatId, 4 > natIds_;
   Map< Pfe::NatMatchKey, Pfe::IngNatTableKey, 5 > holders_;
   Map< Pfe::NatProgrammerStaticKey, Status, 6 > status_;
   Map< Pfe::IngStaticNatTable::Key, Completion, 7 > completions_;
   U64 lastNatId_ = 0;
};

}  // namespace Bench
