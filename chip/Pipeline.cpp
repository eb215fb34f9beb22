#include "chip/Pipeline.h"

#include "EbpfPrograms.skel.h"

#include "chip/Rows.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <tuple>

namespace Ebpf {

namespace {

constexpr char const * programNames[] = { "chipEntering", "chipLeaving", "chipForward" };
// Their size is that of the tables.
constexpr char const * rowMaps[] = { "twiceRows", "staticRows", "snaptRows", "dnaptRows",
                                     "snatRows",  "dnatRows",   "copies",    "copyLists" };

// --- The library's words ---------------------------------------------------------------------------------------------

// What libbpf says while one of these lives: why the kernel refused something stands there alone.
class Words {
 public:
   Words() : before_( libbpf_set_print( take ) ) { text_.clear(); }
   ~Words() { libbpf_set_print( before_ ); }
   Words( Words const & ) = delete;
   Words & operator=( Words const & ) = delete;

   // The last lines.
   std::string text() const {
      constexpr std::size_t longest = 600;
      auto const text = text_.substr( text_.size() - std::min( text_.size(), longest ) );
      return text.empty() ? "" : "; the kernel says:\n" + text;
   }

 private:
   [[gnu::format( printf, 2, 0 )]] static int take( libbpf_print_level level, char const * format, va_list arguments ) {
      if ( level == LIBBPF_WARN ) {
         char line[ 4096 ];
         std::vsnprintf( line, sizeof line, format, arguments );
         text_ += line;
      }
      return 0;
   }

