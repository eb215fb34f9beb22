#include "agent/host/NatIdStore.h"

#include "agent/basics/UnusableInput.h"

#include <Vexa/Exception.h>
#include <Vexa/Value.h>

#include <lmdb.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Agent {

namespace {

// Room for every id under keys of any length, several times over for what a transaction replaces.
constexpr std::size_t mapSize = std::size_t{ 256 } << 20;
constexpr mode_t fileMode = 0600;
constexpr mode_t folderMode = 0700;

using IdBytes = std::array< unsigned char, 2 >;
using Cursor = std::unique_ptr< MDB_cursor, void ( * )( MDB_cursor * ) >;
using Environment = std::unique_ptr< MDB_env, void ( * )( MDB_env * ) >;
using Transaction = std::unique_ptr< MDB_txn, void ( * )( MDB_txn * ) >;

constexpr char const * notTaken = "does not take the NAT ids";

IdBytes bytesOf( Pfe::NatId id ) {
   return { static_cast< unsigned char >( id.value() >> 8 ), static_cast< unsigned char >( id.value() ) };
}

[[noreturn]] void refuse( std::string const & folder, std::string const & fault ) {
   throw UnusableInput( folder + "/data.mdb: " + fault + "; it was left as it is" );
}

void require( int error, std::string const & folder, char const * fault ) {
   if ( error != 0 ) {
      refuse( folder, std::string( fault ) + ": " + mdb_strerror( error ) );
   }
}

Environment environmentIn( std::string const & folder, unsigned flags ) {
   constexpr char const * fault = "cannot be opened";
   MDB_env * created = nullptr;
   require( mdb_env_create( &created ), folder, fault );
   Environment environment( created, &mdb_env_close );
   mdb_env_set_mapsize( created, mapSize );
   require( mdb_env_open( created, folder.c_str(), flags, fileMode ), folder, fault );
   return environment;
}

// A transaction on the environment's one database; given up unless committed.
Transaction begin( MDB_env * environment, unsigned flags, MDB_dbi & database, std::string const & folder ) {
   MDB_txn * begun = nullptr;
   require( mdb_txn_begin( environment, nullptr, flags, &begun ), folder, "cannot be used" );
   Transaction transaction( begun, &mdb_txn_abort );
   require( mdb_dbi_open( begun, nullptr, 0, &database ), folder, "cannot be used" );
   return transaction;
}

Cursor cursorOn( MDB_txn * transaction, MDB_dbi database, std::string const & folder ) {
   MDB_cursor * opened = nullptr;
   require( mdb_cursor_open( transaction, database, &opened ), folder, "cannot be used" );
   return { opened, &mdb_cursor_close };
}

// Calls function( key, value ) for every record in the order of the ids.
template< class Function >
void forEachRecord( MDB_env * environment, std::string const & folder, Function && function ) {
   MDB_dbi database = 0;
   auto const transaction = begin( environment, MDB_RDONLY, database, folder );
   auto const cursor = cursorOn( transaction.get(), database, folder );
   int error = 0;
   for ( MDB_val key, value; ( error = mdb_cursor_get( cursor.get(), &key, &value, MDB_NEXT ) ) == 0; ) {
      function( std::string_view( static_cast< char const * >( key.mv_data ), key.mv_size ),
                std::string_view( static_cast< char const * >( value.mv_data ), value.mv_size ) );
   }
   require( error == MDB_NOTFOUND ? 0 : error, folder, "cannot be read" );
}

// LMDB keeps no checksums and reads through a memory map, so a damaged file may kill whoever reads it. A child reads
// everything first; what is merely wrong the parent finds again.
bool survivesReading( std::string const & folder ) {
   auto const child = fork();
   if ( child == 0 ) {
      close( STDERR_FILENO );
      try {
         std::size_t volatile sum = 0;
         forEachRecord(
            environmentIn( folder, MDB_RDONLY | MDB_NOLOCK ).get(), folder,
            [ & ]( std::string_view, std::string_view value ) { sum = std::hash< std::string_view >()( value ); } );
      } catch ( UnusableInput const & ) {
         _exit( 0 );
      }
      _exit( 0 );
   }
   int status = 0;
   return child < 0 || waitpid( child, &status, 0 ) < 0 || status == 0;
}

Descriptor lockIn( std::string const & folder ) {
   Descriptor lock( open( ( folder + "/agent.lock" ).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, fileMode ) );
   struct flock region {};
   region.l_type = F_WRLCK;
   region.l_whence = SEEK_SET;
   if ( !lock || fcntl( lock.number(), F_SETLK, &region ) != 0 ) {
      int const error = errno;
      bool const isHeld = ( error == EACCES || error == EAGAIN ) && fcntl( lock.number(), F_GETLK, &region ) == 0;
      throw UnusableInput( isHeld ? folder + ": is in use by process " + std::to_string( region.l_pid ) +
                                       "; allowed: one agent per state folder"
                                  : folder + "/agent.lock: cannot be locked: " + std::strerror( error ) );
   }
   return lock;
}

}  // namespace

