#include "agent/learning/ConntrackFollower.h"

#include "agent/basics/Text.h"
#include "agent/basics/UnusableInput.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>
#include <ranges>
#include <utility>

namespace Agent {

namespace {

constexpr U32 followed = 1;  // the owner of claims, beside RowClaims::configured
constexpr std::size_t flowsNamed = 3;

U64 microsecondsSince( std::chrono::steady_clock::time_point start ) {
   auto const passed = std::chrono::steady_clock::now() - start;
   return static_cast< U64 >( std::chrono::duration_cast< std::chrono::microseconds >( passed ).count() );
}

std::string nameOf( Netix::ConnTuple const & flow ) {
   return protocolText( flow.protocol ) + " " + textOf( flow.source ) + " -> " + textOf( flow.destination );
}

}  // namespace

ConntrackFollower::ConntrackFollower( std::string const & netns, NatInterface const & intf, std::size_t mostPerHost )
   : netns_( netns ), intf_( intf ), mostPerHost_( mostPerHost ), source_( std::in_place, netns ) {
   source_->dump( [ & ]( ConntrackReport const & report ) { track( report.key, report.flow ); } );
}

// --- What the kernel tracks ------------------------------------------------------------------------------------------

void ConntrackFollower::take( ConntrackReport const & report ) {
   using Kind = ConntrackReport::Kind;
   switch ( report.kind ) {
   case Kind::fresh: ++counters_.fresh; return track( report.key, report.flow );
   case Kind::updated: ++counters_.updated; return track( report.key, report.flow );
   case Kind::destroyed: ++counters_.destroyed; return forget( report.key );
   }
}

// A translation never changes while its connection lives.
void ConntrackFollower::track( ConntrackKey const & key, TrackedFlow const & flow ) {
   auto const [ tracked, isNew ] = tracked_.refOrEmplace( key );
   if ( !isNew ) {
      return;
   }
   auto const result = learnedFrom( flow );
   if ( auto const * const reason = std::get_if< NotLearned >( &result ) ) {
      tracked.reason = *reason;
      return;
   }
   tracked.connection = std::get< LearnedConnection >( result );
   tracked.reason = NotLearned::rowTaken;  // until it has its turn
   come_.push_back( key );
}

void ConntrackFollower::forget( ConntrackKey const & key ) {
   if ( auto const * const tracked = tracked_.find( key ) ) {
      if ( !tracked->reason ) {
         gone_.push_back( *tracked->connection );
      } else if ( tracked->reason == NotLearned::hostLimit ) {
         insideHosts_.find( insideHostOf( *tracked->connection ) )->waiting.erase( tracked->number );
      } else if ( tracked->connection ) {
         waiting_.erase( tracked->number );
      }
      tracked_.del( key );
   }
}

void ConntrackFollower::takeDifference() {
   std::vector< ConntrackReport > all;
   Vexa::HashMap< ConntrackKey, bool, 0x2545F491 > present;
   source_->dump( [ & ]( ConntrackReport const & report ) {
      all.push_back( report );
      present.is( report.key, true );
   } );
   auto const before = tracked_.count();
   tracked_.forEach( [ & ]( ConntrackKey const & key, Tracked const & ) {
      if ( !present.has( key ) ) {
         forget( ConntrackKey( key ) );
      }
   } );
   auto const stay = tracked_.count();
   for ( auto const & report : all ) {
      track( report.key, report.flow );
   }
   counters_.foundByResyncs += ( before - stay ) + ( tracked_.count() - stay );
   ++counters_.resyncs;
   needsDifference_ = false;
}

// --- What the host gets of it ----------------------------------------------------------------------------------------

bool ConntrackFollower::claim( ConntrackKey const & key ) {
   auto * const tracked = tracked_.find( key );
   if ( !tracked || !tracked->reason ) {
      return false;  // gone again, or named twice
   }
   auto * const host =
      mostPerHost_ != 0 ? &insideHosts_.refOrEmplace( insideHostOf( *tracked->connection ) ).first : nullptr;
   if ( host && host->learned >= mostPerHost_ ) {
      waitFor( *tracked, key, NotLearned::hostLimit );
      return false;
   }
   if ( auto const other = claims_->claim( *tracked->connection, followed ) ) {
      waitFor( *tracked, key, *other == RowClaims::configured ? NotLearned::rowConfigured : NotLearned::rowTaken );
      return false;
   }
   if ( host ) {
      ++host->learned;
   }
   tracked->reason.reset();
   return true;
}

// Whoever waits already keeps its place.
void ConntrackFollower::waitFor( Tracked & tracked, ConntrackKey const & key, NotLearned reason ) {
   tracked.reason = reason;
   if ( tracked.number == 0 ) {
      tracked.number = ++waited_;
   }
   auto & waiting =
      reason == NotLearned::hostLimit ? insideHosts_.find( insideHostOf( *tracked.connection ) )->waiting : waiting_;
   waiting.emplace( tracked.number, key );
}

void ConntrackFollower::release( LearnedConnection const & connection ) {
   claims_->release( connection );
   if ( auto * const host = insideHosts_.find( insideHostOf( connection ) ) ) {
      --host->learned;
   }
}

// Whoever was learned before comes first, then in the order of the keys: the same every time.
void ConntrackFollower::learnInto( Configuration & configuration ) {
   std::vector< std::pair< bool, ConntrackKey > > wanted;
   for ( auto const & [ key, tracked ] : tracked_ ) {
      if ( tracked.connection ) {
         wanted.emplace_back( tracked.reason.has_value(), key );
      }
   }
   std::ranges::sort( wanted, {},
                      []( auto const & one ) { return std::tuple( one.first, one.second.original, one.second.id ); } );
   claims_.emplace( *configuration.rules, intf_ );
   come_.clear();
   gone_.clear();
   waiting_.clear();
   insideHosts_.delAll();
   for ( auto const & [ isLate, key ] : wanted ) {
      auto & tracked = *tracked_.find( key );
      tracked.reason = NotLearned::rowTaken;
      tracked.number = 0;
      if ( claim( key ) ) {
         add( configuration, { .rule = ruleOf( *tracked.connection, intf_ ) } );
      }
   }
}

void ConntrackFollower::turn( Host & host ) {
   if ( !source_ ) {
      return;
   }
   auto const start = std::chrono::steady_clock::now();
   auto const before = counters_;
   try {
      auto const received = source_->receive( [ & ]( ConntrackReport const & report ) { take( report ); } );
      counters_.losses += received.isLoss;
      needsDifference_ = needsDifference_ || received.isLoss || received.isDue;
      // Not before what was left of the events is taken: they are older than the dump.
      if ( received.isAll && needsDifference_ ) {
         takeDifference();
      }
   } catch ( UnusableInput const & fault ) {
      end( fault.what() );
   }
   auto const events =
      counters_.fresh + counters_.updated + counters_.destroyed - ( before.fresh + before.updated + before.destroyed );
   if ( events == 0 && counters_.resyncs == before.resyncs ) {
      return;
   }
   apply( host );
   ++counters_.turns;
   counters_.mostEvents = std::max( counters_.mostEvents, events );
   counters_.lastLag = microsecondsSince( start );
   counters_.longestLag = std::max( counters_.longestLag, counters_.lastLag );
}

void ConntrackFollower::resync( Host & host ) {
   for ( needsDifference_ = true; needsDifference_ && source_; ) {
      turn( host );
   }
}

void ConntrackFollower::apply( Host & host ) {
   std::vector< Pfe::NatProgrammerDynamicKey > gone;
   std::vector< Netix::IpAddr > hosts;
   for ( auto const & connection : gone_ ) {
      release( connection );
      gone.push_back( { .natIntf = intf_.intf, .conn = connection.conn } );
      hosts.push_back( insideHostOf( connection ) );
   }
   // Who waits is in front of who comes; while nothing goes, in vain.
   Waiting wanted;
   if ( !gone.empty() ) {
      wanted.swap( waiting_ );
   }
   std::vector< DynamicRule > come;
   auto const take = [ & ]( ConntrackKey const & key ) {
      if ( claim( key ) ) {
         come.push_back( ruleOf( *tracked_.find( key )->connection, intf_ ) );
      }
   };
   std::ranges::for_each( wanted, [ & ]( auto const & waiting ) { take( waiting.second ); } );
   for ( auto const address : hosts ) {
      auto * const host = insideHosts_.find( address );
      while ( host && host->learned < mostPerHost_ && !host->waiting.empty() ) {
         take( host->waiting.extract( host->waiting.begin() ).mapped() );
      }
      if ( host && host->learned == 0 ) {
         insideHosts_.del( address );
      }
   }
   std::ranges::for_each( come_, take );
   come_.clear();
   gone_.clear();
   if ( !gone.empty() || !come.empty() ) {
      host.learn( gone, come );
   }
}

void ConntrackFollower::end( char const * why ) {
   std::cerr << "nat-agent: " << why << "; what was learned stays\n";
   source_.reset();
}

// --- What there is to show -------------------------------------------------------------------------------------------

std::string ConntrackFollower::summary( Host const & host ) const {
   auto const passedOver =
      std::ranges::count_if( tracked_, []( auto const & one ) { return one.second.reason.has_value(); } );
   return ( source_ ? "Following" : "No longer following" ) + std::string( " the connection tracking" ) +
          ( netns_.empty() ? "" : " of namespace " + netns_ ) + " at " + std::string( intf_.intf.name().text() ) +
          ": " + std::to_string( tracked_.count() ) + " tracked, " +
          std::to_string( tracked_.count() - static_cast< std::size_t >( passedOver ) ) + " learned, " +
          std::to_string( host.programmer().refusedCount() ) + " refused for want of a NAT id";
}

void ConntrackFollower::report( Report & report, Host const & host ) const {
   std::map< NotLearned, std::vector< Netix::ConnTuple > > passedOver;
   for ( auto const & [ key, tracked ] : tracked_ ) {
      if ( tracked.reason ) {
         passedOver[ *tracked.reason ].push_back( key.original );
      }
   }
   auto learned = tracked_.count();
   Table table( { { "passedOver", Table::Kind::number }, { "reason" }, { "first" } } );
   for ( auto & [ reason, flows ] : passedOver ) {
      learned -= flows.size();
      std::ranges::sort( flows );
      table.cell( std::to_string( flows.size() ) );
      table.cell( textOf( reason ) );
      for ( auto & first = table.cell(); auto const & flow : flows | std::views::take( flowsNamed ) ) {
         first += ( &flow == &flows.front() ? "" : ", " ) + nameOf( flow );
      }
      table.endCell();
   }
   auto const & c = counters_;
   report.fact( "following", { { "interface", intf_.intf.name().text() },
                               { "namespace", netns_ },
                               { "follows", bool( source_ ) },
                               { "tracked", tracked_.count() },
                               { "learned", learned },
                               { "refused", host.programmer().refusedCount() },
                               { "new", c.fresh },
                               { "updated", c.updated },
                               { "destroyed", c.destroyed },
                               { "losses", c.losses },
                               { "resyncs", c.resyncs },
                               { "foundByResyncs", c.foundByResyncs },
                               { "turns", c.turns },
                               { "mostEventsOfATurn", c.mostEvents },
                               { "lastLagUs", c.lastLag },
                               { "longestLagUs", c.longestLag } } );
   auto const n = []( U64 number ) { return std::to_string( number ); };
   report.line( summary( host ) );
   report.line( "Events: " + n( c.fresh ) + " new, " + n( c.updated ) + " updated, " + n( c.destroyed ) +
                " destroyed; some lost " + n( c.losses ) + " times, " + n( c.resyncs ) + " resyncs found " +
                n( c.foundByResyncs ) + " changes" );
   report.line( "Lag: " + n( c.lastLag ) + " us, at most " + n( c.longestLag ) + " us, and " + n( c.mostEvents ) +
                " events in one of " + n( c.turns ) + " turns" );
   if ( table.rowCount() != 0 ) {
      report.line( "" );
      report.table( "passedOver", std::move( table ) );
   }
}

}  // namespace Agent
