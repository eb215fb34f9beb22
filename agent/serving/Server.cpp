#include "agent/serving/Server.h"

#include "agent/basics/UnusableInput.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
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
// Of an answer, made before its client has taken what was made before. The kernel holds some more.
constexpr std::size_t mostWaiting = std::size_t{ 32 } << 10;
// Then signals, new clients and what else is awaited have their turn.
constexpr std::chrono::milliseconds longestRound{ 10 };
// Of one client: short answers are made at once, long ones in turn.
constexpr std::chrono::milliseconds longestStep{ 1 };

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

Descriptor signalsToTake() {
   sigset_t signals;
   sigemptyset( &signals );
   sigaddset( &signals, SIGTERM );
   sigaddset( &signals, SIGINT );
   sigaddset( &signals, SIGHUP );
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

void outliveTerminal() {
   sigset_t hangUp;
   sigemptyset( &hangUp );
   sigaddset( &hangUp, SIGHUP );
   sigprocmask( SIG_BLOCK, &hangUp, nullptr );
   std::signal( SIGPIPE, SIG_IGN );
}

struct Server::Client {
   Descriptor connection;
   std::time_t lastHeard = now();     // or taking an answer
   std::string received;              // up to the next line end
   bool hasLine = false;              // perhaps
   std::unique_ptr< Answer > answer;  // that is being told; null: none
   std::string told;                  // not sent yet
   bool hasEnded = false;             // it sends nothing more
   bool isAnswered = false;           // nothing more is answered
   bool isGone = false;

   bool isIdle() const { return !answer && told.empty(); }
   bool isHeard() const { return isIdle() && !hasLine; }
   bool isOver() const { return isGone || ( isAnswered && isIdle() ); }
   bool hasWork() const {
      return !isGone && told.size() < mostWaiting && ( answer || ( hasLine && told.empty() && !isAnswered ) );
   }
   void refuse( std::string const & why ) {
      answer = nullptr;
      told += why + '\n';
      isAnswered = true;
   }
};

Server::Server( std::string const & stateFolder )
   : path_( socketIn( stateFolder ) ), signals_( signalsToTake() ), listener_( listenerAt( path_ ) ) {}

Server::~Server() { unlink( path_.c_str() ); }

void Server::serve( Answerer const & answerer, Refusal const & refusal, Awaited const & other ) {
   while ( !ends_ ) {
      std::vector< pollfd > awaited{
         { signals_.number(), POLLIN, 0 }, { listener_.number(), POLLIN, 0 }, { other.descriptor(), POLLIN, 0 } };
      auto const firstClient = awaited.size();
      for ( auto const & client : clients_ ) {
         short const events = !client->told.empty() ? POLLOUT : client->isHeard() ? POLLIN : 0;
         awaited.push_back( { client->connection.number(), events, 0 } );
      }
      constexpr int halfOfSilence = static_cast< int >( mostSilence ) * 500;
      bool const hasWork = std::ranges::any_of( clients_, []( auto const & client ) { return client->hasWork(); } );
      if ( poll( awaited.data(), awaited.size(),
                 hasWork            ? 0
                 : clients_.empty() ? -1
                                    : halfOfSilence ) < 0 &&
           errno != EINTR ) {
         refuse( path_, "cannot be waited for" );
      }
      if ( awaited[ 0 ].revents != 0 ) {
         takeSignal( other );
      }
      if ( awaited[ 2 ].revents != 0 && !ends_ ) {
         other.turn();
      }
      for ( std::size_t i = 0; i < clients_.size() && !ends_; ++i ) {
         auto & client = *clients_[ i ];
         if ( awaited[ firstClient + i ].revents != 0 && client.isHeard() ) {
            receive( client );
         } else if ( now() - client.lastHeard > mostSilence ) {
            client.isGone = !client.isIdle();  // it does not take them
            client.refuse( refusal( "nothing was heard for " + std::to_string( mostSilence ) + " seconds" ) );
         }
         send( client );
      }
      if ( awaited[ 1 ].revents != 0 ) {
         accept( refusal );
      }
      answerAll( answerer, refusal );
      std::erase_if( clients_, []( auto const & client ) { return client->isOver(); } );
   }
}

void Server::takeSignal( Awaited const & other ) {
   signalfd_siginfo signal{};
   while ( read( signals_.number(), &signal, sizeof( signal ) ) == sizeof( signal ) ) {
      if ( signal.ssi_signo == SIGHUP ) {
         other.reload();
      } else {
         ends_ = true;
      }
   }
}

void Server::answerAll( Answerer const & answerer, Refusal const & refusal ) {
   auto const start = std::chrono::steady_clock::now();
   for ( bool hasWork = true; hasWork && !ends_; ) {
      hasWork = false;
      for ( std::size_t i = 0; i < clients_.size() && !ends_; ++i ) {
         if ( std::chrono::steady_clock::now() - start > longestRound ) {
            return;
         }
         auto & client = *clients_[ firstServed_++ % clients_.size() ];
         if ( client.hasWork() ) {
            step( client, answerer, refusal );
            hasWork = true;
         }
      }
   }
}

void Server::step( Client & client, Answerer const & answerer, Refusal const & refusal ) {
   if ( !client.answer ) {
      takeLine( client, answerer, refusal );
   }
   if ( !client.answer ) {
      return send( client );
   }
   auto const start = std::chrono::steady_clock::now();
   auto const isInTime = [ & ] { return std::chrono::steady_clock::now() - start < longestStep; };
   do {
      bool const hasMore = client.answer->next( client.told );
      ends_ = client.answer->endsServing();
      if ( !hasMore ) {
         client.answer = nullptr;
      }
      send( client );
   } while ( client.answer && !client.isGone && client.told.size() < mostWaiting && ( ends_ || isInTime() ) );
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
   client.hasLine = true;
}

void Server::takeLine( Client & client, Answerer const & answerer, Refusal const & refusal ) {
   auto const end = client.received.find( '\n' );
   if ( std::min( end, client.received.size() ) >= longestRequest ) {
      client.refuse( refusal( "the message is too long; allowed: " + std::to_string( longestRequest ) +
                              " bytes with the line end" ) );
   } else if ( end != client.received.npos ) {
      client.answer = answerer( std::string_view( client.received ).substr( 0, end ) );
      client.received.erase( 0, end + 1 );
   } else {
      client.hasLine = false;
      if ( client.hasEnded && !client.received.empty() ) {
         client.refuse( refusal( "the message has no line end" ) );
      }
      client.isAnswered = client.hasEnded;
   }
}

void Server::send( Client & client ) {
   while ( !client.told.empty() && !client.isGone ) {
      auto const sent = ::send( client.connection.number(), client.told.data(), client.told.size(), MSG_NOSIGNAL );
      if ( sent < 0 ) {
         client.isGone = errno != EAGAIN && errno != EINTR;
         return;
      }
      client.lastHeard = now();
      client.told.erase( 0, static_cast< std::size_t >( sent ) );
   }
   if ( client.isIdle() ) {
      client.told = {};
      client.received.shrink_to_fit();
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
