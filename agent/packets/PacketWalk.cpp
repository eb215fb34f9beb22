#include "agent/packets/PacketWalk.h"

#include "agent/basics/Text.h"
#include "agent/packets/RowMatch.h"

#include <Vexa/Value.h>

#include <algorithm>
#include <bit>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>

namespace Agent {

namespace {

using Pfe::IngStaticNatTable;

// --- Beside the rows -------------------------------------------------------------------------------------------------

bool isIn( Netix::IpAddrWithFullMask const & prefix, Netix::IpAddr ip ) {
   return ( ip.value() & prefix.mask.value() ) == prefix.address.value();
}

Permission permissionOf( Ip::Nat::NatFilter const & filter, Packet const & packet ) {
   if ( !isIn( filter.source, packet.source.ip ) || !isIn( filter.destination, packet.destination.ip ) ) {
      return Permission::refused;
   }
   bool const asksForPorts = filter.sourcePort != 0 || filter.destinationPort != 0;
   if ( asksForPorts && packet.part == Packet::Part::laterFragment ) {
      return Permission::unknown;
   }
   auto const isPort = []( U16 wanted, U16 port ) { return wanted == 0 || wanted == port; };
   return isPort( filter.sourcePort, packet.source.port ) && isPort( filter.destinationPort, packet.destination.port )
             ? Permission::given
             : Permission::refused;
}

// One filter that permits is enough.
Permission permissionOf( IngStaticNatTable::Entry const & entry, Packet const & packet ) {
   auto best = entry.filters.empty() ? Permission::given : Permission::refused;
   for ( auto const & filter : entry.filters ) {
      best = std::min( best, permissionOf( filter, packet ), []( Permission a, Permission b ) {
         return a != b && ( a == Permission::given || b == Permission::refused );
      } );
   }
   return best == Permission::given && entry.aclId != 0 ? Permission::unknown : best;
}

// As the row leaves it, for what the row translates.
Packet translated( Packet packet, IngStaticNatTable::Key const & row ) {
   auto & pair = row.target == Ip::Nat::NatTarget::source ? packet.source : packet.destination;
   auto const port = row.ipAndPortNew.port == 0 || row.fragment ? pair.port : row.ipAndPortNew.port;
   pair = { row.ipAndPortNew.ip, port };
   return packet;
}

Packet rewritten( Packet packet, Pfe::EgrNatUcRewriteEntry const & rewrite ) {
   auto const hasPorts = packet.part != Packet::Part::laterFragment;
   auto const write = [ & ]( Netix::IpAndPort & pair, Netix::IpAddr ip, U16 port ) {
      pair.ip = ip == Netix::IpAddr() ? pair.ip : ip;
      pair.port = port == 0 || !hasPorts ? pair.port : port;
   };
   write( packet.source, rewrite.srcIp, rewrite.srcPort );
   write( packet.destination, rewrite.dstIp, rewrite.dstPort );
   return packet;
}

Packet rewritten( Packet packet, Pfe::EgrNatMcRewriteEntry const & rewrite ) {
   packet.source.ip = rewrite.srcIp == Netix::IpAddr() ? packet.source.ip : rewrite.srcIp;
   packet.destination.ip = rewrite.dstIp == Netix::IpAddr() ? packet.destination.ip : rewrite.dstIp;
   packet.out = Netix::IntfId::fromValue( rewrite.egressIntf ).value_or( packet.out );
   return packet;
}

// --- Looking up ------------------------------------------------------------------------------------------------------

// Places of a list by a hash, which several may share.
class ByHash {
 public:
   // For that many; places are added in their order.
   explicit ByHash( std::size_t count ) : heads_( std::bit_ceil( count + 1 ), none ) { links_.reserve( count ); }

   void add( U32 hash ) {
      auto & head = heads_[ hash & ( heads_.size() - 1 ) ];
      links_.push_back( { hash, head } );
      head = static_cast< U32 >( links_.size() - 1 );
   }

   // Calls function( place ) for each whose hash it is.
   template< class Function > void forEach( U32 hash, Function && function ) const {
      for ( auto place = heads_[ hash & ( heads_.size() - 1 ) ]; place != none; place = links_[ place ].next ) {
         if ( links_[ place ].hash == hash ) {
            function( place );
         }
      }
   }

