// The members that a configuration file may have, and what is made of their values.
#include "agent/Configuration.h"
#include "agent/JsonMembers.h"
#include "agent/MappingEntry.h"
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

// --- Multicast groups ------------------------------------------------------------------------------------------------

struct ReplicationMembers {
   U16 number = 0;
   Replication replication;
};

struct GroupMembers {
   std::string_view name;
   std::shared_ptr< McastGroup > copies = std::make_shared< McastGroup >();
};

constexpr Member< ReplicationMembers > replicationMembers[] = {
   { "number", []( JsonValue value, ReplicationMembers & r ) { takeNumber( value, r.number ); }, true },
   { "interface", []( JsonValue value, ReplicationMembers & r ) { r.replication.intf = takeInterface( value ); },
     true },
   { "source-address",
     []( JsonValue value, ReplicationMembers & r ) { r.replication.sourceAddress = takeHost( value ); } } };

void takeReplications( JsonValue list, GroupMembers & group ) {
   requireList( list );
   list.forEach( [ & ]( JsonValue value ) {
      ReplicationMembers members;
      takeMembers( value, replicationMembers, members );
      if ( !group.copies->emplace( members.number, members.replication ).second ) {
         refuse( value, "has the number " + std::to_string( members.number ) + " of another replication",
                 "a number of its own" );
      }
   } );
}

constexpr Member< GroupMembers > groupMembers[] = {
   { "name", []( JsonValue value, GroupMembers & group ) { group.name = takeName( value ); }, true },
   { "replication", &takeReplications, true } };

// --- Instance --------------------------------------------------------------------------------------------------------

struct InstanceMembers {
   U32 id = 0;
   std::string_view name;
   bool enabled = true;
   bool fragmentation = false;
   JsonValue groups;
   JsonValue entries;
};

void takeMappingTable( JsonValue value, InstanceMembers & instance ) {
   static constexpr Member< InstanceMembers > members[] = {
      { "mapping-entry", []( JsonValue list, InstanceMembers & i ) {
          requireList( list );
          i.entries = list;
       } } };
   takeMembers( value, members, instance );
}

constexpr Member< InstanceMembers > instanceMembers[] = {
   { "id", []( JsonValue value, InstanceMembers & i ) { takeNumber( value, i.id ); }, true },
   { "name", []( JsonValue value, InstanceMembers & i ) { i.name = takeName( value ); } },
   { "enable", []( JsonValue value, InstanceMembers & i ) { i.enabled = takeFlag( value ); } },
   { "mapping-table", &takeMappingTable },
   { "pfe-nat:fragmentation", []( JsonValue value, InstanceMembers & i ) { i.fragmentation = takeFlag( value ); } },
   { "pfe-nat:multicast-group", []( JsonValue value, InstanceMembers & i ) {
       requireList( value );
       i.groups = value;
    } } };

void takeInstances( JsonValue value, JsonValue & instance ) {
   static constexpr Member< JsonValue > members[] = {
      { "instance",
        []( JsonValue list, JsonValue & found ) {
           requireList( list );
           std::size_t count = 0;
           list.forEach( [ & ]( JsonValue element ) {
              found = element;
              ++count;
           } );
           if ( count != 1 ) {
              refuse( list, "of " + std::to_string( count ) + " instances", "one instance per file" );
           }
        },
        true } };
   takeMembers( value, members, instance );
}

JsonValue instanceOf( JsonValue root ) {
   static constexpr Member< JsonValue > natMembers[] = { { "instances", &takeInstances, true } };
   static constexpr Member< JsonValue > topMembers[] = {
      { "ietf-nat:nat", []( JsonValue value, JsonValue & instance ) { takeMembers( value, natMembers, instance ); },
        true } };
   JsonValue instance;
   takeMembers( root, topMembers, instance );
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
      readGroups( instance.groups );
      // Entries that name a faulty group are not to be blamed for it.
      if ( instance.entries && !faults_.any() ) {
         instance.entries.forEach( [ & ]( JsonValue value ) { faults_.collect( [ & ] { readEntry( value ); } ); } );
      }
   }

   void readGroups( JsonValue groups ) {
      if ( groups ) {
         groups.forEach( [ & ]( JsonValue value ) {
            faults_.collect( [ & ] {
               GroupMembers group;
               takeMembers( value, groupMembers, group );
               if ( !groups_.emplace( group.name, group.copies ).second ) {
                  refuse( value, "has the name of another group", "a name of its own" );
               }
            } );
         } );
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

Configuration configurationFrom( std::string const & file ) {
   auto const document = JsonDocument::read( file );
   return Reader( *document, file ).read();
}

}  // namespace Agent
