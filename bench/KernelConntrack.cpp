// What does a learned connection cost here, and what in the connection tracking of the kernel, which is asked over
// netlink to translate the same one? Both in one process, in turn; the kernel's entries stand in a network namespace of
// the process's own. Both times hold the whole way of one connection, the system's from the configuration to the
// status, the kernel's from the message to its answer.
#include "Questions.h"
#include "Rounds.h"

#include <arpa/inet.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack_tcp.h>
#include <sched.h>

#include <cstdio>
#include <memory>

namespace Bench {

namespace {

using Entry = std::unique_ptr< nf_conntrack, decltype( &nfct_destroy ) >;
using Handle = std::unique_ptr< nfct_handle, decltype( &nfct_close ) >;

// What the kernel is to translate as the rule does.
Entry entryOf( DynamicRule const & rule ) {
   constexpr U32 seconds = 600;
   Entry result( nfct_new(), &nfct_destroy );
   auto * const entry = result.get();
   auto const & conn = rule.key.conn;
   nfct_set_attr_u8( entry, ATTR_L3PROTO, AF_INET );
   nfct_set_attr_u8( entry, ATTR_L4PROTO, conn.protocol );
   nfct_set_attr_u32( entry, ATTR_IPV4_SRC, htonl( conn.source.ip.value() ) );
   nfct_set_attr_u32( entry, ATTR_IPV4_DST, htonl( conn.destination.ip.value() ) );
   nfct_set_attr_u16( entry, ATTR_PORT_SRC, htons( conn.source.port ) );
   nfct_set_attr_u16( entry, ATTR_PORT_DST, htons( conn.destination.port ) );
   nfct_setobjopt( entry, NFCT_SOPT_SETUP_REPLY );
   nfct_set_attr_u8( entry, ATTR_TCP_STATE, TCP_CONNTRACK_ESTABLISHED );
   nfct_set_attr_u32( entry, ATTR_TIMEOUT, seconds );
   auto const & global = rule.entry->global();
   bool const isSource = rule.entry->connection().target == Ip::Nat::NatTarget::source;
   nfct_set_attr_u32( entry, isSource ? ATTR_SNAT_IPV4 : ATTR_DNAT_IPV4, htonl( global.ip.value() ) );
   nfct_set_attr_u16( entry, isSource ? ATTR_SNAT_PORT : ATTR_DNAT_PORT, htons( global.port ) );
   return result;
}

int count( nf_conntrack_msg_type, nf_conntrack * entry, void * counted ) {
   *static_cast< std::size_t * >( counted ) += ( nfct_get_attr_u32( entry, ATTR_STATUS ) & IPS_NAT_MASK ) != 0;
   return NFCT_CB_CONTINUE;
}

class KernelConntrack {
 public:
   explicit KernelConntrack( DynamicRules const & rules )
      : handle_( unshare( CLONE_NEWNET ) == 0 ? nfct_open( CONNTRACK, 0 ) : nullptr, &nfct_close ) {
      require( handle_ != nullptr, "there is a network namespace with connection tracking" );
      for ( auto const & rule : rules ) {
         entries_.push_back( entryOf( rule ) );
      }
   }

   // Makes all connections, then destroys them.
   Times round() {
      auto const added = timeOf( NFCT_Q_CREATE );
      require( translated() == entries_.size(), "the kernel translates every connection" );
      auto const deleted = timeOf( NFCT_Q_DESTROY );
      require( translated() == 0, "the kernel translates nothing any more" );
      return { added, deleted };
   }

 private:
   double timeOf( nf_conntrack_query query ) {
      bool all = true;
      Stopwatch const watch;
      for ( auto const & entry : entries_ ) {
         all = nfct_query( handle_.get(), query, entry.get() ) == 0 && all;
      }
      auto const ns = watch.ns();
      require( all, "the kernel takes every message" );
      return ns;
   }

   std::size_t translated() {
      std::size_t counted = 0;
      U32 const family = AF_INET;
      nfct_callback_register( handle_.get(), NFCT_T_ALL, &count, &counted );
      require( nfct_query( handle_.get(), NFCT_Q_DUMP, &family ) == 0, "the kernel lists its connections" );
      nfct_callback_unregister( handle_.get() );
      return counted;
   }

   Handle handle_;
   std::vector< Entry > entries_;
};

Figures sideBySide( std::size_t n, Operation operation ) {
   Workload const workload{ .count = n, .addresses = n, .fragmentation = false };
   auto const rules = naptRules( n, n );
   KernelConntrack kernel( rules );
   return pairedRounds(
      n, [ & ] { return timeOf( operation, systemRound( workload, rules, rules ) ); },
      [ & ] { return timeOf( operation, kernel.round() ); }, "kernel" );
}

bool isPermitted() {
   auto const tried = [] {
      bool const permitted =
         unshare( CLONE_NEWNET ) == 0 && Handle( nfct_open( CONNTRACK, 0 ), &nfct_close ) != nullptr;
      return Figures{ { "permitted", permitted } };
   };
   return inOwnProcess( tried )[ "permitted" ] != 0;
}

}  // namespace

void registerKernelConntrack() {
   if ( !isPermitted() ) {
      std::fputs(
         "nat-bench: kernel-conntrack is skipped: no network namespace with connection tracking is permitted\n",
         stderr );
      return;
   }
   for ( auto const n : connectionCounts ) {
      caseIs( "kernel-conntrack-add", n, [ = ] { return sideBySide( n, Operation::add ); } );
      caseIs( "kernel-conntrack-delete", n, [ = ] { return sideBySide( n, Operation::del ); } );
   }
}

}  // namespace Bench
