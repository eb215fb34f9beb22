#include "agent/CommandLine.h"

#include "agent/Configuration.h"
#include "agent/Host.h"
#include "agent/HostReport.h"
#include "agent/InterfaceHost.h"
#include "agent/NatIdStore.h"
#include "agent/PacketOptions.h"
#include "agent/SimulatedHardware.h"
#include "agent/UnusableInput.h"

#include <Trace/Trace.h>

#include <CLI/CLI.hpp>

#include <iostream>
#include <optional>
#include <sstream>
#include <string>

namespace Agent {

namespace {

constexpr int complete = 0;
constexpr int incomplete = 1;
constexpr int unusable = 2;

struct Options {
   std::string file;
   std::string state;  // empty: NAT ids are not kept
   std::string format = "text";
   std::string mode = "table";
   U8 traceLevel = 0;
   SimulatedHardware::Settings hardware;
   Sections sections;
   Packet packet;
};

// What every command that programs a configuration takes.
void addCommonOptions( CLI::App & app, Options & options ) {
   constexpr U64 mostTurns = 1'000'000;
   constexpr U64 largest = 1'000'000'000;
   app.add_option( "CONFIG", options.file, "Configuration: RFC 8512 in JSON, with pfe-nat.yang" )
      ->type_name( "" )
      ->required();
   app.add_option( "--state", options.state, "Keep the NAT ids in this folder; created when missing" )
      ->type_name( "DIR" );
   app.add_option( "--format", options.format, "text (default) or json" )
      ->type_name( "FORMAT" )
      ->check( CLI::IsMember( { "text", "json" } ) );
   app.add_option( "--trace", options.traceLevel, "Trace lines up to this level on standard error" )
      ->type_name( "LEVEL" )
      ->check( CLI::Range( 0, 9 ) );
   auto * const hardware = app.add_option_group( "Simulated hardware" );
   hardware->add_option( "--fail", options.hardware.failEvery, "Every N-th write fails" )
      ->type_name( "N" )
      ->check( CLI::Range( U64{ 1 }, largest ) );
   hardware->add_option( "--capacity", options.hardware.capacity, "Each table has room for N rows" )
      ->type_name( "N" )
      ->check( CLI::Range( U64{ 0 }, largest ) );
   hardware->add_option( "--delay", options.hardware.delay, "A write settles N turns after it was asked for" )
      ->type_name( "N" )
      ->check( CLI::Range( U64{ 0 }, mostTurns ) );
}

bool isEnabled( Configuration const & configuration ) {
   if ( !configuration.enabled ) {
      std::cerr << "nat-agent: " << configuration.file << ": instance " << configuration.instanceId
                << " is not enabled: nothing is programmed, and no NAT id is given back\n";
   }
   return configuration.enabled;
}

// Programs the configuration and hands the host to show( host, report ), which returns whether all is well.
template< class Show > int program( Options const & options, Show && show ) {
   auto configuration = configurationFrom( options.file );
   if ( !isEnabled( configuration ) ) {
      return complete;
   }
   std::optional< NatIdStore > store;
   if ( !options.state.empty() ) {
      store.emplace( options.state );
   }
   Trace::enabledLevelIs( options.traceLevel );
   Host host( std::move( configuration ), std::make_shared< SimulatedHardware >( options.hardware ),
              store ? &*store : nullptr );
   host.program();
   Report report( std::cout, options.format == "json" );
   bool const isWell = show( host, report );
   return isWell && host.isComplete() ? complete : incomplete;
}

int programAndReport( Options const & options ) {
   return program( options, [ & ]( Host const & host, Report & report ) {
      reportProgramming( report, host, options.sections );
      return true;
   } );
}

// Of the options that speak of tables and NAT ids none is for this mode.
int programInterfacesAndReport( Options const & options, CLI::App const & app ) {
   for ( auto const * const option : { "--state", "--fail", "--capacity", "--delay", "--rows", "--ids" } ) {
      if ( app.count( option ) != 0 ) {
         throw CLI::ValidationError( option, "interface mode has neither hardware tables nor NAT ids; allowed: "
                                             "--mode table, or without " +
                                                std::string( option ) );
      }
   }
   auto configuration = configurationFrom( options.file );
   if ( !isEnabled( configuration ) ) {
      return complete;
   }
   Trace::enabledLevelIs( options.traceLevel );
   InterfaceHost const host( std::move( configuration ) );
   Report report( std::cout, options.format == "json" );
   host.report( report, options.sections.ringLines );
   return host.isComplete() ? complete : incomplete;
}

int programAndExplain( Options const & options ) {
   requireComplete( options.packet );
   return program( options, [ & ]( Host const & host, Report & report ) {
      if ( !host.isComplete() ) {
         std::cerr << "nat-agent: not everything is programmed; see  nat-agent " << options.file << '\n';
      }
      return reportWalk( report, host, options.packet );
   } );
}

// Names the program in front of every line.
void complain( std::string const & text ) {
   std::istringstream lines( text );
   for ( std::string line; std::getline( lines, line ); ) {
      std::cerr << "nat-agent: " << line << '\n';
   }
}

}  // namespace

int run( int argumentCount, char ** arguments ) {
   Options options;
   CLI::App app( "Programs a NAT configuration into the tables of a simulated forwarding chip.", "nat-agent" );
   addCommonOptions( app, options );
   app.add_option( "--mode", options.mode, "table (default), or interface: rules as entries that interfaces share" )
      ->type_name( "MODE" )
      ->check( CLI::IsMember( { "table", "interface" } ) );
   app.add_flag( "--rows", options.sections.rows, "Show the rows of all tables" );
   app.add_flag( "--ids", options.sections.natIds, "Show the NAT ids and what holds them" );
   app.add_option( "--ring", options.sections.ringLines, "Show the newest N lines of the ring trace" )
      ->type_name( "N" )
      ->check( CLI::Range( 0, static_cast< int >( Trace::RingTrace::capacity ) ) );
   app.footer( "nat-agent explain CONFIG ... walks a packet, and the reply to it, through the tables.\n\n"
               "Exit status: 0 all programmed and every row accepted, 1 something was not, 2 unusable input." );
   CLI::App explain( "Walks a packet, and the reply to it, through the tables that a configuration is programmed into.",
                     "nat-agent explain" );
   addCommonOptions( explain, options );
   addPacketOptions( explain, options.packet );
   explain.footer( "Exit status: 1 also when a packet matches two rows equally well; else as without explain." );

   bool const isExplain = argumentCount > 1 && std::string_view( arguments[ 1 ] ) == "explain";
   auto & command = isExplain ? explain : app;
   try {
      isExplain ? command.parse( argumentCount - 1, arguments + 1 ) : command.parse( argumentCount, arguments );
      return isExplain                     ? programAndExplain( options )
             : options.mode == "interface" ? programInterfacesAndReport( options, app )
                                           : programAndReport( options );
   } catch ( CLI::ParseError const & fault ) {
      if ( fault.get_exit_code() == 0 ) {
         return command.exit( fault );  // help
      }
      complain( std::string( fault.what() ) + "; see  " + command.get_name() + " --help" );
   } catch ( UnusableInput const & fault ) {
      complain( fault.what() );
   }
   return unusable;
}

}  // namespace Agent