 private:
   static constexpr U32 none = ~U32{ 0 };
   struct Link {
      U32 hash;
      U32 next;
   };
   std::vector< U32 > heads_;
   std::vector< Link > links_;
};

// The rows of an ingress table by what they ask.
template< class Table > class IngressIndex {
 public:
   IngressIndex( Table const & table, bool vrfLess ) : vrfLess_( vrfLess ), byConditions_( table.rowCount() ) {
      keys_.reserve( table.rowCount() );
      table.forEach( [ & ]( auto const & key, auto const &, Asic::EntryHandle const & ) {
         keys_.push_back( &key );
         byConditions_.add( hashOf( conditionsOf( key, vrfLess ) ) );
      } );
   }

   // Calls function( key ) for the rows that ask for just that.
   template< class Function > void forEach( Conditions const & conditions, Function && function ) const {
      byConditions_.forEach( hashOf( conditions ), [ & ]( U32 place ) {
         if ( conditionsOf( *keys_[ place ], vrfLess_ ) == conditions ) {
            function( *keys_[ place ] );
         }
      } );
   }

 private:
   bool vrfLess_;
   std::vector< typename Table::Key const * > keys_;
   ByHash byConditions_;
};

U32 hashOf( Pfe::IngNatTableKey const & row ) { return Vexa::hash( row, 0x1F83D9AB ); }

// The connections by the rows that they derive.
class ConnectionIndex {
 public:
   explicit ConnectionIndex( Configuration const * configuration )
      : configuration_( configuration ), byRow_( configuration ? 2 * configuration->connections.size() : 0 ) {
      for ( std::size_t i = 0; configuration && i < configuration->connections.size(); ++i ) {
         for ( auto const & row : ingressRowsOf( configuration->connections[ i ], configuration->settings ) ) {
            connections_.push_back( static_cast< U32 >( i ) );
            byRow_.add( hashOf( row ) );
         }
      }
   }

   Connection const * find( Pfe::IngNatTableKey const & row ) const {
      Connection const * found = nullptr;
      byRow_.forEach( hashOf( row ), [ & ]( U32 place ) {
         auto const & connection = configuration_->connections[ connections_[ place ] ];
         auto const rows = ingressRowsOf( connection, configuration_->settings );
         found = std::find( rows.begin(), rows.end(), row ) == rows.end() ? found : &connection;
      } );
      return found;
   }

 private:
   Configuration const * configuration_;  // null: none
   std::vector< U32 > connections_;
   ByHash byRow_;
};

}  // namespace

class PacketWalk::Impl {
 public:
   Impl( NatTables const & tables, Interfaces interfaces, Configuration const * configuration )
      : tables_( tables ),
        interfaces_( std::move( interfaces ) ),
        connections_( configuration ),
        ingress_( IngressIndex( *tables.of< Pfe::IngTwiceNatTable >(), interfaces_.vrfLess ),
                  IngressIndex( *tables.of< IngStaticNatTable >(), interfaces_.vrfLess ),
                  IngressIndex( *tables.of< Pfe::IngDynamicSnaptTable >(), interfaces_.vrfLess ),
                  IngressIndex( *tables.of< Pfe::IngDynamicDnaptTable >(), interfaces_.vrfLess ),
                  IngressIndex( *tables.of< Pfe::IngDynamicSnatAddrOnlyTable >(), interfaces_.vrfLess ),
                  IngressIndex( *tables.of< Pfe::IngDynamicDnatAddrOnlyTable >(), interfaces_.vrfLess ) ) {}

   ConnectionIndex const & connections() const { return connections_; }

   Passage passageOf( Packet const & packet ) const {
      Found found;
      lookUpIn< Pfe::IngTwiceNatTable >( packet, found );
      lookUpIn< IngStaticNatTable >( packet, found );
      lookUpIn< Pfe::IngDynamicSnaptTable, Pfe::IngDynamicDnaptTable >( packet, found );
      lookUpIn< Pfe::IngDynamicSnatAddrOnlyTable, Pfe::IngDynamicDnatAddrOnlyTable >( packet, found );
      auto & passage = found.passage;
      if ( found.rewrites.size() == 1 ) {
         found.rewrites.front()->forEach(
            [ & ]( Asic::EntryHandle::PtrConst const & handle, bool ) { addCopy( *handle, packet, passage.copies ); } );
      }
      for ( auto * const rows : { &passage.matches, &passage.missing, &passage.refused } ) {
         std::ranges::sort( *rows, {}, &IngressRow::key );
      }
      return std::move( passage );
   }

