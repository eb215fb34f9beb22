// What does a static rule on one interface cost in interface mode, when it is alone there, when thirty interfaces share
// it, and when one rule is on thirty VLANs or on every VLAN? The floor of all: the same entries and who feeds them, in
// bare flat maps, with the users of each VLAN counted in place, so that no step walks over the others.
#include "Heap.h"
#include "Measure.h"
#include "Questions.h"
#include "Rules.h"
#include "System.h"

#include "PfeNat/PfeNatProgrammerIntfModeSm.h"

#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/unordered/unordered_flat_set.hpp>

#include <array>
#include <string>

namespace Bench {

namespace {

struct Workload {
   std::size_t rules;
   std::size_t interfaces;

   std::size_t count() const { return rules * interfaces; }
   std::size_t entries() const { return rules * ( 1 + interfaces ); }
};

// Each rule on VLAN 1, then each on VLAN 2, and so on.
StaticRules rulesOf( Workload const & workload ) {
   StaticRules result;
   result.reserve( workload.count() );
   auto const onOne = staticRules( workload.rules, workload.rules );
   for ( std::size_t vlanId = 1; vlanId <= workload.interfaces; ++vlanId ) {
      auto const natIntf = *Netix::IntfId::fromName( "vlan" + std::to_string( vlanId ) );
      for ( auto const & rule : onOne ) {
         Pfe::NatProgrammerStaticEntry::Fields fields;
         fields.vlanId = static_cast< U16 >( vlanId );
         fields.connection = rule.entry->connection();
         result.push_back(
            { { natIntf, rule.key.key }, Orla::make< Pfe::NatProgrammerStaticEntry const >( std::move( fields ) ) } );
      }
   }
   return result;
}

// For all rules, in ns.
struct Times {
   double add;
   double del;
};

class IntfModeSystem {
 public:
   void add( StaticRules const & rules ) { configure( *config_, rules ); }
   void del( StaticRules const & rules ) {
      for ( auto const & rule : rules ) {
         config_->staticEntryDel( rule.key );
      }
   }
   std::size_t entries() const { return swTableConfig_->staticEntry().count(); }

 private:
   Pfe::NatProgrammerConfig::Ptr config_ = Orla::make< Pfe::NatProgrammerConfig >();
   Pfe::NatSwTableConfig::Ptr swTableConfig_ = Orla::make< Pfe::NatSwTableConfig >();
   Pfe::NatProgrammerIntfModeSm::Ptr programmer_ = Pfe::NatProgrammerIntfModeSmIs(
      config_, Orla::make< Pfe::NatProgrammerStatus >(), swTableConfig_, Orla::make< Pfe::NatSwTableStatus >() );
};

std::array< Pfe::NatSwTableStaticKey, 2 > swTableKeysOf( StaticRule const & rule ) {
   auto const & connection = rule.entry->connection();
   Netix::IpAndPort const keyPair{ rule.key.key.ip, rule.key.key.port };
   bool const isSource = connection.target == Ip::Nat::NatTarget::source;
   Pfe::NatSwTableStaticKey forward;
   forward.ipAndPortOld = isSource ? keyPair : connection.translated;
   forward.ipAndPortNew = isSource ? connection.translated : keyPair;
   forward.protocol = connection.protocol;
   auto reverse = forward;
   std::swap( reverse.ipAndPortOld, reverse.ipAndPortNew );
   reverse.vlanId = Bridging::VlanIdOrNone( rule.entry->vlanId() );
   reverse.reverse = true;
   return { forward, reverse };
}

class FloorEntries {
 public:
   void add( StaticRules const & rules ) {
      for ( auto const & rule : rules ) {
         auto const keys = swTableKeysOf( rule );
         feeds_.insert_or_assign( rule.key, keys );
         for ( auto const & key : keys ) {
            feeders_[ key ].insert( rule.key );
            ++entries_[ key ][ rule.entry->vlanId() ];
         }
      }
   }