   libbpf_print_fn_t before_;
   static thread_local std::string text_;
};

thread_local std::string Words::text_;

// --- The object ------------------------------------------------------------------------------------------------------

std::string_view objectCode() {
   std::size_t size = 0;
   auto const * const bytes = static_cast< char const * >( EbpfPrograms__elf_bytes( &size ) );
   return { bytes, size };
}

U64 hashOfPrograms() {
   U64 hash = 0xCBF29CE484222325;  // FNV-1a
   for ( auto const byte : objectCode() ) {
      hash = ( hash ^ static_cast< U8 >( byte ) ) * 0x100000001B3;
   }
   return hash;
}

struct Close {
   void operator()( bpf_object * object ) const { bpf_object__close( object ); }
};
using Object = std::unique_ptr< bpf_object, Close >;

Object opened() {
   auto const code = objectCode();
   bpf_object_open_opts options{};
   options.sz = sizeof options;
   options.object_name = "pfe_nat";
   Object object( bpf_object__open_mem( code.data(), code.size(), &options ) );
   if ( !object ) {
      throw Refusal( withErrno( "the pipeline's programs can not be read" ) );
   }
   return object;
}

void load( bpf_object & object, Words const & words ) {
   if ( bpf_object__load( &object ) != 0 ) {
      throw Refusal( withErrno( "the kernel does not take the pipeline" ) + words.text() );
   }
}

// As the kernel lays out a preallocated hash.
U64 memoryOf( bpf_object & object ) {
   U64 bytes = 0;
   bpf_map const * map = nullptr;
   bpf_object__for_each_map( map, &object ) {
      auto const rounded = []( U64 size ) { return ( size + 7 ) & ~U64{ 7 }; };
      constexpr U64 linksOfElement = 48, bucket = 16;
      U64 const rows = bpf_map__max_entries( map );
      bytes += rows * rounded( bpf_map__value_size( map ) );
      if ( bpf_map__type( map ) == BPF_MAP_TYPE_HASH ) {
         bytes += rows * ( rounded( bpf_map__key_size( map ) ) + linksOfElement ) + bucket * std::bit_ceil( rows );
      }
   }
   return bytes;
}

ChipMarker markerFor( Settings const & settings ) {
   ChipMarker marker{};
   marker.layoutVersion = chipLayoutVersion;
   marker.rows = settings.rows;
   marker.programs = hashOfPrograms();
   if ( settings.store.size() >= sizeof marker.store ) {
      throw Refusal( settings.store + ": too long a name of a NAT id store; allowed: " +
                     std::to_string( sizeof marker.store - 1 ) + " characters" );
   }
   settings.store.copy( marker.store, sizeof marker.store - 1 );
   return marker;
}

}  // namespace

// --- Opening ---------------------------------------------------------------------------------------------------------

Chip::Pipeline::Pipeline( Settings settings ) : settings_( std::move( settings ) ), pins_( settings_.place ) {
   requireCapabilities( !settings_.networkNamespace.empty() );
   requireBpffs( settings_.place );
   if ( settings_.rows == 0 ) {
      throw Refusal( "tables without rows; allowed: from 1 on" );
   }
   // Found out before anything is made.
   inNamespace( settings_.networkNamespace, [ & ] { resolved_ = resolved( settings_.ports, settings_.hook ); } );
   openOrMake();
   ports_ = std::make_unique< PortTable >( pins_ );
   shared_ = std::make_unique< ArrayOf< ChipSettings > >( pins_.openMap( "settings" ) );
   traps_ = std::make_unique< ArrayOf< ChipTrap > >( pins_.openMap( "traps" ) );
   shared().vrfLess = settings_.vrfLess;
}

void Chip::Pipeline::openOrMake() {
   auto const wanted = markerFor( settings_ );
   auto const there = pins_.marker();
   if ( !there ) {
      found_ = pins_.exists() ? Found::unfinished : Found::nothing;
   } else if ( there->layoutVersion != wanted.layoutVersion || there->rows != wanted.rows ) {
      found_ = Found::otherLayout;
   } else if ( std::string_view( there->store ) != wanted.store ) {
      found_ = Found::otherStore;
   } else {
      found_ = Found::itself;
      if ( there->programs != wanted.programs ) {
         upgrade();
         pins_.markerIs( wanted );
      }
      return;
   }
   if ( found_ != Found::nothing ) {
      requireMemory( memoryOf( *opened() ) );  // the chip that is there goes only for one that there is room for
      pins_.removeAll();
   }
   try {
      make();
      pins_.markerIs( wanted );
   } catch ( Refusal const & ) {
      pins_.removeAll();
      throw;
   }
}

void Chip::Pipeline::make() {
   Words const words;
   auto const object = opened();
   for ( auto const * const name : rowMaps ) {
      bpf_map__set_max_entries( bpf_object__find_map_by_name( object.get(), name ), settings_.rows );
   }
   requireMemory( memoryOf( *object ) );
   load( *object, words );
   pins_.create();
   bpf_map const * map = nullptr;
   bpf_object__for_each_map( map, object.get() ) { pins_.pin( "maps", bpf_map__name( map ), bpf_map__fd( map ) ); }
   for ( auto const * const name : programNames ) {
      pins_.pin( "programs", name, bpf_program__fd( bpf_object__find_program_by_name( object.get(), name ) ) );
   }
}

void Chip::Pipeline::upgrade() {
   Words const words;
   auto const object = opened();
   bpf_map * map = nullptr;
   bpf_object__for_each_map( map, object.get() ) {
      if ( bpf_map__reuse_fd( map, pins_.openMap( bpf_map__name( map ) ).number() ) != 0 ) {
         throw Refusal( withErrno( pins_.pathOf( "maps", bpf_map__name( map ) ) + ": can not be used again" ) );
      }
   }
   load( *object, words );
   for ( auto const * const name : programNames ) {
      pins_.pinAnew( "programs", name, bpf_program__fd( bpf_object__find_program_by_name( object.get(), name ) ) );
   }
   updateAttachments( pins_ );
}

// --- Ports -----------------------------------------------------------------------------------------------------------

void Chip::Pipeline::portsAre( std::vector< Port > ports ) {
   inNamespace( settings_.networkNamespace, [ & ] { resolved_ = resolved( ports, settings_.hook ); } );
   settings_.ports = std::move( ports );
   attachAll();
}

std::size_t Chip::Pipeline::attachAll() {
   std::size_t attached = 0;
   inNamespace( settings_.networkNamespace, [ & ] {
      resolved_ = resolved( settings_.ports, settings_.hook );
      ports_->portsAre( resolved_ );
      attached = attach( pins_, devicesOf( resolved_ ) );
   } );
   return attached;
}

// --- Traps -----------------------------------------------------------------------------------------------------------

namespace {

ChipTrap trapOf( Pfe::NatTrapRule const & rule ) {
   auto const masked = []( Netix::IpAddrWithFullMask const & given ) {
      return inPacket( given.address ) & inPacket( given.mask );
   };
   return { .vrfId = rule.vrfId,
            .source = masked( rule.source ),
            .sourceMask = inPacket( rule.source.mask ),
            .destination = masked( rule.destination ),
            .destinationMask = inPacket( rule.destination.mask ),
            .sourcePort = htons( rule.sourcePort & rule.sourcePortMask ),
            .sourcePortMask = htons( rule.sourcePortMask ),
            .destinationPort = htons( rule.destinationPort & rule.destinationPortMask ),
            .destinationPortMask = htons( rule.destinationPortMask ),
            .protocol = static_cast< U8 >( rule.protocol & rule.protocolMask ),
            .protocolMask = rule.protocolMask,
            .traps = rule.trap != 0,
            .zero = 0 };
}

}  // namespace

std::size_t Chip::Pipeline::trapsAre( Pfe::NatTrapConfig const & traps ) const {
   std::vector< Pfe::NatTrapAcl const * > acls;
   traps.trapAcl().forEach( [ & ]( auto const &, Pfe::NatTrapAcl const & acl ) { acls.push_back( &acl ); } );
   std::ranges::sort( acls, []( auto const * a, auto const * b ) {
      return std::tie( a->priority, a->key() ) < std::tie( b->priority, b->key() );
   } );
   std::vector< ChipTrap > wanted;
   for ( auto const * const acl : acls ) {
      for ( auto const & [ sequence, rule ] : acl->ruleBySequence() ) {
         wanted.push_back( trapOf( rule ) );
      }
   }
   auto const count = std::min< std::size_t >( wanted.size(), chipTraps );
   auto const now = shared().trapList;
   auto const inUse = ( *traps_ ).elements().subspan( now >> 31 ? chipTraps : 0, chipTraps );
   bool const isSame = ( now & 0x7FFFFFFF ) == count &&
                       ( count == 0 || std::memcmp( inUse.data(), wanted.data(), count * sizeof( ChipTrap ) ) == 0 );
   if ( !isSame ) {
      auto const other = ( *traps_ ).elements().subspan( now >> 31 ? 0 : chipTraps, chipTraps );
      std::copy_n( wanted.begin(), count, other.begin() );
      auto const next = static_cast< U32 >( count ) | ( now >> 31 ? 0 : U32{ 1 } << 31 );
      std::atomic_ref( shared().trapList ).store( next, std::memory_order_release );
   }
   return wanted.size() - count;
}

}  // namespace Ebpf