 private:
   // Of one packet so far.
   struct Found {
      Passage passage;
      std::vector< Asic::HandleList const * > rewrites;  // of the matches
      unsigned best = 0;
   };

   // Tables of one kind of rule, unless those of one before had a match.
   template< class... Tables > void lookUpIn( Packet const & packet, Found & found ) const {
      if ( found.rewrites.empty() ) {
         found.best = ~0U;
         ( lookUpInOne< Tables >( packet, found ), ... );
      }
   }

   template< class Table > void lookUpInOne( Packet const & packet, Found & found ) const {
      auto const & table = *tables_.of< Table >();
      if ( table.rowCount() == 0 ) {
         return;
      }
      for ( auto const & match : matchesOf< Table >( packet, interfaces_ ) ) {
         std::get< IngressIndex< Table > >( ingress_ ).forEach( match.conditions, [ & ]( auto const & key ) {
            auto const * const held = table.hardwareEntry( key );
            IngressRow row{ .table = table.name(), .key = key };
            if ( !held ) {
               found.passage.missing.push_back( std::move( row ) );
               return;
            }
            if constexpr ( std::is_same_v< Table, IngStaticNatTable > ) {
               row.permission = permissionOf( key, *held, packet );
            }
            if ( row.permission == Permission::refused ) {
               found.passage.refused.push_back( std::move( row ) );
               return;
            }
            if ( match.rank < found.best ) {
               found.best = match.rank;
               found.rewrites.clear();
               found.passage.matches.clear();
            }
            if ( match.rank == found.best ) {
               found.rewrites.push_back( &held->egrHdl );
               found.passage.matches.push_back( std::move( row ) );
            }
         } );
      }
   }

   Permission permissionOf( IngStaticNatTable::Key const & key, IngStaticNatTable::Entry const & entry,
                            Packet const & packet ) const {
      if ( entry.filters.empty() ) {
         return Agent::permissionOf( entry, packet );
      }
      auto const * const connection = connections_.find( key );
      auto const * const rule = connection ? std::get_if< StaticRule >( &connection->rule ) : nullptr;
      if ( !rule ) {
         return Permission::unknown;
      }
      bool const isAnswer = rule->entry->connection().target != key.target;
      return Agent::permissionOf( entry, isAnswer ? replyTo( translated( packet, key ) ) : packet );
   }

   void addCopy( Asic::EntryHandle const & handle, Packet const & packet, std::vector< Copy > & copies ) const {
      tables_.forEachEgress( [ & ]( auto const & table ) {
         auto const key = keyOf( table, handle );
         if ( auto const * const held = key ? table.hardwareEntry( *key ) : nullptr ) {
            copies.push_back( { table.name(), fieldsOf( *key ), rewritten( packet, *held ) } );
         }
      } );
   }

   NatTables const & tables_;
   Interfaces interfaces_;
   ConnectionIndex connections_;
   std::tuple< IngressIndex< Pfe::IngTwiceNatTable >, IngressIndex< IngStaticNatTable >,
               IngressIndex< Pfe::IngDynamicSnaptTable >, IngressIndex< Pfe::IngDynamicDnaptTable >,
               IngressIndex< Pfe::IngDynamicSnatAddrOnlyTable >, IngressIndex< Pfe::IngDynamicDnatAddrOnlyTable > >
      ingress_;
};

PacketWalk::PacketWalk( NatTables const & tables, Interfaces interfaces )
   : impl_( std::make_unique< Impl >( tables, std::move( interfaces ), nullptr ) ) {}

PacketWalk::PacketWalk( NatTables const & tables, Configuration const & configuration )
   : impl_( std::make_unique< Impl >( tables, Interfaces{ configuration.qualifiers, configuration.settings.vrfLess },
                                      &configuration ) ) {}

PacketWalk::~PacketWalk() = default;
PacketWalk::PacketWalk( PacketWalk && ) noexcept = default;
PacketWalk & PacketWalk::operator=( PacketWalk && ) noexcept = default;

Passage PacketWalk::passageOf( Packet const & packet ) const { return impl_->passageOf( packet ); }

Connection const * PacketWalk::connectionOf( Pfe::IngNatTableKey const & row ) const {
   return impl_->connections().find( row );
}

Packet replyTo( Packet const & packet ) {
   Packet reply = packet;
   std::swap( reply.in, reply.out );
   std::swap( reply.source, reply.destination );
   return reply;
}

}  // namespace Agent