   void del( StaticRules const & rules ) {
      for ( auto const & rule : rules ) {
         for ( auto const & key : feeds_.at( rule.key ) ) {
            auto const found = feeders_.find( key );
            found->second.erase( rule.key );
            if ( found->second.empty() ) {
               feeders_.erase( found );
               entries_.erase( key );
            } else if ( auto & users = entries_.at( key ); --users.at( rule.entry->vlanId() ) == 0 ) {
               users.erase( rule.entry->vlanId() );
            }
         }
         feeds_.erase( rule.key );
      }
   }

   std::size_t entries() const { return entries_.size(); }

 private:
   template< class Key, class Value, U32 seed >
   using Map = boost::unordered_flat_map< Key, Value, Vexa::KeyHash< Key, seed > >;
   using Feeders =
      boost::unordered_flat_set< Pfe::NatProgrammerStaticKey, Vexa::KeyHash< Pfe::NatProgrammerStaticKey, 3 > >;
   using VlanUsers = boost::unordered_flat_map< U16, U32 >;

   Map< Pfe::NatProgrammerStaticKey, std::array< Pfe::NatSwTableStaticKey, 2 >, 1 > feeds_;
   Map< Pfe::NatSwTableStaticKey, Feeders, 2 > feeders_;
   Map< Pfe::NatSwTableStaticKey, VlanUsers, 4 > entries_;
};

template< class Entries > Times roundOf( Workload const & workload, StaticRules const & rules ) {
   Entries entries;
   Stopwatch const adding;
   entries.add( rules );
   auto const added = adding.ns();
   require( entries.entries() == workload.entries(), "there is an entry per rule, and one more per VLAN" );
   Stopwatch const deleting;
   entries.del( rules );
   auto const deleted = deleting.ns();
   require( entries.entries() == 0, "no entry is left" );
   return { added, deleted };
}

enum class Operation { add, del };
double timeOf( Operation operation, Times const & times ) {
   return operation == Operation::add ? times.add : times.del;
}

HeapUse heapOfConfiguration( StaticRules const & rules ) {
   auto const config = Orla::make< Pfe::NatProgrammerConfig >();
   HeapWatch const heap;
   configure( *config, rules );
   return heap.used();
}

// Per rule and interface.
Figures interfaceFigures( Workload const & workload, Operation operation ) {
   auto const rules = rulesOf( workload );
   auto const alone = heapOfConfiguration( rules );
   HeapUse added, deleted;
   {
      IntfModeSystem system;
      HeapWatch const heap;
      system.add( rules );
      added = heap.used();
      system.del( rules );
      deleted = heap.used();
   }
   auto figures = pairedRounds(
      workload.count(), [ & ] { return timeOf( operation, roundOf< IntfModeSystem >( workload, rules ) ); },
      [ & ] { return timeOf( operation, roundOf< FloorEntries >( workload, rules ) ); } );
   auto const count = static_cast< double >( workload.count() );
   bool const isAdd = operation == Operation::add;
   figures[ "allocs" ] =
      static_cast< double >( isAdd ? added.allocations - alone.allocations : deleted.allocations - added.allocations ) /
      count;
   figures[ "bytes" ] = static_cast< double >( isAdd ? added.liveBytes - alone.liveBytes : deleted.liveBytes ) / count;
   return figures;
}

}  // namespace

void registerInterfaceMode() {
   struct {
      char const * name;
      Workload workload;
   } const cases[] = { { "interface", { .rules = connectionCounts.back(), .interfaces = 1 } },
                       { "interface-shared", { .rules = 1000, .interfaces = 30 } },
                       { "interface-one-rule", { .rules = 1, .interfaces = 30 } },
                       { "interface-one-rule", { .rules = 1, .interfaces = Bridging::VlanId::max } } };
   for ( auto const & [ name, workload ] : cases ) {
      caseIs( std::string( name ) + "-add", workload.count(),
              [ = ] { return interfaceFigures( workload, Operation::add ); } );
      caseIs( std::string( name ) + "-delete", workload.count(),
              [ = ] { return interfaceFigures( workload, Operation::del ); } );
   }
}

}  // namespace Bench
