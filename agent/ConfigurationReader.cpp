// The members that a configuration file may have, and what is made of their values.
#include "agent/Configuration.h"
#include "agent/JsonMembers.h"
#include "agent/MappingEntry.h"
#include "agent/TextFile.h"
#include "agent/UnusableInput.h"

#include <Orla/Ptr.h>
#include <Pfe/NatConnections.h>
#include <Vexa/HashMap.h>

#include <algorithm>
#include <string_view>
#include <utility>

namespace Agent {

namespace {

// --- Faults: a file is read to its end, so that all of them can be mended at once ------------------------------------

class Faults {
 public:
   // Runs the function; what it refuses is remembered.
   template< class Function > void collect( Function && function ) {
      try {
         function();
      } catch ( UnusableInput const & fault ) {
         if ( count_++ < mostShown ) {
            text_ += ( text_.empty() ? "" : "\n" ) + std::string( fault.what() );
         }
      }
   }

   bool any() const { return count_ > 0; }

   void throwThem( std::string const & file ) const {
      if ( count_ > mostShown ) {
         throw UnusableInput( text_ + "\n" + file + ": " + std::to_string( count_ - mostShown ) +
                              " more of this kind" );
      }
      if ( count_ > 0 ) {
         throw UnusableInput( text_ );
      }
   }

 private:
   static constexpr std::size_t mostShown = 20;
   std::size_t count_ = 0;
   std::string text_;
};

// --- Members ---------------------------------------------------------------------------------------------------------

struct ReplicationMembers : Replication {
   U16 number = 0;
};

constexpr Member< ReplicationMembers > replicationMembers[] = {
   { "number", into< &ReplicationMembers::number >, true },
   { "interface", into< &ReplicationMembers::intf >, true },
   { "source-address", into< &ReplicationMembers::sourceAddress > } };

struct GroupMembers {
   std::string_view name;
   JsonValue replications;
};

constexpr Member< GroupMembers > groupMembers[] = { { "name", into< &GroupMembers::name >, true },
                                                    { "replication", into< &GroupMembers::replications >, true } };

struct InstanceMembers {
   U32 id = 0;
   std::string_view name;
   bool enabled = true;
   JsonValue mappingTable;
   bool fragmentation = false;
   JsonValue groups;
};

constexpr Member< InstanceMembers > instanceMembers[] = {
   { "id", into< &InstanceMembers::id >, true },
   { "name", into< &InstanceMembers::name > },
   { "enable", into< &InstanceMembers::enabled > },
   { "mapping-table", into< &InstanceMembers::mappingTable > },
   { "pfe-nat:fragmentation", into< &InstanceMembers::fragmentation > },
   { "pfe-nat:multicast-group", into< &InstanceMembers::groups > } };

// The value of the one member that an object may have.
JsonValue onlyMember( JsonValue object, std::string_view name, bool required ) {
   Member< JsonValue > const members[] = { { name, take, required } };
   JsonValue value;
   takeMembers( object, members, value );
   return value;
}

JsonValue instanceOf( JsonValue root ) {
   auto const list =
      onlyMember( onlyMember( onlyMember( root, "ietf-nat:nat", true ), "instances", true ), "instance", true );
   detail::requireList( list );
   JsonValue instance;
   std::size_t count = 0;
   list.forEach( [ & ]( JsonValue element ) {
      instance = element;
      ++count;
   } );
   if ( count != 1 ) {
      refuse( list, "of " + std::to_string( count ) + " instances", "one instance per file" );
   }
   return instance;
}

// --- The whole -------------------------------------------------------------------------------------------------------

class Reader {
 public:
   Reader( JsonDocument const & document, std::string const & file ) : document_( document ) {
      result_.file = file;
      result_.rules = Orla::make< Pfe::NatProgrammerConfig >();
   }

   Configuration read() {
      faults_.collect( [ & ] { readInstance( instanceOf( document_.root() ) ); } );
      faults_.throwThem( result_.file );
      return std::move( result_ );
   }

