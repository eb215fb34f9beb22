#include "chip/Pins.h"

#include <bpf/bpf.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>

namespace Ebpf {

namespace fs = std::filesystem;

std::string withErrno( std::string const & what ) { return what + ": " + std::strerror( errno ); }

std::string withoutDots( std::string name ) {
   std::ranges::replace( name, '.', ':' );
   return name;
}

std::string withDots( std::string name ) {
   std::ranges::replace( name, ':', '.' );
   return name;
}

// --- The folder ------------------------------------------------------------------------------------------------------

Pins::Pins( Place const & place ) : folder_( place.bpffs + "/pfe-nat/" + withoutDots( place.name ) ) {
   if ( place.name.empty() || place.name.find( '/' ) != std::string::npos ) {
      throw Refusal( '"' + place.name + "\": not the name of a chip; allowed: the name of a file" );
   }
}

std::string Pins::pathOf( std::string_view kind, std::string const & name ) const {
   return folder_ + '/' + std::string( kind ) + '/' + name;
}

bool Pins::exists() const { return fs::exists( folder_ ); }

void Pins::create() const {
   auto const parent = fs::path( folder_ ).parent_path().string();
   for ( auto const & path : { parent, folder_, folder_ + "/maps", folder_ + "/programs", folder_ + "/links" } ) {
      if ( mkdir( path.c_str(), S_IRWXU ) != 0 && errno != EEXIST ) {
         throw Refusal( withErrno( path + ": can not be made" ) );
      }
      // Whoever owns a folder above the pins may put others in their place.
      struct stat made {};
      if ( stat( path.c_str(), &made ) != 0 || made.st_uid != geteuid() ||
           ( made.st_mode & ( S_IWGRP | S_IWOTH ) ) != 0 ) {
         throw Refusal( path +
                        ": belongs to somebody else, or others may write there; allowed: a folder of the agent's own" );
      }
   }
}

void Pins::removeAll() const {
   std::error_code fault;
   // Links first: as long as one lives its program runs, and looks into maps.
   for ( auto const * const kind : { "/links", "/programs", "/maps", "" } ) {
      fs::remove_all( folder_ + kind, fault );
      if ( fault ) {
         throw Refusal( folder_ + kind + ": can not be removed: " + fault.message() );
      }
   }
   fs::remove( fs::path( folder_ ).parent_path(), fault );  // unless other chips are there
}

Descriptor Pins::open( std::string_view kind, std::string const & name ) const {
   return Descriptor( bpf_obj_get( pathOf( kind, name ).c_str() ) );
}

Descriptor Pins::openMap( std::string const & name ) const {
   auto map = open( "maps", name );
   if ( !map ) {
      throw Refusal( withErrno( pathOf( "maps", name ) + ": can not be opened" ) );
   }
   return map;
}

void Pins::pin( std::string_view kind, std::string const & name, int descriptor ) const {
   if ( bpf_obj_pin( descriptor, pathOf( kind, name ).c_str() ) != 0 ) {
      throw Refusal( withErrno( pathOf( kind, name ) + ": can not be pinned" ) );
   }
}

void Pins::pinAnew( std::string_view kind, std::string const & name, int descriptor ) const {
   auto const next = name + "-next";
   unpin( kind, next );
   pin( kind, next, descriptor );
   if ( rename( pathOf( kind, next ).c_str(), pathOf( kind, name ).c_str() ) != 0 ) {
      throw Refusal( withErrno( pathOf( kind, name ) + ": can not be replaced" ) );
   }
}

void Pins::unpin( std::string_view kind, std::string const & name ) const {
   std::error_code absent;
   fs::remove( pathOf( kind, name ), absent );
}

std::vector< std::string > Pins::namesOf( std::string_view kind ) const {
   std::vector< std::string > names;
   std::error_code absent;
   for ( auto const & entry : fs::directory_iterator( folder_ + '/' + std::string( kind ), absent ) ) {
      names.push_back( entry.path().filename() );
   }
   std::ranges::sort( names );
   return names;
}

std::optional< ChipMarker > Pins::marker() const {
   auto const map = open( "maps", "marker" );
   U32 const first = 0;
   ChipMarker marker{};
   bpf_map_info info{};
   U32 size = sizeof info;
   bool const isRead = map && bpf_obj_get_info_by_fd( map.number(), &info, &size ) == 0 &&
                       info.value_size == sizeof marker && bpf_map_lookup_elem( map.number(), &first, &marker ) == 0 &&
                       marker.layoutVersion != 0;
   return isRead ? std::optional( marker ) : std::nullopt;
}

void Pins::markerIs( ChipMarker const & marker ) const {
   U32 const first = 0;
   if ( bpf_map_update_elem( openMap( "marker" ).number(), &first, &marker, BPF_ANY ) != 0 ) {
      throw Refusal( withErrno( pathOf( "maps", "marker" ) + ": can not be written" ) );
   }
}

// --- What it takes ---------------------------------------------------------------------------------------------------

void requireBpffs( Place const & place ) {
   struct statfs found {};
   if ( statfs( place.bpffs.c_str(), &found ) != 0 ) {
      throw Refusal( withErrno( place.bpffs ) );
   }
   if ( static_cast< U64 >( found.f_type ) != BPF_FS_MAGIC ) {
      throw Refusal( place.bpffs + ": no file system of pins is mounted there; as root:  mount -t bpf bpf " +
                     place.bpffs );
   }
}

void requireCapabilities( bool inOtherNamespace ) {
   constexpr U64 sysAdmin = U64{ 1 } << 21;
   struct {
      char const * name;
      U64 bits;
   } const wanted[] = { { "CAP_NET_ADMIN", U64{ 1 } << 12 },
                        { "CAP_PERFMON", U64{ 1 } << 38 | sysAdmin },
                        { "CAP_BPF", U64{ 1 } << 39 | sysAdmin },
                        { "CAP_SYS_ADMIN", inOtherNamespace ? sysAdmin : ~U64{ 0 } } };
   std::ifstream status( "/proc/self/status" );
   U64 effective = 0;
   for ( std::string word; status >> word; ) {
      if ( word == "CapEff:" ) {
         status >> std::hex >> effective;
         break;
      }
   }
   std::string missing;
   for ( auto const & [ name, bits ] : wanted ) {
      if ( ( effective & bits ) == 0 ) {
         missing += ( missing.empty() ? "" : ", " ) + std::string( name );
      }
   }
   if ( !missing.empty() ) {
      throw Refusal( "the process lacks " + missing + ": a chip in the kernel needs them, as root has them" );
   }
}

namespace {

std::optional< U64 > numberIn( std::string const & file ) {
   U64 number = 0;
   return std::ifstream( file ) >> number ? std::optional( number ) : std::nullopt;  // "max": none
}

struct Room {
   std::string of;
   U64 bytes = std::numeric_limits< U64 >::max();
};

void lessen( Room & room, std::string const & of, std::optional< U64 > limit, std::optional< U64 > used ) {
   if ( limit && used ) {
      auto const left = *limit - std::min( *limit, *used );
      if ( left < room.bytes ) {
         room = { of, left };
      }
   }
}

// Of the control group and those above it, by either version of the file system.
void lessenByGroups( Room & room ) {
   std::ifstream groups( "/proc/self/cgroup" );
   for ( std::string line; std::getline( groups, line ); ) {
      std::istringstream fields( line );
      std::string number, kinds, path;
      std::getline( fields, number, ':' );
      std::getline( fields, kinds, ':' );
      std::getline( fields, path );
      bool const isFirstVersion = kinds == "memory";
      if ( !isFirstVersion && !kinds.empty() ) {
         continue;
      }
      for ( auto group = fs::path( path ); group.has_relative_path(); group = group.parent_path() ) {
         auto const folder = "/sys/fs/cgroup" + std::string( isFirstVersion ? "/memory" : "" ) + group.string();
         auto const limit = folder + ( isFirstVersion ? "/memory.limit_in_bytes" : "/memory.max" );
         auto const used = folder + ( isFirstVersion ? "/memory.usage_in_bytes" : "/memory.current" );
         lessen( room, limit, numberIn( limit ), numberIn( used ) );
      }
   }
}

}  // namespace

void requireMemory( U64 bytes ) {
   Room room;
   std::ifstream memory( "/proc/meminfo" );
   for ( std::string name; memory >> name; ) {
      if ( name == "MemAvailable:" ) {
         U64 kibibytes = 0;
         memory >> kibibytes;
         lessen( room, "MemAvailable of /proc/meminfo", kibibytes << 10, 0 );
      }
   }
   lessenByGroups( room );
   if ( bytes > room.bytes ) {
      throw Refusal( "the chip's tables need " + std::to_string( bytes >> 20 ) + " MiB, and " + room.of + " leaves " +
                     std::to_string( room.bytes >> 20 ) + " MiB; fewer rows per table need less" );
   }
}

// --- Network namespaces ----------------------------------------------------------------------------------------------

void inNamespace( std::string const & name, std::function< void() > const & function ) {
   if ( name.empty() ) {
      return function();
   }
   auto const path = name.find( '/' ) == std::string::npos ? "/run/netns/" + name : name;
   Descriptor const other( ::open( path.c_str(), O_RDONLY | O_CLOEXEC ) );
   Descriptor const own( ::open( "/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC ) );
   if ( !other || !own || setns( other.number(), CLONE_NEWNET ) != 0 ) {
      throw Refusal( withErrno( path + ": no network namespace that can be entered" ) );
   }
   struct Return {
      int number;
      ~Return() {
         if ( setns( number, CLONE_NEWNET ) != 0 ) {
            std::abort();  // whatever came next would happen in the wrong place
         }
      }
   } const back{ own.number() };
   function();
}

}  // namespace Ebpf
