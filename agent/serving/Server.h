// An agent that stays: requests of local clients over a Unix domain socket, by JSON-RPC 2.0, one message per line.
#pragma once

#include "agent/basics/Descriptor.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

// Requests and answers longer than that, with their line ends, are refused.
inline constexpr std::size_t longestRequest = std::size_t{ 64 } << 10;

std::string socketIn( std::string const & stateFolder );

// Turns one request into its answer, both without their line ends; an empty answer is not sent. Returns false when the
// server shall end once the answer is on its way.
using Answer = std::function< bool( std::string_view request, std::string & answer ) >;
// Says why a message was not even looked at.
using Refusal = std::function< std::string( std::string_view why ) >;

// What else there is to do: turn() whenever the descriptor can be read, which is -1 while there is none.
struct Awaited {
   std::function< int() > descriptor;
   std::function< void() > turn;
};

// Listens at socketIn( stateFolder ), for the owner alone, from the construction on. Whoever makes a server holds the
// lock of the folder: a socket that is there already was left behind.
class Server {
 public:
   // Throws UnusableInput when the socket cannot be made. Blocks SIGTERM and SIGINT.
   explicit Server( std::string const & stateFolder );
   // Takes the socket away.
   ~Server();
   Server( Server const & ) = delete;
   Server & operator=( Server const & ) = delete;

   // Serves until answer() returns false, or SIGTERM or SIGINT comes. One request at a time; a client that is slow to
   // take its answer waits for its next one, and keeps nobody else waiting.
   void serve( Answer const & answer, Refusal const & refusal, Awaited const & other );

 private:
   struct Client;

   void accept( Refusal const & refusal );
   static void receive( Client & client );
   // Answers the next line; false while there is none.
   bool answerNext( Client & client, Answer const & answer, Refusal const & refusal );
   static void send( Client & client );

   std::string path_;
   Descriptor signals_;
   Descriptor listener_;
   std::vector< std::unique_ptr< Client > > clients_;
   bool ends_ = false;
};

// Sends one request to the server of a folder and returns its answer, both without their line ends. Throws
// UnusableInput when nobody serves there.
std::string ask( std::string const & stateFolder, std::string const & request );

}  // namespace Agent
