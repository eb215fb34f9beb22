#include "agent/learning/ConntrackSource.h"

#include "agent/basics/UnusableInput.h"

#include <Vexa/Assert.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <utility>

namespace Agent {

namespace {

constexpr std::size_t mostEvents = 4096;    // received at once
constexpr unsigned eventBuffer = 4U << 20;  // bytes, of which the kernel takes twice as many
constexpr time_t betweenDumps = 60;         // seconds
constexpr char namespaces[] = "/run/netns";

[[noreturn]] void refuse( std::string const & netns, std::string const & what ) {
   throw UnusableInput( "connection tracking" + ( netns.empty() ? "" : " of namespace " + netns ) + ": " + what );
}

[[noreturn]] void refuseFor( std::string const & netns, int error ) {
   switch ( error ) {
   case EPERM:
   case EACCES:
      refuse( netns, "not permitted; allowed: with CAP_NET_ADMIN there, and CAP_SYS_ADMIN to enter a namespace" );
   case EPROTONOSUPPORT:
   case EAFNOSUPPORT:
   case EINVAL: refuse( netns, "this kernel has none that can be asked (module nf_conntrack_netlink)" );
   default: refuse( netns, std::strerror( error ) );
   }
}

// Of the namespace that the process is in.
void requireEvents( std::string const & netns ) {
   std::ifstream switched( "/proc/sys/net/netfilter/nf_conntrack_events" );
   if ( switched.get() == '0' ) {
      refuse( netns, "tells of no events: net.netfilter.nf_conntrack_events is 0; allowed: 1 or 2" );
   }
}

// In another network namespace until the end.
class InNamespace {
 public:
   InNamespace( std::string const & netns, Descriptor const & wanted )
      : own_( open( "/proc/self/ns/net", O_RDONLY | O_CLOEXEC ) ) {
      if ( !own_ || setns( wanted.number(), CLONE_NEWNET ) != 0 ) {
         refuseFor( netns, errno );
      }
   }
   ~InNamespace() {
      bool const isBack = setns( own_.number(), CLONE_NEWNET ) == 0;
      VEXA_ASSERT( isBack );
   }
   InNamespace( InNamespace const & ) = delete;
   InNamespace & operator=( InNamespace const & ) = delete;

