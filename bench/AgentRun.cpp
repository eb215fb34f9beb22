// What does the agent cost from the start to everything settled, reading a large configuration and keeping the NAT ids
// in a store? The floor: the same file parsed by nlohmann::json, and as many ids put into LMDB in one transaction.
// Every round is a process of its own, and what it takes of the processor counts whole, the kernel's part included.
// run_ratio is the agent as it is shipped, from exec to exit, with the report that it prints. The agent prepares its
// heap at the start; same_heap_ratio is what remains when the floor does so, too.
#include "Measure.h"
#include "Questions.h"
#include "Rules.h"
#include "System.h"

#include "agent/basics/Heap.h"
#include "agent/chips/SimulatedHardware.h"
#include "agent/configuration/Configuration.h"
#include "agent/host/Host.h"
#include "agent/host/NatIdStore.h"

#include <lmdb.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

namespace {

namespace fs = std::filesystem;

// Removed at the end with all that is in it.
class TemporaryFolder {
 public:
   TemporaryFolder() {
      auto pattern = ( fs::temp_directory_path() / "nat-bench-XXXXXX" ).string();
      require( mkdtemp( pattern.data() ) != nullptr, "a temporary folder can be made" );
      path_ = pattern;
   }
   ~TemporaryFolder() {
      std::error_code ignored;
      fs::remove_all( path_, ignored );
   }
   TemporaryFolder( TemporaryFolder const & ) = delete;
   TemporaryFolder & operator=( TemporaryFolder const & ) = delete;

   std::string path() const { return path_.string(); }

 private:
   fs::path path_;
};

double nsOf( timeval const & time ) {
   return static_cast< double >( time.tv_sec ) * 1e9 + static_cast< double >( time.tv_usec ) * 1e3;
}

// Processor time of a child process that calls run().
double nsOfChild( std::function< void() > const & run ) {
   auto const child = fork();
   if ( child == 0 ) {
      run();
      _exit( EXIT_SUCCESS );
   }
   int status = 0;
   rusage usage{};
   require( child > 0 && wait4( child, &status, 0, &usage ) == child && status == 0, "the measured process succeeds" );
   return nsOf( usage.ru_utime ) + nsOf( usage.ru_stime );
}

void programFile( std::string const & file, std::string const & stateFolder ) {
   Agent::prepareHeap();
   auto configuration = Agent::configurationFrom( file );
   Agent::NatIdStore store( stateFolder );
   Agent::Host host( std::move( configuration ),
                     std::make_shared< Agent::SimulatedHardware >( Agent::SimulatedHardware::Settings{} ), &store );
   host.program();
   require( host.isComplete(), "everything in the file is programmed" );
   _exit( EXIT_SUCCESS );  // settled: what comes after does not count
}

void runAgent( std::string const & file, std::string const & stateFolder ) {
   auto const agent = fs::read_symlink( "/proc/self/exe" ).parent_path().parent_path() / "agent" / "nat-agent";
   auto const nowhere = open( "/dev/null", O_WRONLY );
   dup2( nowhere, STDOUT_FILENO );
   execl( agent.c_str(), "nat-agent", file.c_str(), "--state", stateFolder.c_str(), nullptr );
   require( false, "nat-agent can be run" );
}

void requireStored( int error ) { require( error == 0, "LMDB takes the ids" ); }

void parseAndStore( std::string const & file, std::string const & stateFolder, std::size_t ids ) {
   std::string text( fs::file_size( file ), '\0' );
   std::ifstream( file, std::ios::binary ).read( text.data(), static_cast< std::streamsize >( text.size() ) );
   auto const document = nlohmann::json::parse( text );
   require( document.is_object(), "the file was parsed" );

   // As long as the agent's own records.
   auto value = Vexa::stringOf( matchKeyOf( ingKeysOf( staticRules( 1, 1 ).front() )[ 0 ] ) );
   MDB_env * environment = nullptr;
   MDB_txn * transaction = nullptr;
   MDB_dbi database = 0;
   requireStored( mdb_env_create( &environment ) );
   requireStored( mdb_env_set_mapsize( environment, std::size_t{ 256 } << 20 ) );
   requireStored( mdb_env_open( environment, stateFolder.c_str(), 0, 0600 ) );
   requireStored( mdb_txn_begin( environment, nullptr, 0, &transaction ) );
   requireStored( mdb_dbi_open( transaction, nullptr, 0, &database ) );
   for ( std::size_t id = 1; id <= ids; ++id ) {
      unsigned char bytes[]{ static_cast< unsigned char >( id >> 8 ), static_cast< unsigned char >( id ) };
      MDB_val key{ sizeof( bytes ), bytes };
      MDB_val data{ value.size(), value.data() };
      requireStored( mdb_put( transaction, database, &key, &data, 0 ) );
   }
   requireStored( mdb_txn_commit( transaction ) );
   _exit( EXIT_SUCCESS );
}

// Each round has an empty folder for its store.
Round roundIn( std::function< void( std::string const & stateFolder ) > run ) {
   return [ = ] {
      TemporaryFolder const folder;
      return nsOfChild( [ & ] { run( folder.path() ); } );
   };
}

Figures agentFigures( std::string const & file, std::size_t connections ) {
   auto const ids = 2 * connections;
   auto const reference =
      roundIn( [ = ]( std::string const & stateFolder ) { parseAndStore( file, stateFolder, ids ); } );
   auto figures = pairedRounds(
      connections, roundIn( [ = ]( std::string const & stateFolder ) { programFile( file, stateFolder ); } ),
      reference );
   auto const whole = pairedRounds(
      connections, roundIn( [ = ]( std::string const & stateFolder ) { runAgent( file, stateFolder ); } ), reference );
   auto const sameHeap = pairedRounds(
      connections, roundIn( [ = ]( std::string const & stateFolder ) { programFile( file, stateFolder ); } ),
      roundIn( [ = ]( std::string const & stateFolder ) {
         Agent::prepareHeap();
         parseAndStore( file, stateFolder, ids );
      } ) );
   figures[ "run_ratio" ] = whole.at( "ratio" );
   figures[ "same_heap_ratio" ] = sameHeap.at( "ratio" );
   figures[ "ids" ] = static_cast< double >( ids );
   return figures;
}

}  // namespace

void registerAgent( std::string const & file, std::size_t connections ) {
   caseIs( "agent", connections, [ = ] { return agentFigures( file, connections ); } );
}

}  // namespace Bench
