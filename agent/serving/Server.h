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

// The answer to one message. What a method does, it does in the first call of its request; what it tells is read by and
// by.
class Answer {
 public:
   Answer() = default;
   Answer( Answer const & ) = delete;
   Answer & operator=( Answer const & ) = delete;
   virtual ~Answer() = default;

   // Appends the next piece, with the line end behind the last; or nothing, when more work comes before it. False: that
   // was all.
   virtual bool next( std::string & text ) = 0;
   // Whether the server shall end once the answer is on its way.
   virtual bool endsServing() const = 0;
};

// The answer to a request without its line end.
using Answerer = std::function< std::unique_ptr< Answer >( std::string_view request ) >;
// Says why a message was not even looked at.
using Refusal = std::function< std::string( std::string_view why ) >;

// What else there is to do: turn() whenever the descriptor can be read, which is -1 while there is none, and reload()
// when SIGHUP comes.
struct Awaited {
   std::function< int() > descriptor;
   std::function< void() > turn;
   std::function< void() > reload;
};

// To be called first by who is to serve: its terminal, and who reads what it writes, may go. SIGHUP waits for the
// server.
void outliveTerminal();

// Listens at socketIn( stateFolder ), for the owner alone, from the construction on. Whoever makes a server holds the
// lock of the folder: a socket that is there already was left behind.
class Server {
 public:
   // Throws UnusableInput when the socket cannot be made. Blocks SIGTERM, SIGINT and SIGHUP, and ignores SIGPIPE.
   explicit Server( std::string const & stateFolder );
   // Takes the socket away.
   ~Server();
   Server( Server const & ) = delete;
   Server & operator=( Server const & ) = delete;

   // Serves until an answer ends it, or SIGTERM or SIGINT comes. One piece of an answer at a time, and no more of it
   // than its client takes: who is slow keeps nobody else waiting, and costs no memory.
   void serve( Answerer const & answerer, Refusal const & refusal, Awaited const & other );

 private:
   struct Client;

   void accept( Refusal const & refusal );
   static void receive( Client & client );
   // Takes the client's next line up, unless there is one still, and makes some of its answer.
   void step( Client & client, Answerer const & answerer, Refusal const & refusal );
   static void takeLine( Client & client, Answerer const & answerer, Refusal const & refusal );
   static void send( Client & client );
   // Steps of all clients in turn, for a while.
   void answerAll( Answerer const & answerer, Refusal const & refusal );
   void takeSignal( Awaited const & other );

   std::string path_;
   Descriptor signals_;
   Descriptor listener_;
   std::vector< std::unique_ptr< Client > > clients_;
   std::size_t firstServed_ = 0;  // of the clients, in this round
   bool ends_ = false;
};

// Sends one request to the server of a folder and returns its answer, both without their line ends. Throws
// UnusableInput when nobody serves there.
std::string ask( std::string const & stateFolder, std::string const & request );

}  // namespace Agent
