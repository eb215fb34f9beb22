// Learned connections that follow a kernel's connection tracking.
#pragma once

#include "agent/basics/Report.h"
#include "agent/host/Host.h"
#include "agent/learning/ConntrackSource.h"

#include <Vexa/HashMap.h>

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Agent {

// Knows what the kernel tracks, and keeps a host's learned connections at the translated ones. A connection whose key
// or rows another one has waits until they are free, one that its inside host may not have any more until another of
// that host goes.
class ConntrackFollower {
 public:
   // Subscribes to the kernel's events, then takes all that it tracks. `mostPerHost`: learned connections of one inside
   // host; 0: as many as there are. Throws UnusableInput as ConntrackSource does.
   ConntrackFollower( std::string const & netns, NatInterface const & intf, std::size_t mostPerHost );

   // Adds the translated connections to a configuration that the host is to go over to, whose own dynamic connections
   // keep their keys and rows.
   void learnInto( Configuration & configuration );

   // -1 when the following has ended.
   int descriptor() const { return source_ ? source_->descriptor() : -1; }

   // Takes the events that have come and applies them together. Asks the kernel for all that it tracks, and applies the
   // difference, when events were lost, and from time to time: the end of a connection that was there before anybody
   // subscribed is not told by every kernel. When there will be no events any more, the following ends with a line on
   // standard error, and what was learned stays.
   void turn( Host & host );

   // Applies the difference at once.
   void resync( Host & host );

   // How many connections are tracked, learned and refused, in a line.
   std::string summary( Host const & host ) const;

   // What is tracked and what was learned of it; events, losses and lag; what is no dynamic connection, by reasons,
   // with the first ones.
   void report( Report & report, Host const & host ) const;

 private:
   struct Tracked {
      std::optional< LearnedConnection > connection;  // that translates it; none: none does
      std::optional< NotLearned > reason;             // why it is not learned; none: it is
      U64 number = 0;                                 // of those that wait, by their coming
   };
   using Waiting = std::map< U64, ConntrackKey >;
   struct InsideHost {
      std::size_t learned = 0;
      Waiting waiting;  // beyond the limit
   };
   struct Counters {
      U64 fresh = 0, updated = 0, destroyed = 0;  // events
      U64 losses = 0, resyncs = 0, foundByResyncs = 0;
      U64 turns = 0, mostEvents = 0, lastLag = 0, longestLag = 0;  // microseconds
   };

   void take( ConntrackReport const & report );
   void track( ConntrackKey const & key, TrackedFlow const & flow );
   void forget( ConntrackKey const & key );
   void takeDifference();
   // Whether it is learned from now on; else it waits.
   bool claim( ConntrackKey const & key );
   void waitFor( Tracked & tracked, ConntrackKey const & key, NotLearned reason );
   void release( LearnedConnection const & connection );
   void apply( Host & host );
   void end( char const * why );

   std::string netns_;
   NatInterface intf_;
   std::size_t mostPerHost_;
   std::optional< ConntrackSource > source_;  // none: the following has ended
   Vexa::HashMap< ConntrackKey, Tracked, 0x2545F491 > tracked_;
   std::optional< RowClaims > claims_;                                   // of the configuration that was learned into
   std::vector< ConntrackKey > come_;                                    // since the last turn
   std::vector< LearnedConnection > gone_;                               // likewise, with their claims
   Waiting waiting_;                                                     // for their key and rows
   U64 waited_ = 0;                                                      // numbers them
   Vexa::HashMap< Netix::IpAddr, InsideHost, 0x510E527F > insideHosts_;  // with a limit only
   bool needsDifference_ = false;
   Counters counters_;
};

}  // namespace Agent
