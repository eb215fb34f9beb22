// What does it cost per connection to take everything out of the tables at once, and to bring it back by a replay, when
// a quarter of the rules is of each kind? single_ratio compares it with the same rules going from the configuration one
// by one, or coming into it.
#include "Questions.h"
#include "Rounds.h"

namespace Bench {

namespace {

struct MixedRules {
   explicit MixedRules( std::size_t count )
      : statics( staticRules( count / 4, count / 4 ) ),
        twices( twiceRules( count / 4, count / 4 ) ),
        napts( naptRules( count / 4, count / 4 ) ),
        addrOnlys( addrOnlyRules( count / 4 ) ) {}

   template< class Function > void forEach( Function && function ) const {
      function( statics );
      function( twices );
      function( napts );
      function( addrOnlys );
   }

   StaticRules statics;
   TwiceRules twices;
   DynamicRules napts;
   DynamicRules addrOnlys;
};

// NAPT and address-only connections are keyed alike, so the latter are put on an interface of their own.
DynamicRules onIntf( DynamicRules rules, Netix::IntfId intf ) {
   for ( auto & rule : rules ) {
      rule.key.natIntf = intf;
   }
   return rules;
}

template< class Action > double timed( System & system, Action && action ) {
   Stopwatch const watch;
   action();
   system.settle();
   return watch.ns();
}

Figures bulkFigures( std::size_t count, Operation operation ) {
   MixedRules rules( count );
   rules.addrOnlys = onIntf( rules.addrOnlys, *Netix::IntfId::fromName( "tunnel1" ) );
   auto const rows = 2 * count;

   System bulk;
   rules.forEach( [ & ]( auto const & some ) { bulk.configure( some ); } );
   bulk.settle();
   System single;
   auto const bulkRound = [ & ] {
      bulk.requireProgrammed( count, rows, rows );
      auto const deleted = timed( bulk, [ & ] { bulk.deleteAll(); } );
      bulk.requireProgrammed( 0, 0, 0 );
      auto const added = timed( bulk, [ & ] { bulk.addAll(); } );
      return timeOf( operation, { added, deleted } );
   };
   auto const singleRound = [ & ] {
      auto const added =
         timed( single, [ & ] { rules.forEach( [ & ]( auto const & some ) { single.configure( some ); } ); } );
      single.requireProgrammed( count, rows, rows );
      auto const deleted =
         timed( single, [ & ] { rules.forEach( [ & ]( auto const & some ) { single.unconfigure( some ); } ); } );
      return timeOf( operation, { added, deleted } );
   };
   return pairedRounds( count, bulkRound, singleRound, "single" );
}

}  // namespace

void registerBulkOperations() {
   for ( auto const n : connectionCounts ) {
      caseIs( "bulk-delete", n, [ = ] { return bulkFigures( n, Operation::del ); } );
      caseIs( "bulk-add", n, [ = ] { return bulkFigures( n, Operation::add ); } );
   }
}

}  // namespace Bench
