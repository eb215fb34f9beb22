// The connection tracking of a kernel, as it tells of it over netlink.
#pragma once

#include "agent/basics/Descriptor.h"
#include "agent/learning/LearnedConnection.h"

#include <Vexa/Value.h>

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

struct nfct_handle;

namespace Agent {

// What tells one connection of a kernel from all others, also from one of another zone or ICMP type, and from a later
// one with the same addresses and ports.
struct ConntrackKey {
   U32 id = 0;  // the kernel's, which few others have
   Netix::ConnTuple original;

   static constexpr std::string_view typeName = "Agent::ConntrackKey";
   static constexpr auto attributes() {
      return std::tuple( Vexa::attr< &ConntrackKey::id >( "id" ), Vexa::attr< &ConntrackKey::original >( "original" ) );
   }
   friend auto operator<=>( ConntrackKey const &, ConntrackKey const & ) = default;
};
static_assert( Vexa::describesEveryMember< ConntrackKey > );

// One IPv4 connection that the kernel speaks of.
struct ConntrackReport {
   enum class Kind : U8 { fresh, updated, destroyed };

   Kind kind;
   ConntrackKey key;
   TrackedFlow flow;
};

// Subscribed to the events of one network namespace from the construction on. What the kernel cannot deliver is lost,
// and receive() says that something was.
class ConntrackSource {
 public:
   using Sink = std::function< void( ConntrackReport const & ) >;

   // What receive() found beside the events.
   struct Received {
      bool isAll = true;    // no event is left to be received
      bool isLoss = false;  // events were lost; those that were not are still handed over
      bool isDue = false;   // the kernel should be asked what it tracks, since it does not tell of everything
   };

   // `netns`: a name as in `ip netns`; empty: the namespace of this process. Throws UnusableInput when there is no such
   // namespace, no permission, or no connection tracking.
   explicit ConntrackSource( std::string netns );
   ~ConntrackSource();

   // Can be read when receive() has something to do.
   int descriptor() const { return awaited_.number(); }

   // Hands over the events that have come, in their order, at most a few thousand; does not wait for one. Throws
   // UnusableInput when there will be none any more, as when the namespace was removed.
   Received receive( Sink const & sink );

   // Hands over every IPv4 connection that is tracked now, as if it were updated. Events received before are older than
   // that, those received later may be. Throws UnusableInput when the kernel does not answer.
   void dump( Sink const & sink );

 private:
   struct Closing {
      void operator()( nfct_handle * handle ) const;
   };
   using Handle = std::unique_ptr< nfct_handle, Closing >;

   Handle opened( unsigned groups );
   void awaitNamespace();
   void requireNamespace() const;

   std::string netns_;
   std::string path_;  // of the namespace; empty: none named
   ino_t inode_ = 0;
   Handle events_;
   Handle queries_;
   Descriptor removals_;  // of what stands beside path_
   Descriptor timer_;
   Descriptor awaited_;  // all of them
};

}  // namespace Agent
