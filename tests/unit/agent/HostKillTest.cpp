// The agent dies at any of its writes and removals: what was in the hardware then has its NAT id in the store.
#include "agent/host/Host.h"

#include <tests/support/ScriptedHardware.h>

#include <Vexa/Value.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>

#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

using KeyById = std::map< std::string, std::string >;

KeyById keysById( Pfe::NatIdInfo const & info ) {
   KeyById keys;
   info.matchKeyToNatId().forEach(
      [ & ]( auto const & key, auto const & id ) { keys[ Vexa::stringOf( id ) ] = Vexa::stringOf( key ); } );
   return keys;
}

// Writes down the rewrites that it holds, one line each, before the operation after which the process ends.
class DyingHardware final : public Asic::HardwarePolicy {
 public:
   DyingHardware( unsigned lastOperation, std::string notes )
      : lastOperation_( lastOperation ), notes_( std::move( notes ) ) {}

   Agent::Host const * host = nullptr;

   Asic::EntryState outcomeOfWrite( Request const & request ) override {
      if ( auto const id = idOf( request ) ) {
         held_[ Support::ScriptedHardware::nameOf( request.table, request.row ) ] =
            *id + ' ' + keysById( host->natIdInfo() )[ *id ];
      }
      count();
      return Asic::EntryState::settled;
   }

   bool refusesRemoval( Request const & request ) override {
      held_.erase( Support::ScriptedHardware::nameOf( request.table, request.row ) );
      count();
      return false;
   }

 private:
   static std::optional< std::string > idOf( Request const & request ) {
      auto const name = Support::ScriptedHardware::nameOf( request.table, request.row );
      std::smatch match;
      bool const isRewrite =
         name.starts_with( "egr" ) && std::regex_search( name, match, std::regex( "natId=(\\d+)" ) );
      return isRewrite ? std::optional( match[ 1 ].str() ) : std::nullopt;
   }

   void count() {
      if ( --lastOperation_ != 0 ) {
         return;
      }
      std::ofstream notes( notes_ );
      for ( auto const & [ row, id ] : held_ ) {
         notes << id << '\n';
      }
      notes.close();
      _exit( notes ? EXIT_SUCCESS : EXIT_FAILURE );
   }

   unsigned lastOperation_;
   std::string notes_;
   std::map< std::string, std::string > held_;
};

// Programs one example, then goes over to the other. False when it came to its end alive.
bool diesAt( unsigned operation, fs::path const & folder ) {
   auto const child = fork();
   if ( child == 0 ) {
      Agent::NatIdStore store( folder );
      auto const hardware = std::make_shared< DyingHardware >( operation, folder / "notes" );
      Agent::Host host( Agent::configurationFrom( "examples/branch-office.json" ), hardware, &store );
      hardware->host = &host;
      host.program();
      host.reload( Agent::configurationFrom( "examples/mixed.json" ) );
      _exit( 3 );
   }
   int status = 0;
   EXPECT_EQ( waitpid( child, &status, 0 ), child );
   EXPECT_TRUE( WIFEXITED( status ) );
   EXPECT_TRUE( WEXITSTATUS( status ) == EXIT_SUCCESS || WEXITSTATUS( status ) == 3 );
   return WEXITSTATUS( status ) == EXIT_SUCCESS;
}

TEST( Host, WhereverItIsKilledEveryRewriteInTheHardwareHasItsIdInTheStore ) {
   auto const folder = fs::path( testing::TempDir() ) / ( "host-kill-" + std::to_string( getpid() ) );
   unsigned operation = 1;
   for ( ; diesAt( operation, folder ); ++operation ) {
      KeyById stored;
      {
         Agent::NatIdStore store( folder );
         auto const info = Orla::make< Pfe::NatIdInfo >();
         store.natIdInfoIs( info );
         stored = keysById( *info );
      }
      std::ifstream notes( folder / "notes" );
      for ( std::string id, key; notes >> id && std::getline( notes.ignore(), key ); ) {
         EXPECT_EQ( stored[ id ], key ) << "NAT id " << id << ", killed at operation " << operation;
      }
      fs::remove_all( folder );
   }
   fs::remove_all( folder );
   EXPECT_GT( operation, 150 );  // the rows of both examples, and removals
}

}  // namespace
