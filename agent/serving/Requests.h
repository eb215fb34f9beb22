// What the clients of a serving agent may ask for.
#pragma once

#include "agent/basics/Json.h"
#include "agent/host/Host.h"
#include "agent/learning/ConntrackFollower.h"

#include <functional>
#include <string>
#include <string_view>

namespace Agent {

// JSON-RPC 2.0: answers requests about a host, and carries out those that change it. Parameters go by name. Every
// method takes "format": "json" (default) for members of the result, "text" for its member "text"; its member "status"
// is 0 when everything is programmed and the answer certain, else 1.
class Requests {
 public:
   // Reads a configuration, with what is learned beside it; of the present file when `file` is empty. Throws
   // UnusableInput.
   using Read = std::function< Configuration( std::string const & file ) >;

   // `follower`: null when the host follows no connection tracking.
   Requests( Host & host, Read read, ConntrackFollower * follower = nullptr )
      : host_( host ), read_( std::move( read ) ), follower_( follower ) {}

   // False when the agent shall end. Throws UnusableInput when the host is of no use any more.
   bool answer( std::string_view request, std::string & answer );

   // The answer to a message that is no request.
   static std::string refusal( std::string_view why );

 private:
   Json answerToAll( Json const & message );
   Json answerTo( Json const & request );
   JsonObject resultOf( std::string_view method, Json const & params );

   Host & host_;
   Read read_;
   ConntrackFollower * follower_;
   bool ends_ = false;
};

}  // namespace Agent
