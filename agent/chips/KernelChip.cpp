#include "agent/chips/KernelChip.h"

#include "agent/basics/UnusableInput.h"

#include <Vexa/Hash.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#ifdef PFENAT_EBPF_CHIP
#include "chip/EbpfChip.h"
#endif

namespace Agent {

std::string kernelChipName( std::string const & stateFolder ) {
   std::error_code failed;
   auto const folder = std::filesystem::weakly_canonical( stateFolder, failed );
   auto name = folder.filename().empty() ? "state" : folder.filename().string();
   for ( char & c : name ) {
      bool const isPlain = ( c >= '0' && c <= '9' ) || ( c >= 'a' && c <= 'z' ) || ( c >= 'A' && c <= 'Z' ) || c == '_';
      c = isPlain ? c : '-';
   }
   // Folders of one name in two places have a chip each.
   U64 hash = 0xCBF29CE484222325;  // FNV-1a
   for ( char const c : folder.string() ) {
      hash = ( hash ^ static_cast< unsigned char >( c ) ) * 0x100000001B3;
   }
   constexpr char digits[] = "0123456789abcdef";
   name = "nat-agent-" + name.substr( 0, 64 ) + '-';
   for ( int shift = 60; shift >= 0; shift -= 4 ) {
      name += digits[ hash >> shift & 0xF ];
   }
   return name;
}

#ifdef PFENAT_EBPF_CHIP

namespace {

// Refusals of the machine are the user's to mend.
template< class Function > auto orUnusable( Function && function ) {
   try {
      return function();
   } catch ( Ebpf::Refusal const & refusal ) {
      throw UnusableInput( refusal.what() );
   }
}

Ebpf::Hook hookOf( std::string const & name ) {
   return name == "tc" ? Ebpf::Hook::tc : name == "xdp" ? Ebpf::Hook::xdp : Ebpf::Hook::automatic;
}

// The one qualifier of the interface; none where no rule names it.
std::optional< U16 > qualifierOf( Netix::IntfId intf, Configuration const & configuration ) {
   std::optional< U16 > result;
   for ( auto const & [ named, qualifier ] : configuration.qualifiers ) {
      if ( named == intf && result ) {
         throw UnusableInput( configuration.file + ": " + Vexa::stringOf( intf ) + " has the qualifiers " +
                              std::to_string( *result ) + " and " + std::to_string( qualifier ) +
                              "; allowed of a device of the kernel: one" );
      }
      if ( named == intf ) {
         result = qualifier;
      }
   }
   return result;
}

class EbpfChip final : public KernelChip {
 public:
   EbpfChip( KernelChipOptions const & options, Ebpf::Settings settings, Configuration const & configuration )
      : options_( options ), chip_( orUnusable( [ & ] {
           settings.ports = portsIn( configuration );
           return std::make_unique< Ebpf::Chip >( std::move( settings ) );
        } ) ) {}

   void portsOf( Configuration const & configuration ) override {
      orUnusable( [ & ] { chip_->portsAre( portsIn( configuration ) ); } );
   }
   void vrfLessIs( bool vrfLess ) override { chip_->vrfLessIs( vrfLess ); }
   void trapsAre( Pfe::NatTrapConfig const & traps ) override {
      if ( auto const left = chip_->trapsAre( traps ); left != 0 ) {
         throw UnusableInput( std::to_string( left ) + " trap rules are more than the chip has room for" );
      }
   }
   void repair() override {
      orUnusable( [ & ] { chip_->repairAttachments(); } );
   }

   std::string_view found() const override {
      switch ( chip_->found() ) {
      case Ebpf::Found::nothing: return "created";
      case Ebpf::Found::itself: return "found, with its rows";
      case Ebpf::Found::otherStore: return "found with the rows of another store of NAT ids, and emptied";
      case Ebpf::Found::otherLayout: return "found in another version or size, and replaced";
      case Ebpf::Found::unfinished: return "found half made, and replaced";
      }
      return "";
   }
   bool wasThere() const override {
      return chip_->found() != Ebpf::Found::nothing && chip_->found() != Ebpf::Found::unfinished;
   }
   U64 rowsWritten() const override { return chip_->rowsWritten(); }

   void carryOut( std::span< Asic::ChipRequest const > requests, std::span< Asic::EntryState > outcomes ) override {
      chip_->carryOut( requests, outcomes );
   }
   std::size_t batchLimit() const override { return chip_->batchLimit(); }
   void sweep() override { chip_->sweep(); }
   std::optional< Asic::ChipHits > hitsOf( U32 natId ) const override { return chip_->hitsOf( natId ); }

 private:
   std::vector< Ebpf::Port > portsIn( Configuration const & configuration ) const {
      auto devices = options_.ports;
      for ( auto const & port : configuration.ports ) {
         auto const given = std::ranges::find( devices, port.intf, &PortDevice::intf );
         if ( given == devices.end() ) {
            devices.push_back( port );
         } else {
            given->vrfId = port.vrfId;  // the command line names another device alone
         }
      }
      std::vector< Ebpf::Port > ports;
      for ( auto const & [ intf, device, vrfId ] : devices ) {
         ports.push_back(
            { .interface = intf, .device = device, .vrfId = vrfId, .qualifier = qualifierOf( intf, configuration ) } );
      }
      return ports;
   }

   KernelChipOptions options_;
   std::unique_ptr< Ebpf::Chip > chip_;
};

}  // namespace

std::shared_ptr< KernelChip > openKernelChip( KernelChipOptions const & options, std::string const & stateFolder,
                                              std::string const & store, Configuration const & configuration ) {
   Ebpf::Settings settings{ .place = { .name = kernelChipName( stateFolder ), .bpffs = options.bpffs },
                            .store = store,
                            .networkNamespace = options.networkNamespace,
                            .hook = hookOf( options.hook ),
                            .rows = options.room,
                            .vrfLess = configuration.settings.vrfLess,
                            .ports = {} };
   return std::make_shared< EbpfChip >( options, std::move( settings ), configuration );
}

bool removeKernelChip( std::string const & stateFolder, std::string const & bpffs ) {
   return orUnusable( [ & ] { return Ebpf::remove( { kernelChipName( stateFolder ), bpffs } ); } );
}

#else

namespace {

[[noreturn]] void refuse() {
   throw UnusableInput(
      "this nat-agent was built without the chip in the kernel, for want of libbpf, bpftool or a clang "
      "that compiles for BPF; allowed: --chip simulated" );
}

}  // namespace

std::shared_ptr< KernelChip > openKernelChip( KernelChipOptions const &, std::string const &, std::string const &,
                                              Configuration const & ) {
   refuse();
}

bool removeKernelChip( std::string const &, std::string const & ) { refuse(); }

#endif

}  // namespace Agent
