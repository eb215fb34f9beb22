#include "agent/serving/Server.h"

#include "agent/basics/UnusableInput.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace Agent {

namespace {

constexpr std::size_t mostClients = 64;
constexpr std::time_t mostSilence = 60;  // seconds

std::time_t now() {
   timespec time{};
   clock_gettime( CLOCK_MONOTONIC, &time );
   return time.tv_sec;
}

sockaddr_un addressOf( std::string const & path ) {
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   if ( path.size() >= sizeof( address.sun_path ) ) {
      throw UnusableInput( path + ": is too long for a socket; allowed: at most " +
                           std::to_string( sizeof( address.sun_path ) - 1 ) + " bytes" );
   }
   std::memcpy( address.sun_path, path.data(), path.size() );
   return address;
}

[[noreturn]] void refuse( std::string const & path, char const * what ) {
   throw UnusableInput( path + ": " + what + ": " + std::strerror( errno ) );
}

Descriptor signalsToEndWith() {
   sigset_t signals;
   sigemptyset( &signals );
   sigaddset( &signals, SIGTERM );
   sigaddset( &signals, SIGINT );
   sigprocmask( SIG_BLOCK, &signals, nullptr );
   return Descriptor( signalfd( -1, &signals, SFD_CLOEXEC | SFD_NONBLOCK ) );
}

Descriptor listenerAt( std::string const & path ) {
   auto const address = addressOf( path );
   Descriptor listener( socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0 ) );
   unlink( path.c_str() );
   auto const mask = umask( 0177 );
   bool const bound =
      listener && bind( listener.number(), reinterpret_cast< sockaddr const * >( &address ), sizeof( address ) ) == 0;
   int const error = errno;
   umask( mask );
   errno = error;
   if ( !bound || listen( listener.number(), SOMAXCONN ) != 0 ) {
      refuse( path, "cannot be listened at" );
   }
   return listener;
}

}  // namespace

std::string socketIn( std::string const & stateFolder ) { return stateFolder + "/agent.sock"; }

struct Server::Client {
   Descriptor connection;
   std::time_t lastHeard = now();  // or taking an answer
   std::string received;           // up to the next line end
   std::string answers;            // not sent yet
   bool hasEnded = false;          // it sends nothing more
   bool isAnswered = false;        // nothing more is answered
   bool isGone = false;

   bool isOver() const { return isGone || ( isAnswered && answers.empty() ); }
   void refuse( std::string const & answer ) {
      answers += answer + '\n';
      isAnswered = true;
   }
};

Server::Server( std::string const & stateFolder )
   : path_( socketIn( stateFolder ) ), signals_( signalsToEndWith() ), listener_( listenerAt( path_ ) ) {}

Server::~Server() { unlink( path_.c_str() ); }

void Server::serve( Answer const & answer, Refusal const & refusal, Awaited const & other ) {
   while ( !ends_ ) {
      std::vector< pollfd > awaited{
         { signals_.number(), POLLIN, 0 }, { listener_.number(), POLLIN, 0 }, { other.descriptor(), POLLIN, 0 } };
      auto const firstClient = awaited.size();
      for ( auto const & client : clients_ ) {
         short const events = client->answers.empty() ? POLLIN : POLLOUT;
         awaited.push_back( { client->connection.number(), events, 0 } );
      }
      constexpr int halfOfSilence = static_cast< int >( mostSilence ) * 500;
      if ( poll( awaited.data(), awaited.size(), clients_.empty() ? -1 : halfOfSilence ) < 0 && errno != EINTR ) {
         refuse( path_, "cannot be waited for" );
      }
      ends_ = awaited[ 0 ].revents != 0;
      if ( awaited[ 2 ].revents != 0 && !ends_ ) {
         other.turn();
      }
      auto const present = clients_.size();
      for ( std::size_t i = 0; i < present && !ends_; ++i ) {
         auto & client = *clients_[ i ];
         if ( awaited[ firstClient + i ].revents != 0 && client.answers.empty() ) {
            receive( client );
         } else if ( now() - client.lastHeard > mostSilence ) {
            client.isGone = !client.answers.empty();  // it does not take them
            client.refuse( refusal( "nothing was heard for " + std::to_string( mostSilence ) + " seconds" ) );
         }
         send( client );
         while ( client.answers.empty() && !client.isOver() && !ends_ && answerNext( client, answer, refusal ) ) {
            send( client );
         }
      }
      if ( awaited[ 1 ].revents != 0 ) {
         accept( refusal );
      }
      std::erase_if( clients_, []( auto const & client ) { return client->isOver(); } );
   }
}

