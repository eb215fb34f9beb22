// The members that a configuration file may have, and what is made of their values.
#include "agent/basics/TextFile.h"
#include "agent/basics/UnusableInput.h"
#include "agent/configuration/Configuration.h"
#include "agent/configuration/JsonMembers.h"
#include "agent/configuration/MappingEntry.h"
#include "agent/configuration/RuleClaims.h"
#include "agent/configuration/TrapEntry.h"

#include <Bridging/VlanId.h>
#include <Netix/VrfId.h>
#include <Orla/Ptr.h>
#include <Vexa/HashMap.h>

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

namespace Agent {

namespace {

// --- Members ---------------------------------------------------------------------------------------------------------

struct ReplicationMembers : Replication {
   U16 number = 0;
};

void takeSource( JsonValue value, ReplicationMembers & replication ) {
   take( value, replication.sourceAddress );
   constexpr U32 firstOfNoHost = 0xe0000000;  // 224.0.0.0
   if ( replication.sourceAddress.value() >= firstOfNoHost ) {
      refuse( value, "is no source of packets", "a unicast address, below 224.0.0.0" );
   }
}

constexpr Member< ReplicationMembers > replicationMembers[] = {
   { "number", into< &ReplicationMembers::number >, true },
   { "interface", into< &ReplicationMembers::intf >, true },
   { "source-address", takeSource } };

struct GroupMembers {
   std::string_view name;
   JsonValue replications;
};

constexpr Member< GroupMembers > groupMembers[] = { { "name", into< &GroupMembers::name >, true },
                                                    { "replication", into< &GroupMembers::replications >, true } };

struct ProfileMembers {
   U16 vlan = 0;
   U16 profile = 0;
};

constexpr Member< ProfileMembers > profileMembers[] = {
   { "vlan", within< &ProfileMembers::vlan, Bridging::VlanId::min, Bridging::VlanId::max >, true },
   { "profile", into< &ProfileMembers::profile >, true } };

struct DetectionMembers {
   U8 protocol = 0;
};

constexpr Member< DetectionMembers > detectionMembers[] = { { "protocol", into< &DetectionMembers::protocol >, true } };

struct PortMembers : PortDevice {
   std::string_view name;
};

constexpr Member< PortMembers > portMembers[] = { { "interface", into< &PortMembers::intf >, true },
                                                  { "device", into< &PortMembers::name >, true },
                                                  { "vrf", within< &PortMembers::vrfId, 0, Netix::VrfId::max > } };

struct InstanceMembers : Settings {
   U32 id = 0;
   std::string_view name;
   bool enabled = true;
   JsonValue mappingTable;
   JsonValue detections;
   JsonValue profiles;
   JsonValue traps;
   JsonValue groups;
   JsonValue ports;
};

constexpr Member< InstanceMembers > instanceMembers[] = {
   { "id", into< &InstanceMembers::id >, true },
   { "name", into< &InstanceMembers::name > },
   { "enable", into< &InstanceMembers::enabled > },
   { "mapping-table", into< &InstanceMembers::mappingTable > },
   { "pfe-nat:fragmentation", into< &InstanceMembers::fragmentation > },
   { "pfe-nat:vrf-less", into< &InstanceMembers::vrfLess > },
   { "pfe-nat:full-cone-capability", into< &InstanceMembers::fullConeProgrammed > },
   { "pfe-nat:l4-detection", into< &InstanceMembers::detections > },
   { "pfe-nat:vlan-profile", into< &InstanceMembers::profiles > },
   { "pfe-nat:trap", into< &InstanceMembers::traps > },
   { "pfe-nat:multicast-group", into< &InstanceMembers::groups > },
   { "pfe-nat:port", into< &InstanceMembers::ports > } };

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
      collect( [ & ] { readInstance( instanceOf( document_.root() ) ); } );
      faults_.throwAll( result_.file );
      return std::move( result_ );
   }