NatIdStore::NatIdStore( std::string folder )
   : folder_( std::move( folder ) ),
     environment_( nullptr, &mdb_env_close ),
     changes_( nullptr, &mdb_txn_abort ),
     cursor_( nullptr, &mdb_cursor_close ) {
   if ( mkdir( folder_.c_str(), folderMode ) < 0 && errno != EEXIST ) {
      throw UnusableInput( folder_ + ": cannot be created: " + std::strerror( errno ) );
   }
   // Whoever may write there may put links and sockets of his own in the place of the agent's.
   struct stat found {};
   if ( stat( folder_.c_str(), &found ) == 0 && S_ISDIR( found.st_mode ) &&
        ( found.st_mode & ( S_IWGRP | S_IWOTH ) ) ) {
      throw UnusableInput( folder_ + ": others may write there; allowed: a folder that its owner alone may write to" );
   }
   lock_ = lockIn( folder_ );
   if ( access( ( folder_ + "/data.mdb" ).c_str(), F_OK ) == 0 && !survivesReading( folder_ ) ) {
      refuse( folder_, "is damaged: reading it fails half-way" );
   }
   environment_ = environmentIn( folder_, 0 );
}

NatIdStore::~NatIdStore() {
   if ( natIdInfo_ ) {
      natIdInfo_->matchKeyToNatId().watcherDel( *this );
   }
}

void NatIdStore::natIdInfoIs( Pfe::NatIdInfo::Ptr natIdInfo ) {
   natIdInfo_ = std::move( natIdInfo );
   forEachRecord( environment_.get(), folder_, [ & ]( std::string_view key, std::string_view text ) {
      ++restoredCount_;
      try {
         if ( key.size() != IdBytes().size() ) {
            throw Vexa::ParseException( "its key is no id" );
         }
         auto const byte = [ & ]( std::size_t i ) { return static_cast< unsigned char >( key[ i ] ); };
         natIdInfo_->matchKeyToNatIdIs( Vexa::parseWhole< Pfe::NatMatchKey >( text ),
                                        Pfe::NatId( U64{ byte( 0 ) } << 8 | byte( 1 ) ) );
         if ( natIdInfo_->matchKeyToNatId().count() != restoredCount_ ) {
            throw Vexa::ParseException( "its match key has another id already" );
         }
      } catch ( Vexa::Exception const & fault ) {
         refuse( folder_, "is damaged: record " + std::to_string( restoredCount_ ) + ": " + fault.what() );
      }
   } );
   natIdInfo_->matchKeyToNatId().watcherIs( *this );
}

// Nobody who gives ids or takes them back could do anything about a fault of the disk, so commit() tells it.
void NatIdStore::onKey( Pfe::NatMatchKey const & key, Pfe::NatId const * previous, Pfe::NatId const * current ) {
   try {
      if ( !cursor_ ) {
         MDB_dbi database = 0;
         changes_ = begin( environment_.get(), 0, database, folder_ );
         cursor_ = cursorOn( changes_.get(), database, folder_ );
      }
      if ( previous ) {
         del( *previous );
      }
      if ( current ) {
         put( *current, key );
      }
   } catch ( UnusableInput const & fault ) {
      fault_ = fault.what();
   }
}

void NatIdStore::put( Pfe::NatId id, Pfe::NatMatchKey const & matchKey ) {
   auto bytes = bytesOf( id );
   text_.clear();
   Vexa::append( text_, matchKey );
   MDB_val key{ bytes.size(), bytes.data() };
   MDB_val value{ text_.size(), text_.data() };
   // Most new ids are greater than all others, which takes no search and leaves no page half empty.
   int const error = mdb_cursor_put( cursor_.get(), &key, &value, MDB_APPEND );
   require( error == MDB_KEYEXIST ? mdb_cursor_put( cursor_.get(), &key, &value, 0 ) : error, folder_, notTaken );
}

void NatIdStore::del( Pfe::NatId id ) {
   auto bytes = bytesOf( id );
   MDB_val key{ bytes.size(), bytes.data() };
   int const error = mdb_cursor_get( cursor_.get(), &key, nullptr, MDB_SET );
   require( error == 0 ? mdb_cursor_del( cursor_.get(), 0 ) : error, folder_, notTaken );
}

void NatIdStore::commit() {
   cursor_ = nullptr;  // the end of the transaction would take it along
   auto changes = std::move( changes_ );
   if ( !fault_.empty() ) {
      throw UnusableInput( std::exchange( fault_, {} ) );
   }
   if ( changes ) {
      require( mdb_txn_commit( changes.release() ), folder_, notTaken );
   }
}

}  // namespace Agent