void Server::accept( Refusal const & refusal ) {
   Descriptor connection( accept4( listener_.number(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK ) );
   if ( !connection ) {
      return;  // gone again, or no descriptor is free
   }
   auto client = std::make_unique< Client >();
   client->connection = std::move( connection );
   if ( clients_.size() >= mostClients ) {
      client->refuse( refusal( "too many clients; allowed: " + std::to_string( mostClients ) ) );
      send( *client );
      return;
   }
   clients_.push_back( std::move( client ) );
}

void Server::receive( Client & client ) {
   char part[ 4096 ];
   auto const count = recv( client.connection.number(), part, sizeof( part ), 0 );
   if ( count < 0 ) {
      client.isGone = errno != EAGAIN && errno != EINTR;
      return;
   }
   client.lastHeard = now();
   client.received.append( part, static_cast< std::size_t >( count ) );
   client.hasEnded = count == 0;
}

bool Server::answerNext( Client & client, Answer const & answer, Refusal const & refusal ) {
   auto const end = client.received.find( '\n' );
   if ( std::min( end, client.received.size() ) >= longestRequest ) {
      client.refuse( refusal( "the message is too long; allowed: " + std::to_string( longestRequest ) +
                              " bytes with the line end" ) );
   } else if ( end == client.received.npos ) {
      if ( client.hasEnded && !client.received.empty() ) {
         client.refuse( refusal( "the message has no line end" ) );
      }
      client.isAnswered = client.hasEnded;
      return !client.answers.empty();
   } else {
      std::string told;
      ends_ = !answer( std::string_view( client.received ).substr( 0, end ), told );
      client.answers += told.empty() ? "" : told + '\n';
      client.received.erase( 0, end + 1 );
   }
   return true;
}

void Server::send( Client & client ) {
   while ( !client.answers.empty() && !client.isGone ) {
      auto const sent =
         ::send( client.connection.number(), client.answers.data(), client.answers.size(), MSG_NOSIGNAL );
      if ( sent < 0 ) {
         client.isGone = errno != EAGAIN && errno != EINTR;
         return;
      }
      client.lastHeard = now();
      client.answers.erase( 0, static_cast< std::size_t >( sent ) );
   }
}

std::string ask( std::string const & stateFolder, std::string const & request ) {
   auto const path = socketIn( stateFolder );
   auto const address = addressOf( path );
   Descriptor const connection( socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 ) );
   if ( connect( connection.number(), reinterpret_cast< sockaddr const * >( &address ), sizeof( address ) ) != 0 ) {
      refuse( path, "no agent serves here" );
   }
   auto const line = request + '\n';
   for ( std::size_t sent = 0; sent < line.size(); ) {
      auto const count = ::send( connection.number(), line.data() + sent, line.size() - sent, MSG_NOSIGNAL );
      if ( count < 0 ) {
         refuse( path, "the agent does not take the request" );
      }
      sent += static_cast< std::size_t >( count );
   }
   std::string answer;
   char part[ 1 << 16 ];
   while ( !answer.ends_with( '\n' ) ) {
      auto const count = recv( connection.number(), part, sizeof( part ), 0 );
      if ( count <= 0 ) {
         throw UnusableInput( path + ": the agent ended before it had answered" );
      }
      answer.append( part, static_cast< std::size_t >( count ) );
   }
   answer.pop_back();
   return answer;
}

}  // namespace Agent
