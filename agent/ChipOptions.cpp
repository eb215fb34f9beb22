#include "agent/ChipOptions.h"

#include "agent/basics/UnusableInput.h"
#include "agent/reports/ChipReport.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>
#include <string_view>

namespace Agent {

namespace {

PortDevice portFrom( std::string const & text ) {
   auto const equals = text.find( '=' );
   auto const intf = Netix::IntfId::fromName( std::string_view( text ).substr( 0, equals ) );
   if ( !intf || equals == std::string::npos || equals + 1 == text.size() ) {
      throw CLI::ValidationError( "--port", '"' + text +
                                               "\"; allowed: an interface and its device, such as "
                                               "ethernet1=eth0, or vlan20=eth1.20 for frames with that tag" );
   }
   return { .intf = *intf, .device = text.substr( equals + 1 ) };
}

void addSimulatedOptions( CLI::App & app, SimulatedHardware::Settings & settings ) {
   constexpr U64 mostTurns = 1'000'000;
   constexpr U64 largest = 1'000'000'000;
   auto * const group = app.add_option_group( "Simulated hardware" );
   group->add_option( "--fail", settings.failEvery, "Every N-th write fails" )
      ->type_name( "N" )
      ->check( CLI::Range( U64{ 1 }, largest ) );
   group->add_option( "--capacity", settings.capacity, "Each table has room for N rows" )
      ->type_name( "N" )
      ->check( CLI::Range( U64{ 0 }, largest ) );
   group->add_option( "--delay", settings.delay, "A write settles N turns after it was asked for" )
      ->type_name( "N" )
      ->check( CLI::Range( U64{ 0 }, mostTurns ) );
}

constexpr char const * ofSimulatedChip[] = { "--fail", "--capacity", "--delay" };
constexpr char const * ofKernelChip[] = { "--port", "--hook", "--room", "--bpffs", "--detach" };

void addKernelOptions( CLI::App & app, ChipOptions & options ) {
   auto * const group = app.add_option_group( "Chip in the kernel" );
   group
      ->add_option_function< std::vector< std::string > >(
         "--port",
         [ &ports = options.kernel.ports ]( std::vector< std::string > const & texts ) {
            ports.clear();
            std::ranges::transform( texts, std::back_inserter( ports ), portFrom );
         },
         "The device that an interface is, in place of the configuration's; once per interface" )
      ->type_name( "IFACE=DEVICE[.VLAN]" )
      ->expected( 1 )
      ->take_all();
   group
      ->add_option( "--netns", options.kernel.networkNamespace,
                    "Network namespace of the devices, and of the followed connections, as ip netns names it" )
      ->type_name( "NAME" );
   group->add_option( "--hook", options.kernel.hook, "Where packets are met: auto (default), tc, xdp" )
      ->type_name( "HOOK" )
      ->check( CLI::IsMember( { "auto", "tc", "xdp" } ) );
   group->add_option( "--room", options.kernel.room, "Rows that each ingress table has room for (default 65536)" )
      ->type_name( "N" )
      ->check( CLI::Range( U32{ 1 }, U32{ 1 } << 24 ) );
   group
      ->add_option( "--bpffs", options.kernel.bpffs, "Where the kernel's file system of pins is (default /sys/fs/bpf)" )
      ->type_name( "DIR" );
   group->add_flag( "--detach", options.detaches, "Leave the chip forwarding when this process ends" );
}

}  // namespace

void addChipOptions( CLI::App & app, ChipOptions & options ) {
   app.add_option( "--chip", options.chip,
                   "simulated (default), or ebpf: tables in this kernel that translate packets" )
      ->type_name( "CHIP" )
      ->check( CLI::IsMember( { "simulated", "ebpf" } ) );
   addSimulatedOptions( app, options.simulated );
   addKernelOptions( app, options );
   app.final_callback( [ &app, &options ] {
      auto const refuse = [ & ]( char const * name, char const * chip ) {
         if ( app.count( name ) != 0 ) {
            throw CLI::ValidationError( name, std::string( "allowed: with --chip " ) + chip );
         }
      };
      if ( options.isInKernel() ) {
         std::ranges::for_each( ofSimulatedChip, [ & ]( char const * name ) { refuse( name, "simulated" ); } );
         if ( app.count( "--state" ) == 0 ) {
            throw CLI::RequiredError( "--chip ebpf: --state, which its rows belong to" );
         }
      } else {
         std::ranges::for_each( ofKernelChip, [ & ]( char const * name ) { refuse( name, "ebpf" ); } );
         auto const * const follows = app.get_option_no_throw( "--follow-conntrack" );
         if ( app.count( "--netns" ) != 0 && ( !follows || follows->count() == 0 ) ) {
            throw CLI::RequiresError( "--netns", "--follow-conntrack" );
         }
      }
   } );
}

ChosenChip::ChosenChip( ChipOptions const & options, NatIdStore const * store, Configuration const & configuration )
   : options_( options ) {
   if ( options.isInKernel() && store ) {
      state_ = store->folder();
      kernelChip_ = openKernelChip( options.kernel, state_, store->identity(), configuration );
      chip_ = kernelChip_;
   } else {
      chip_ = std::make_shared< SimulatedHardware >( options.simulated );
   }
}

ChosenChip::~ChosenChip() {
   using End = ChipOptions::End;
   bool const goes =
      options_.end == End::removed || ( options_.end == End::asFound && kernelChip_ && !kernelChip_->wasThere() );
   if ( !kernelChip_ || options_.detaches || !goes ) {
      return;
   }
   kernelChip_ = nullptr;
   chip_ = nullptr;
   try {
      removeKernelChip( state_, options_.kernel.bpffs );
   } catch ( UnusableInput const & fault ) {
      std::cerr << "nat-agent: " << fault.what() << '\n';
   }
}

void addChipCommand( CLI::App & app, ChipCommand & command ) {
   app.add_option( "--state", command.state, "State folder that the chip belongs to" )->type_name( "DIR" )->required();
   app.add_option( "--bpffs", command.bpffs, "Where the kernel's file system of pins is (default /sys/fs/bpf)" )
      ->type_name( "DIR" );
   app.add_option( "--format", command.format, "text (default) or json" )
      ->type_name( "FORMAT" )
      ->check( CLI::IsMember( { "text", "json" } ) );
   app.add_flag( "--remove", command.removes, "Take it away: programs, tables and pins" );
   app.footer(
      "Works whether or not an agent uses the chip. Exit status: 0 done, 1 there is no such chip, 2 it cannot be "
      "looked at or removed." );
}

int runChipCommand( ChipCommand const & command ) {
   bool isThere = false;
   if ( command.removes ) {
      isThere = removeKernelChip( command.state, command.bpffs );
   } else {
      Report report( command.format == "json" );
      isThere = reportKernelChip( report, command.state, command.bpffs );
      if ( isThere ) {
         report.write( std::cout, TextStyle::ofStandardOutput() );
      }
   }
   if ( !isThere ) {
      std::cerr << "nat-agent: " << command.state << ": no chip in the kernel belongs to it\n";
   }
   return isThere ? 0 : 1;
}

}  // namespace Agent
