#include "agent/CommandLine.h"

#include "agent/ChipOptions.h"
#include "agent/basics/Json.h"
#include "agent/basics/TextFile.h"
#include "agent/basics/UnusableInput.h"
#include "agent/configuration/Configuration.h"
#include "agent/host/Host.h"
#include "agent/host/InterfaceHost.h"
#include "agent/host/NatIdStore.h"
#include "agent/learning/ConntrackFollower.h"
#include "agent/learning/ConntrackListing.h"
#include "agent/packets/PacketOptions.h"
#include "agent/reports/HostReport.h"
#include "agent/reports/InterfaceReport.h"
#include "agent/serving/Requests.h"
#include "agent/serving/Server.h"

#include <Netix/VrfId.h>
#include <Trace/Trace.h>

#include <CLI/CLI.hpp>
#include <boost/json/parse.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <ios>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace Agent {

namespace {

constexpr int complete = 0;
constexpr int incomplete = 1;
constexpr int unusable = 2;
constexpr int untold = 3;

// What some options must not be.
std::string refusalOfNothing( std::string const & text ) {
   return text.empty() ? "\"\"; allowed: a name" : std::string();
}

struct Options {
   std::string file;
   std::string state;  // empty: NAT ids are not kept
   std::string format = "text";
   std::string mode = "table";
   U8 traceLevel = 0;
   ChipOptions chip;
   std::string conntrack;  // empty: nothing is learned
   bool follows = false;
   std::size_t mostPerHost = 0;  // learned connections of an inside host; 0: no limit
   NatInterface natInterface;
   Sections sections;
   Packet packet;
};

// Connections that a kernel tracks, taken for connections of one interface.
void addLearningOptions( CLI::App & app, Options & options ) {
   auto * const group = app.add_option_group( "Learned connections" );
   auto * const listing = group->add_option( "--conntrack", options.conntrack,
                                             "Learn what this listing of the Linux tool conntrack translates" );
   listing->type_name( "FILE" )->check( refusalOfNothing );
   auto * const intf =
      addInterfaceOption( *group, "--nat-interface", "Interface that it is translated at", options.natInterface.intf );
   listing->needs( intf );
   group->add_option( "--nat-vrf", options.natInterface.vrfId, "VRF of it (default 0)" )
      ->type_name( "N" )
      ->check( CLI::Range( U32{ 0 }, static_cast< U32 >( Netix::VrfId::max ) ) )
      ->needs( intf );
   group->add_option( "--nat-qualifier", options.natInterface.qualifier, "Qualifier of the interface (default 0)" )
      ->type_name( "N" )
      ->needs( intf );
   intf->needs( listing );
}

// Instead of a listing.
void addFollowingOptions( CLI::App & app, Options & options ) {
   auto * const listing = app.get_option( "--conntrack" );
   auto * const intf = app.get_option( "--nat-interface" );
   auto * const group = app.add_option_group( "Followed connections" );
   auto * const follow =
      group->add_flag( "--follow-conntrack", options.follows,
                       "Learn what this machine's connection tracking translates, as it comes and goes" );
   follow->needs( intf )->excludes( listing );
   group
      ->add_option( "--connections-per-host", options.mostPerHost,
                    "Learn at most N connections of one inside host (default: no limit)" )
      ->type_name( "N" )
      ->check( CLI::Range( std::size_t{ 1 }, std::size_t{ Pfe::NatId::max } ) )
      ->needs( follow );
   intf->remove_needs( listing );
   app.parse_complete_callback( [ = ] {
      if ( intf->count() > listing->count() + follow->count() ) {
         throw CLI::RequiresError( "--nat-interface", "--follow-conntrack or --conntrack" );
      }
   } );
}

// What every command that programs a configuration takes.
void addCommonOptions( CLI::App & app, Options & options ) {
   app.add_option( "CONFIG", options.file, "Configuration: RFC 8512 in JSON, with pfe-nat.yang; - is standard input" )
      ->type_name( "" )
      ->check( refusalOfNothing )
      ->required();
   app.add_option( "--state", options.state, "Keep the NAT ids in this folder; created when missing" )
      ->type_name( "DIR" )
      ->check( refusalOfNothing );
   app.add_option( "--format", options.format, "text (default) or json" )
      ->type_name( "FORMAT" )
      ->check( CLI::IsMember( { "text", "json" } ) );
   app.add_option( "--trace", options.traceLevel, "Trace lines up to this level on standard error" )
      ->type_name( "LEVEL" )
      ->check( CLI::Range( 0, 9 ) );
   addLearningOptions( app, options );
   addChipOptions( app, options.chip );
}

// Names the program in front of every line.
void complain( std::string const & text ) {
   std::istringstream lines( text );
   for ( std::string line; std::getline( lines, line ); ) {
      std::cerr << "nat-agent: " << line << '\n';
   }
}

void tellDisabled( Configuration const & configuration ) {
   std::cerr << "nat-agent: " << configuration.file << ": instance " << configuration.instanceId
             << " is not enabled: nothing is programmed, and no NAT id is given back\n";
}

// The same instance without anything to program.
Configuration emptied( Configuration const & configuration ) {
   Configuration empty;
   empty.file = configuration.file;
   empty.instanceId = configuration.instanceId;
   empty.instanceName = configuration.instanceName;
   empty.enabled = false;
   empty.settings = configuration.settings;
   empty.rules = Orla::make< Pfe::NatProgrammerConfig >();
   return empty;
}

void createFolderOf( std::filesystem::path const & state ) {
   auto const folder = ( state.has_filename() ? state : state.parent_path() ).parent_path();
   std::error_code error;
   if ( !folder.empty() && !std::filesystem::create_directories( folder, error ) && error ) {
      throw UnusableInput( folder.string() + ": cannot be created: " + error.message() );
   }
}

// Where nothing is programmed, people are told so elsewhere.
void write( Report & report, bool isEnabled = true ) {
   if ( isEnabled || report.isJson() ) {
      report.write( std::cout, TextStyle::ofStandardOutput() );
   }
   std::cout.flush();
}

Json factsOf( ConntrackListing const & listing ) {
   JsonArray passedOver;
   for ( auto const & entry : listing.passedOver ) {
      passedOver.push_back( { { "line", entry.line }, { "reason", textOf( entry.reason ) } } );
   }
   return { { "file", listing.file }, { "learned", listing.learned.size() }, { "passedOver", passedOver } };
}

// Of the file that the options name, or of another one, with what is learned.
Configuration configurationOf( Options const & options, std::optional< ConntrackListing > & listing ) {
   if ( options.file == standardInput && options.conntrack == standardInput ) {
      throw UnusableInput( "CONFIG, --conntrack: both are standard input; allowed: one of them" );
   }
   auto configuration = configurationFrom( options.file );
   if ( !options.conntrack.empty() ) {
      listing = learnFrom( options.conntrack, configuration, options.natInterface );
      std::cerr << listing->summary();
   }
   return configuration;
}

// Programs the configuration, with what a kernel tracks when there is a follower, and hands the host to
// use( host, report ), which returns whether all is well; then writes the report, unless that has been done.
template< class Use > int program( Options const & options, ConntrackFollower * follower, Use && use ) {
   std::optional< ConntrackListing > listing;
   auto configuration = configurationOf( options, listing );
   bool const isEnabled = configuration.enabled;
   if ( !isEnabled ) {
      tellDisabled( configuration );
      configuration = emptied( configuration );
   }
   std::optional< NatIdStore > store;
   if ( !options.state.empty() && isEnabled ) {
      createFolderOf( options.state );
      store.emplace( options.state );
   }
   Trace::enabledLevelIs( options.traceLevel );
   if ( follower ) {
      follower->learnInto( configuration );
      configuration.qualifiers.emplace( options.natInterface.intf, options.natInterface.qualifier );
   }
   ChosenChip const chip( options.chip, store ? &*store : nullptr, configuration );
   Host host( std::move( configuration ), chip.chip(), store ? &*store : nullptr, chip.kernelChip() );
   host.program();
   Report report( options.format == "json" );
   if ( listing ) {
      report.fact( "conntrack", factsOf( *listing ) );
   }
   if ( auto const * const kernelChip = chip.kernelChip() ) {
      report.fact( "chip",
                   JsonObject{ { "found", kernelChip->found() }, { "rowsWritten", kernelChip->rowsWritten() } } );
      report.line( "The chip in the kernel: " + std::string( kernelChip->found() ) +
                   "; rows written: " + std::to_string( kernelChip->rowsWritten() ) );
   }
   bool const isWell = use( host, report );
   write( report, isEnabled );
   return isWell && host.isComplete() ? complete : incomplete;
}

int programAndReport( Options const & options ) {
   return program( options, nullptr, [ & ]( Host const & host, Report & report ) {
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
   std::optional< ConntrackListing > listing;
   auto configuration = configurationOf( options, listing );
   bool const isEnabled = configuration.enabled;
   if ( !isEnabled ) {
      tellDisabled( configuration );
      configuration = emptied( configuration );
   }
   Trace::enabledLevelIs( options.traceLevel );
   InterfaceHost const host( std::move( configuration ) );
   Report report( options.format == "json" );
   if ( listing ) {
      report.fact( "conntrack", factsOf( *listing ) );
   }
   reportInterfaceMode( report, host, options.sections.ringLines );
   write( report, isEnabled );
   return host.isComplete() ? complete : incomplete;
}

int programAndExplain( Options const & options ) {
   requireComplete( options.packet );
   return program( options, nullptr, [ & ]( Host const & host, Report & report ) {
      if ( !host.isComplete() ) {
         std::cerr << "nat-agent: not everything is programmed; see  nat-agent " << options.file << '\n';
      }
      return reportWalk( report, PacketWalk( host.tables(), host.configuration() ), options.packet );
   } );
}

// Serves until it is told to end, which is success whatever is programmed then.
int programAndServe( Options options ) {
   std::optional< Server > server;
   std::optional< ConntrackFollower > following;
   if ( options.follows ) {
      following.emplace( options.chip.kernel.networkNamespace, options.natInterface, options.mostPerHost );
   }
   auto * const follower = following ? &*following : nullptr;
   auto const read = [ & ]( std::string const & file ) {
      auto next = options;
      next.file = file.empty() ? options.file : file;
      if ( next.file == standardInput || next.conntrack == standardInput ) {
         throw UnusableInput( "-: standard input was read at the start; allowed: files, of which reload can name one" );
      }
      std::optional< ConntrackListing > listing;
      auto configuration = configurationOf( next, listing );
      if ( !configuration.enabled ) {
         throw UnusableInput( next.file + ": instance " + std::to_string( configuration.instanceId ) +
                              " is not enabled; allowed: an enabled one; delete-all takes all rules out" );
      }
      options.file = next.file;
      if ( follower ) {
         follower->learnInto( configuration );
      }
      return configuration;
   };
   outliveTerminal();
   options.chip.end = ChipOptions::End::kept;  // unless it is told to end
   program( options, follower, [ & ]( Host & host, Report & report ) {
      bool const isEnabled = host.configuration().enabled;
      if ( isEnabled ) {
         server.emplace( options.state );
      }
      reportHeading( report, host.configuration() );
      reportSummary( report, host );
      if ( follower ) {
         report.line( follower->summary( host ) );
      }
      report.line( "Serving at " + socketIn( options.state ) );
      write( report, isEnabled );
      if ( !isEnabled ) {
         return true;
      }
      Requests requests( host, read, follower );
      std::string storeFault;
      auto const turn = [ & ] {
         host.resume();
         if ( follower ) {
            follower->turn( host );
         }
         if ( host.storeFault() != storeFault ) {
            storeFault = host.storeFault();
            complain( storeFault.empty() ? options.state + "/data.mdb: takes the NAT ids again"
                                         : storeFault + "; what needs them waits" );
         }
      };
      auto const reload = [ & ] {
         auto const fault = requests.reload();
         complain( fault.empty() ? "reloaded " + options.file : fault );
      };
      auto const answer = [ & ]( std::string_view request ) {
         turn();  // answers speak of what was there when they were asked for
         return requests.answer( request );
      };
      options.chip.end = ChipOptions::End::removed;
      server->serve( answer, &Requests::refusal,
                     { [ & ] { return follower ? follower->descriptor() : -1; }, turn, reload } );
      options.chip.end = requests.keepsChip() ? ChipOptions::End::kept : options.chip.end;
      return true;
   } );
   return complete;
}

std::string textIn( Json const & object, std::string_view member ) {
   auto const * const found = memberOf( object, member );
   return found && found->is_string() ? std::string( found->get_string() ) : std::string();
}

// Asks the agent that serves in the state folder. `words`: a method, and its parameters as options.
int askServer( Options const & options, std::vector< std::string > const & words ) {
   JsonObject params;
   for ( std::size_t i = 1; i < words.size(); i += 2 ) {
      auto const name = words[ i ].substr( std::min< std::size_t >( words[ i ].size(), 2 ) );
      if ( words[ i ] == "--keep" ) {
         params[ name ] = "true";
         --i;  // it has no value
         continue;
      }
      if ( !words[ i ].starts_with( "--" ) || i + 1 == words.size() ) {
         throw UnusableInput( words[ i ] + "; allowed: parameters of the method, as --NAME VALUE" );
      }
      // The server may stand in another folder.
      auto const & value = words[ i + 1 ];
      bool const isFile = name == "file" && !value.empty() && value != standardInput;
      params[ name ] = isFile ? std::filesystem::absolute( value ).string() : value;
   }
   params[ "format" ] = options.format;
   Json const request{ { "jsonrpc", "2.0" }, { "id", 1 }, { "method", words.at( 0 ) }, { "params", params } };
   boost::json::error_code error;
   auto answer = boost::json::parse( ask( options.state, lineOf( request ) ), error );
   auto * const result = answer.is_object() ? answer.get_object().if_contains( "result" ) : nullptr;
   if ( error || !answer.is_object() ) {
      throw UnusableInput( socketIn( options.state ) + ": the answer is no JSON" );
   }
   if ( !result ) {
      throw UnusableInput( textIn( answer.at( "error" ), "message" ) );
   }
   auto const * const status = memberOf( *result, "status" );
   int const ends = status && status->is_int64() ? static_cast< int >( status->get_int64() ) : incomplete;
   if ( options.format == "text" ) {
      std::cout << textIn( *result, "text" );
   } else {
      result->as_object().erase( "status" );
      writeLines( std::cout, *result );
      std::cout << '\n';
   }
   return ends;
}

void addControlOptions( CLI::App & app, Options & options ) {
   app.add_option( "--state", options.state, "State folder of the agent" )
      ->type_name( "DIR" )
      ->check( refusalOfNothing )
      ->required();
   app.add_option( "--format", options.format, "text (default) or json" )
      ->type_name( "FORMAT" )
      ->check( CLI::IsMember( { "text", "json" } ) );
   app.prefix_command();
   app.footer(
      "METHOD is one of show, connections, statuses, rows, ids, traps (these with --limit N, and --COLUMN TEXT for\n"
      "rows that have it there), profiles, ring [--lines N], summary,\n"
      "explain with the options of nat-agent explain, reload [--file CONFIG], delete-all, add-all, retry, following,\n"
      "resync, stop [--keep: leave a chip in the kernel forwarding].\n\n"
      "Exit status: 0 everything is programmed, 1 something is not, 2 the request cannot be carried out." );
}

int runCommand( int argumentCount, char ** arguments ) {
   Options options;
   CLI::App app( "Programs a NAT configuration into the tables of a forwarding chip.", "nat-agent" );
   addCommonOptions( app, options );
   app.add_option( "--mode", options.mode, "table (default), or interface: rules as entries that interfaces share" )
      ->type_name( "MODE" )
      ->check( CLI::IsMember( { "table", "interface" } ) );
   app.add_flag( "--rows", options.sections.rows, "Show the rows of all tables" );
   app.add_flag( "--ids", options.sections.natIds, "Show the NAT ids and what holds them" );
   app.add_option( "--ring", options.sections.ringLines, "Show the newest N lines of the ring trace" )
      ->type_name( "N" )
      ->check( CLI::Range( 0, static_cast< int >( Trace::RingTrace::capacity ) ) );
   app.set_version_flag( "--version", "nat-agent " PFENAT_VERSION );
   app.footer(
      "nat-agent explain CONFIG ... walks a packet, and the reply to it, through the tables.\n"
      "nat-agent serve CONFIG --state DIR ... stays, and takes requests.\n"
      "nat-agent ctl --state DIR METHOD ... sends it one.\n"
      "nat-agent chip --state DIR ... shows the chip in the kernel, or takes it away.\n"
      "Each tells more with --help.\n\n"
      "Examples:\n"
      "  nat-agent examples/branch-office.json --state /var/lib/nat --rows\n"
      "  nat-agent explain examples/branch-office.json --in vlan20 --out ethernet1 --proto tcp \\\n"
      "     --src 10.10.20.10:8443 --dst 203.0.113.9:51000\n"
      "  nat-agent examples/mixed.json --conntrack examples/conntrack-masquerade.txt --nat-interface ethernet1\n"
      "  nat-agent ctl --state /var/lib/nat reload\n\n"
      "Exit status: 0 all programmed and every row accepted, 1 something was not, 2 unusable input, 3 standard output\n"
      "cannot be written." );
   CLI::App explain( "Walks a packet, and the reply to it, through the tables that a configuration is programmed into.",
                     "nat-agent explain" );
   addCommonOptions( explain, options );
   addPacketOptions( explain, options.packet );
   explain.footer( "Exit status: 1 also when the packet's way is not certain; else as without explain." );
   CLI::App serve( "Programs a configuration and stays, to take requests over a socket in the state folder.",
                   "nat-agent serve" );
   addCommonOptions( serve, options );
   serve.get_option( "--state" )->required();
   addFollowingOptions( serve, options );
   serve.footer(
      "SIGTERM ends it; the NAT ids are kept. SIGHUP reloads. Exit status: 0 ended as told, 2 unusable input." );
   CLI::App chip( "Shows a chip in the kernel, or takes it away.", "nat-agent chip" );
   ChipCommand chipCommand;
   addChipCommand( chip, chipCommand );
   CLI::App ctl( "Asks an agent that serves.", "nat-agent ctl" );
   addControlOptions( ctl, options );

   std::string_view const first = argumentCount > 1 ? arguments[ 1 ] : "";
   auto & command = first == "explain" ? explain
                    : first == "serve" ? serve
                    : first == "ctl"   ? ctl
                    : first == "chip"  ? chip
                                       : app;
   bool const isNamed = &command != &app;
   try {
      command.parse( argumentCount - isNamed, arguments + isNamed );
      if ( &command == &ctl && ctl.remaining().empty() ) {
         throw CLI::RequiredError( "METHOD" );
      }
      return &command == &explain          ? programAndExplain( options )
             : &command == &serve          ? programAndServe( options )
             : &command == &chip           ? runChipCommand( chipCommand )
             : &command == &ctl            ? askServer( options, ctl.remaining() )
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

}  // namespace

int run( int argumentCount, char ** arguments ) {
   try {
      std::cout.exceptions( std::ios::badbit | std::ios::failbit );
      auto const status = runCommand( argumentCount, arguments );
      std::cout.flush();
      return status;
   } catch ( std::ios_base::failure const & ) {
      int const error = errno;
      std::cout.exceptions( std::ios::goodbit );  // standard error is tied to it
      complain( std::string( "standard output: cannot be written: " ) + std::strerror( error ) );
      return untold;
   }
}

}  // namespace Agent