 private:
   Descriptor own_;
};

// The attribute of that type among some; null: there is none.
nlattr const * attributeIn( char const * begin, std::size_t size, U16 type ) {
   while ( size >= sizeof( nlattr ) ) {
      auto const * const attribute = reinterpret_cast< nlattr const * >( begin );
      if ( ( attribute->nla_type & NLA_TYPE_MASK ) == type ) {
         return attribute;
      }
      auto const length = std::min< std::size_t >( NLA_ALIGN( attribute->nla_len ), size );
      if ( length < sizeof( nlattr ) ) {
         break;
      }
      begin += length;
      size -= length;
   }
   return nullptr;
}
nlattr const * attributeIn( nlattr const * parent, U16 type ) {
   return parent
             ? attributeIn( reinterpret_cast< char const * >( parent + 1 ), parent->nla_len - sizeof( nlattr ), type )
             : nullptr;
}

// The id of an ICMP query in the replies' direction, which the library keeps to itself. 0: none.
U16 replyIdIn( nlmsghdr const & message ) {
   constexpr auto header = NLMSG_LENGTH( NLMSG_ALIGN( sizeof( nfgenmsg ) ) );
   auto const * const begin = reinterpret_cast< char const * >( &message );
   auto const * const tuple = attributeIn( begin + header, message.nlmsg_len - header, CTA_TUPLE_REPLY );
   auto const * const id = attributeIn( attributeIn( tuple, CTA_TUPLE_PROTO ), CTA_PROTO_ICMP_ID );
   U16 value = 0;
   if ( id && id->nla_len >= sizeof( nlattr ) + sizeof( value ) ) {
      std::memcpy( &value, id + 1, sizeof( value ) );
   }
   return ntohs( value );
}

Netix::IpAndPort pairIn( nf_conntrack const & entry, nf_conntrack_attr address, nf_conntrack_attr port ) {
   return { Netix::IpAddr( ntohl( nfct_get_attr_u32( &entry, address ) ) ),
            ntohs( nfct_get_attr_u16( &entry, port ) ) };
}

TrackedFlow flowIn( nf_conntrack const & entry, nlmsghdr const & message ) {
   auto const protocol = nfct_get_attr_u8( &entry, ATTR_ORIG_L4PROTO );
   TrackedFlow flow{ { pairIn( entry, ATTR_ORIG_IPV4_SRC, ATTR_ORIG_PORT_SRC ),
                       pairIn( entry, ATTR_ORIG_IPV4_DST, ATTR_ORIG_PORT_DST ), protocol },
                     { pairIn( entry, ATTR_REPL_IPV4_SRC, ATTR_REPL_PORT_SRC ),
                       pairIn( entry, ATTR_REPL_IPV4_DST, ATTR_REPL_PORT_DST ), protocol } };
   if ( protocol == IPPROTO_ICMP ) {
      flow.original.source.port = ntohs( nfct_get_attr_u16( &entry, ATTR_ICMP_ID ) );
      flow.reply.destination.port = replyIdIn( message );
   }
   return flow;
}

// What a callback of the library is handed.
struct Catch {
   ConntrackSource::Sink const & sink;
   std::size_t count = 0;
   std::size_t most = mostEvents;
};

int hand( nlmsghdr const * message, nf_conntrack_msg_type type, nf_conntrack * entry, void * data ) {
   auto & caught = *static_cast< Catch * >( data );
   if ( nfct_get_attr_u8( entry, ATTR_ORIG_L3PROTO ) == AF_INET ) {
      using Kind = ConntrackReport::Kind;
      auto const flow = flowIn( *entry, *message );
      caught.sink( { .kind = type == NFCT_T_NEW      ? Kind::fresh
                             : type == NFCT_T_UPDATE ? Kind::updated
                                                     : Kind::destroyed,
                     .key = { nfct_get_attr_u32( entry, ATTR_ID ), flow.original },
                     .flow = flow } );
   }
   return ++caught.count < caught.most ? NFCT_CB_CONTINUE : NFCT_CB_STOP;
}

}  // namespace

void ConntrackSource::Closing::operator()( nfct_handle * handle ) const { nfct_close( handle ); }

ConntrackSource::ConntrackSource( std::string netns )
   : netns_( std::move( netns ) ),
     path_( netns_.empty() ? "" : std::string( namespaces ) + "/" + netns_ ),
     timer_( timerfd_create( CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK ) ),
     awaited_( epoll_create1( EPOLL_CLOEXEC ) ) {
   std::optional< InNamespace > inside;
   if ( !netns_.empty() ) {
      Descriptor const wanted( open( path_.c_str(), O_RDONLY | O_CLOEXEC ) );
      if ( !wanted ) {
         throw UnusableInput( "--netns: " + netns_ + ": " + std::strerror( errno ) +
                              "; allowed: a namespace that ip netns lists" );
      }
      struct stat found {};
      fstat( wanted.number(), &found );
      inode_ = found.st_ino;
      inside.emplace( netns_, wanted );
   }
   events_ = opened( NFCT_ALL_CT_GROUPS );
   queries_ = opened( 0 );
   requireEvents( netns_ );
   inside.reset();
   awaitNamespace();
   auto const socket = nfct_fd( events_.get() );
   fcntl( socket, F_SETFL, O_NONBLOCK );
   nfnl_rcvbufsiz( nfct_nfnlh( events_.get() ), eventBuffer );
   itimerspec const period{ { betweenDumps, 0 }, { betweenDumps, 0 } };
   timerfd_settime( timer_.number(), 0, &period, nullptr );
   for ( auto const descriptor : { socket, timer_.number(), removals_.number() } ) {
      epoll_event event{ .events = EPOLLIN, .data = {} };
      epoll_ctl( awaited_.number(), EPOLL_CTL_ADD, descriptor, &event );  // -1 is not awaited
   }
}

ConntrackSource::~ConntrackSource() = default;

ConntrackSource::Handle ConntrackSource::opened( unsigned groups ) {
   Handle handle( nfct_open( CONNTRACK, groups ) );
   if ( !handle ) {
      refuseFor( netns_, errno );
   }
   return handle;
}

// A socket keeps its namespace alive, but nobody can use that any more once its name is gone.
void ConntrackSource::awaitNamespace() {
   if ( !path_.empty() ) {
      removals_ = Descriptor( inotify_init1( IN_CLOEXEC | IN_NONBLOCK ) );
      inotify_add_watch( removals_.number(), namespaces, IN_DELETE | IN_DELETE_SELF );
   }
}

void ConntrackSource::requireNamespace() const {
   struct stat found {};
   if ( !path_.empty() && ( stat( path_.c_str(), &found ) != 0 || found.st_ino != inode_ ) ) {
      refuse( netns_, "the namespace was removed" );
   }
}

ConntrackSource::Received ConntrackSource::receive( Sink const & sink ) {
   Received received;
   char unread[ 4096 ];
   received.isDue = read( timer_.number(), unread, sizeof( unread ) ) > 0;
   if ( removals_ && read( removals_.number(), unread, sizeof( unread ) ) > 0 ) {
      requireNamespace();
   }
   Catch caught{ .sink = sink };
   nfct_callback_register2( events_.get(), NFCT_T_ALL, hand, &caught );
   while ( nfct_catch( events_.get() ) < 0 && errno != EAGAIN ) {
      if ( errno != ENOBUFS && errno != EINTR ) {
         refuseFor( netns_, errno );
      }
      received.isLoss = received.isLoss || errno == ENOBUFS;
   }
   nfct_callback_unregister2( events_.get() );
   pollfd left{ nfct_fd( events_.get() ), POLLIN, 0 };
   received.isAll = poll( &left, 1, 0 ) == 0;
   return received;
}

void ConntrackSource::dump( Sink const & sink ) {
   U32 family = AF_INET;
   Catch caught{ .sink = sink, .most = static_cast< std::size_t >( -1 ) };
   nfct_callback_register2( queries_.get(), NFCT_T_ALL, hand, &caught );
   auto const result = nfct_query( queries_.get(), NFCT_Q_DUMP, &family );
   int const error = errno;
   nfct_callback_unregister2( queries_.get() );
   if ( result < 0 ) {
      refuseFor( netns_, error );
   }
}

}  // namespace Agent
