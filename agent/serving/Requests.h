// What the clients of a serving agent may ask for.
#pragma once

#include "agent/host/Host.h"
#include "agent/learning/ConntrackFollower.h"
#include "agent/packets/PacketWalk.h"
#include "agent/serving/Server.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Agent {

// JSON-RPC 2.0: answers requests about a host, and carries out those that change it. Parameters go by name. Every
// method takes "format": "json" (default) for members of the result, "text" for its member "text"; its member "status"
// is 0 when everything is programmed and the answer certain, else 1.
//
// Answers are made piece by piece from what there is then, and the host may change between two pieces: what stays all
// the time comes exactly once, as it is when it comes, and the member "changed" is true.
class Requests {
 public:
   // Reads a configuration, with what is learned beside it; of the present file when `file` is empty. Throws
   // UnusableInput.
   using Read = std::function< Configuration( std::string const & file ) >;

   // `follower`: null when the host follows no connection tracking.
   Requests( Host & host, Read read, ConntrackFollower * follower = nullptr )
      : host_( host ), read_( std::move( read ) ), follower_( follower ) {}

   // Never null. It, and the host that it reads, must not outlive this. Its pieces throw UnusableInput when the host is
   // of no use any more.
   std::unique_ptr< Answer > answer( std::string_view request );

   // Goes over to the configuration as its file is now. Returns why that cannot be used; empty: it has been done.
   std::string reload();

   // Whether "stop" asked that the chip goes on forwarding.
   bool keepsChip() const { return keepsChip_; }

   // The answer to a message that is no request.
   static std::string refusal( std::string_view why );

 private:
   class AnswerToAll;
   struct Call;
   struct Method;
   static std::vector< Method > const & methods();

   // Whether everything is programmed. Looks at all connections once after a change.
   bool isComplete();
   // The present tables. Looks at all rows once after a change.
   PacketWalk const & walk();

   Host & host_;
   Read read_;
   ConntrackFollower * follower_;
   bool ends_ = false;
   bool keepsChip_ = false;
   // What was found out about the host after that many changes.
   std::optional< std::pair< U64, bool > > complete_;
   std::optional< std::pair< U64, PacketWalk > > walk_;
};

}  // namespace Agent