 private:
   void readInstance( JsonValue place ) {
      InstanceMembers instance;
      takeMembers( place, instanceMembers, instance );
      collect( [ & ] { readDetections( instance ); } );
      result_.instanceId = instance.id;
      result_.instanceName = instance.name;
      result_.enabled = instance.enabled;
      result_.settings = instance;
      result_.rules->fragmentationEnabledIs( instance.fragmentation );
      result_.rules->vrfLessIs( instance.vrfLess );
      collect( [ & ] { readProfiles( instance.profiles ); } );
      collect( [ & ] { readPorts( instance.ports ); } );
      collectForEach( instance.traps, [ & ]( JsonValue value ) { readTrap( value ); } );
      collectForEach( instance.groups, [ & ]( JsonValue value ) { readGroup( value ); } );
      // Entries that name a faulty group are not to be blamed for it.
      if ( instance.mappingTable && !faults_.any() ) {
         collectForEach( onlyMember( instance.mappingTable, "mapping-entry", false ),
                         [ & ]( JsonValue value ) { readEntry( value ); } );
      }
   }

   static void readDetections( InstanceMembers & instance ) {
      forEachIn( instance.detections, detectionMembers, [ & ]( JsonValue value, DetectionMembers const & detection ) {
         if ( instance.l4Detected[ detection.protocol ] ) {
            refuse( value, "has the protocol " + std::to_string( detection.protocol ) + " of another detection",
                    "one detection per protocol" );
         }
         instance.l4Detected.set( detection.protocol );
      } );
   }

   void readProfiles( JsonValue list ) {
      forEachIn( list, profileMembers, [ & ]( JsonValue value, ProfileMembers const & members ) {
         if ( !result_.profiles.emplace( members.vlan, members.profile ).second ) {
            refuse( value, "has the VLAN " + std::to_string( members.vlan ) + " of another profile",
                    "one profile per VLAN" );
         }
      } );
   }

   void readPorts( JsonValue list ) {
      forEachIn( list, portMembers, [ & ]( JsonValue value, PortMembers & port ) {
         port.device = port.name;
         for ( auto const & other : result_.ports ) {
            if ( other.intf == port.intf || other.device == port.device ) {
               refuse( value, "has the interface or the device of another port", "one port for each of them" );
            }
         }
         result_.ports.push_back( port );
      } );
   }

   void readTrap( JsonValue value ) {
      auto trap = takeTrap( value );
      auto const & key = trap.key.key;
      bool const isNew = traps_.insert( { key.aclName, key.poolId, trap.entry->rule().ruleId } ).second;
      if ( !isNew || result_.rules->trapEntry().has( trap.key ) ) {
         refuse( value,
                 "has the access list, pool and rule id, or the interface, access list and pool, of another trap",
                 "one trap for each of them" );
      }
      result_.rules->trapEntryIs( trap.key, trap.entry );
      result_.traps.push_back( std::move( trap ) );
   }

   // Runs the function; what it refuses is told at the end.
   template< class Function > void collect( Function && function ) {
      try {
         function();
      } catch ( Refusal const & refusal ) {
         faults_.add( [ & ] { return refusal.line(); } );
      }
   }

   template< class Function > void collectForEach( JsonValue list, Function && function ) {
      if ( list ) {
         detail::requireList( list );
         list.forEach( [ & ]( JsonValue value ) {
            // A file may be full of what takes less time to write than to refuse.
            if ( faults_.areOnlyCounted() && !hasMembers( value ) ) {
               faults_.add( [] { return ""; } );
            } else {
               collect( [ & ] { function( value ); } );
            }
         } );
      }
   }

   // Without any it lacks required ones.
   static bool hasMembers( JsonValue value ) {
      bool found = false;
      if ( value.kind() == JsonDocument::Kind::object ) {
         value.forEach( [ & ]( JsonValue ) { found = true; } );
      }
      return found;
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
      auto const index = *connection.index;
      if ( !indexes_.is( index ) ) {
         refuse( value, "has the index " + std::to_string( index ) + " of another entry", "an index of its own" );
      }
      if ( auto const conflict = claims_.claim( connection, result_, !faults_.areOnlyCounted() ) ) {
         refuse( value, conflict->why, conflict->allowed );
      }
      add( result_, std::move( connection ) );
   }

   JsonDocument const & document_;
   Configuration result_;
   Faults faults_;
   McastGroups groups_;
   Vexa::HashSet< U32, 0x3C6EF372 > indexes_;
   RuleClaims claims_;
   std::set< Pfe::NatTrapKey > traps_;
};

}  // namespace

Configuration configurationIn( std::string const & file, std::string_view text ) {
   JsonDocument const document( file, text );
   return Reader( document, file ).read();
}

Configuration configurationFrom( std::string const & file ) { return configurationIn( file, textOfFile( file ) ); }

}  // namespace Agent
