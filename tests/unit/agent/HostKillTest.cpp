// Wherever the agent is killed, what is in the hardware then has its NAT id in the store.
#include "agent/host/Host.h"

#include <Pfe/NatTable.h>
#include <Vexa/Value.h>

#include <gtest/gtest.h>

#include <lmdb.h>

#include <filesystem>
#include <map>

#include <unistd.h>

namespace {

namespace fs = std::filesystem;

using KeyById = std::map< U64, std::string >;

// Of a copy of the folder, as a process reads it that comes after this one: id in two bytes to the text of its key.
KeyById storedIn( fs::path const & folder ) {
   auto const copy = folder / "copy";
   fs::create_directory( copy );
   fs::copy_file( folder / "data.mdb", copy / "data.mdb", fs::copy_options::overwrite_existing );
   MDB_env * environment = nullptr;
   MDB_txn * transaction = nullptr;
   MDB_cursor * cursor = nullptr;
   MDB_dbi database = 0;
   EXPECT_EQ( mdb_env_create( &environment ) | mdb_env_open( environment, copy.c_str(), MDB_RDONLY | MDB_NOLOCK, 0 ) |
                 mdb_txn_begin( environment, nullptr, MDB_RDONLY, &transaction ) |
                 mdb_dbi_open( transaction, nullptr, 0, &database ) | mdb_cursor_open( transaction, database, &cursor ),
              0 );
   KeyById keys;
   for ( MDB_val id, key; mdb_cursor_get( cursor, &id, &key, MDB_NEXT ) == 0; ) {
      auto const * const bytes = static_cast< U8 const * >( id.mv_data );
      keys[ U64{ bytes[ 0 ] } << 8 | bytes[ 1 ] ] =
         std::string( static_cast< char const * >( key.mv_data ), key.mv_size );
   }
   mdb_cursor_close( cursor );
   mdb_txn_abort( transaction );
   mdb_env_close( environment );
   return keys;
}

// Compares the rewrites that it holds with the store at each operation.
class ComparingHardware final : public Asic::Chip {
 public:
   explicit ComparingHardware( fs::path folder ) : folder_( std::move( folder ) ) {}

   Agent::Host const * host = nullptr;
   unsigned compared = 0;

   void carryOut( std::span< Asic::ChipRequest const > requests, std::span< Asic::EntryState > outcomes ) override {
      auto const & request = requests.front();
      Pfe::visitNatTable( request.table, [ & ]< class Table >( Table const & ) {
         auto const & rowKey = Table::keyOf( request.row );
         if constexpr ( requires { rowKey.natId; } ) {
            held_.erase( &request.row );
            host->natIdInfo().matchKeyToNatId().forEach( [ & ]( auto const & key, Pfe::NatId own ) {
               if ( request.version && own == rowKey.natId ) {
                  held_[ &request.row ] = { own.value(), Vexa::stringOf( key ) };
               }
            } );
         }
      } );
      compare();
      outcomes.front() = Asic::EntryState::settled;
   }

 private:
   void compare() {
      auto const stored = storedIn( folder_ );
      for ( auto const & [ row, own ] : held_ ) {
         auto const found = stored.find( own.first );
         EXPECT_TRUE( found != stored.end() && found->second == own.second )
            << own.second << ", killed at operation " << compared;
      }
      ++compared;
   }

   fs::path folder_;
   std::map< Asic::Row const *, std::pair< U64, std::string > > held_;
};

TEST( Host, WhereverItIsKilledEveryRewriteInTheHardwareHasItsIdInTheStore ) {
   auto const folder = fs::path( testing::TempDir() ) / ( "host-kill-" + std::to_string( getpid() ) );
   {
      Agent::NatIdStore store( folder );
      auto const hardware = std::make_shared< ComparingHardware >( folder );
      Agent::Host host( Agent::configurationFrom( "examples/branch-office.json" ), hardware, &store );
      hardware->host = &host;
      host.program();
      host.reload( Agent::configurationFrom( "examples/mixed.json" ) );
      EXPECT_GT( hardware->compared, 150U );  // the rows of both examples, and removals
   }
   fs::remove_all( folder );
}

}  // namespace