 private:
   void readInstance( JsonValue place ) {
      InstanceMembers instance;
      takeMembers( place, instanceMembers, instance );
      result_.instanceId = instance.id;
      result_.instanceName = instance.name;
      result_.enabled = instance.enabled;
      result_.rules->fragmentationEnabledIs( instance.fragmentation );
      collectForEach( instance.groups, [ & ]( JsonValue value ) { readGroup( value ); } );
      // Entries that name a faulty group are not to be blamed for it.
      if ( instance.mappingTable && !faults_.any() ) {
         collectForEach( onlyMember( instance.mappingTable, "mapping-entry", false ),
                         [ & ]( JsonValue value ) { readEntry( value ); } );
      }
   }

   template< class Function > void collectForEach( JsonValue list, Function && function ) {
      if ( list ) {
         detail::requireList( list );
         list.forEach( [ & ]( JsonValue value ) { faults_.collect( [ & ] { function( value ); } ); } );
      }
   }

   void readGroup( JsonValue value ) {
      GroupMembers group;
      takeMembers( value, groupMembers, group );
      auto copies = std::make_shared< McastGroup >();
      forEachIn( group.replications, replicationMembers, [ & ]( JsonValue at, ReplicationMembers const & replication ) {
         if ( !copies->emplace( replication.number, replication ).second ) {
            refuse( at, "has the number " + std::to_string( replication.number ) + " of another replication",
                    "a number of its own" );
         }
      } );
      if ( !groups_.emplace( group.name, std::move( copies ) ).second ) {
         refuse( value, "has the name of another group", "a name of its own" );
      }
   }

   void readEntry( JsonValue value ) {
      auto connection = takeMappingEntry( value, groups_ );
      if ( !indexes_.is( connection.index ) ) {
         refuse( value, "has the index " + std::to_string( connection.index ) + " of another entry",
                 "an index of its own" );
      }
      auto const [ indexOfRow, isNew ] =
         indexOfRow_.refOrEmplace( ingressRowOf( connection, Ip::Nat::NatTarget::source ) );
      if ( !isNew ) {
         refuse( value, "derives the rows of entry " + std::to_string( indexOfRow ),
                 "one entry per interface, VRF, protocol and pair of addresses and ports, whichever side is written" );
      }
      indexOfRow = connection.index;
      result_.rules->staticEntryIs( connection.key, connection.entry );
      if ( result_.rules->staticEntry().count() == result_.connections.size() ) {
         auto const other = std::ranges::find( result_.connections, connection.key, &StaticConnection::key );
         refuse( value,
                 "has the interface, access list, internal address and internal port of entry " +
                    std::to_string( other->index ),
                 "one entry for each of them; the protocol does not tell entries apart" );
      }
      result_.connections.push_back( std::move( connection ) );
   }

   JsonDocument const & document_;
   Configuration result_;
   Faults faults_;
   McastGroups groups_;
   Vexa::HashSet< U32, 0x3C6EF372 > indexes_;
   Vexa::HashMap< Pfe::IngStaticNatTable::Key, U32, 0x7F4A7C15 > indexOfRow_;  // of the entry that derives it
};

}  // namespace

bool isMulticast( StaticConnection const & connection ) {
   return Pfe::staticConnectionIsMulticast( connection.key, connection.entry, true );
}

Pfe::IngStaticNatTable::Key ingressRowOf( StaticConnection const & connection, Ip::Nat::NatTarget target ) {
   auto const & rule = connection.entry->connection();
   Netix::IpAndPort const inKey{ connection.key.key.ip, connection.key.key.port };
   bool const keyIsMatched = target == rule.target;
   return { .natIntf = connection.key.natIntf.name(),
            .vrfId = connection.entry->vrfId(),
            .ipAndPortOld = keyIsMatched ? inKey : rule.translated,
            .ipAndPortNew = keyIsMatched ? rule.translated : inKey,
            .target = target,
            .protocol = rule.protocol,
            .fragment = false,
            .mcast = isMulticast( connection ) };
}

StaticConnection const * connectionOf( Pfe::IngStaticNatTable::Key const & row, Configuration const & configuration ) {
   auto const found = std::ranges::find_if( configuration.connections, [ & ]( StaticConnection const & connection ) {
      return ingressRowOf( connection, row.target ) == row;
   } );
   return found == configuration.connections.end() ? nullptr : &*found;
}

Configuration configurationFrom( std::string const & file ) {
   JsonDocument const document( file, textOfFile( file ) );
   return Reader( document, file ).read();
}

}  // namespace Agent
