#include "agent/host/NatIdStore.h"

#include "agent/basics/UnusableInput.h"

#include <Vexa/Exception.h>
#include <Vexa/Value.h>

#include <lmdb.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <random>
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

// LMDB's own lock file would be mapped, and a full disk end whoever writes to it; agent.lock does what is needed.
constexpr unsigned environmentFlags = MDB_NOLOCK;
constexpr char const * notTaken = "does not take the NAT ids";
constexpr U64 formatVersion = 1;  // stores of before there were versions hold the same records

IdBytes bytesOf( U64 id ) { return { static_cast< unsigned char >( id >> 8 ), static_cast< unsigned char >( id ) }; }

[[noreturn]] void refuse( std::string const & folder, std::string const & fault ) {
   throw UnusableInput( folder + "/data.mdb: " + fault + "; it was left as it is" );
}

void require( int error, std::string const & folder, char const * fault ) {
   if ( error != 0 ) {
      refuse( folder, std::string( fault ) + ": " + mdb_strerror( error ) );
   }
}

// `path`: of the folder, or with MDB_NOSUBDIR of the file.
Environment environmentAt( std::string const & path, unsigned flags, std::string const & folder ) {
   constexpr char const * fault = "cannot be opened";
   MDB_env * created = nullptr;
   require( mdb_env_create( &created ), folder, fault );
   Environment environment( created, &mdb_env_close );
   mdb_env_set_mapsize( created, mapSize );
   require( mdb_env_open( created, path.c_str(), environmentFlags | flags, fileMode ), folder, fault );
   return environment;
}
Environment environmentIn( std::string const & folder, unsigned flags ) {
   return environmentAt( folder, flags, folder );
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
            environmentIn( folder, MDB_RDONLY ).get(), folder,
            [ & ]( std::string_view, std::string_view value ) { sum = std::hash< std::string_view >()( value ); } );
      } catch ( UnusableInput const & ) {
         _exit( 0 );
      }
      _exit( 0 );
   }
   int status = 0;
   return child < 0 || waitpid( child, &status, 0 ) < 0 || status == 0;
}

// LMDB tells of a write that the disk took in part only as of a fault of input and output. What the disk says to more
// of the same is why.
int whyPartial( MDB_env * environment, int error ) {
   mdb_filehandle_t file = -1;
   struct stat found {};
   if ( error != EIO || mdb_env_get_fd( environment, &file ) != 0 || fstat( file, &found ) != 0 ) {
      return error;
   }
   std::array< char, 1 << 16 > const zeros{};
   for ( int i = 0; i < 2 && error == EIO; ++i ) {
      if ( pwrite( file, zeros.data(), zeros.size(), found.st_size + i * off_t{ zeros.size() } ) < 0 ) {
         error = errno;
      }
   }
   return ftruncate( file, found.st_size ) == 0 ? error : errno;
}

std::string newIdentity() {
   std::random_device random;
   std::string text;
   for ( int i = 0; i < 16; ++i ) {
      text += "0123456789abcdef"[ random() & 0xF ];
   }
   return text;
}

void putVersion( MDB_txn * transaction, MDB_dbi database, std::string const & identity, std::string const & folder ) {
   auto bytes = bytesOf( 0 );
   auto text = std::to_string( formatVersion ) + ' ' + identity;
   MDB_val key{ bytes.size(), bytes.data() };
   MDB_val value{ text.size(), text.data() };
   require( mdb_put( transaction, database, &key, &value, 0 ), folder, notTaken );
}

// Under its name once it is whole: whatever stops this, a store that is there was made to its end.
void createStore( std::string const & folder ) {
   auto const file = folder + "/data.mdb";
   auto const unfinished = file + ".new";
   unlink( unfinished.c_str() );
   try {
      auto const environment = environmentAt( unfinished, MDB_NOSUBDIR, folder );
      MDB_dbi database = 0;
      auto transaction = begin( environment.get(), 0, database, folder );
      putVersion( transaction.get(), database, newIdentity(), folder );
      require( whyPartial( environment.get(), mdb_txn_commit( transaction.release() ) ), folder, "cannot be created" );
      require( std::rename( unfinished.c_str(), file.c_str() ) == 0 ? 0 : errno, folder, "cannot be created" );
   } catch ( UnusableInput const & ) {
      unlink( unfinished.c_str() );
      throw;
   }
   fsync( Descriptor( open( folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC ) ).number() );
}

void requireVersion( std::string_view text, std::string const & folder ) {
   U64 version = 0;
   auto const number = text.substr( 0, text.find( ' ' ) );
   auto const [ end, error ] = std::from_chars( number.data(), number.data() + number.size(), version );
   if ( error != std::errc{} || end != number.data() + number.size() || version < 1 ) {
      throw Vexa::ParseException( "it is no version of the format" );
   }
   if ( version > formatVersion ) {
      refuse( folder, "has format " + std::to_string( version ) + ", which is newer; allowed: up to " +
                         std::to_string( formatVersion ) );
   }
}

// Empty when the store does not say.
std::string identityIn( MDB_env * environment, std::string const & folder ) {
   MDB_dbi database = 0;
   auto const transaction = begin( environment, MDB_RDONLY, database, folder );
   auto bytes = bytesOf( 0 );
   MDB_val key{ bytes.size(), bytes.data() };
   MDB_val value{};
   if ( mdb_get( transaction.get(), database, &key, &value ) != 0 ) {
      return {};
   }
   std::string_view const text( static_cast< char const * >( value.mv_data ), value.mv_size );
   auto const blank = text.find( ' ' );
   return blank == text.npos ? std::string() : std::string( text.substr( blank + 1 ) );
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

NatIdStore::NatIdStore( std::string folder ) : folder_( std::move( folder ) ), environment_( nullptr, &mdb_env_close ) {
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
   if ( stat( ( folder_ + "/data.mdb" ).c_str(), &found ) != 0 ) {
      require( errno == ENOENT ? 0 : errno, folder_, "cannot be opened" );
      createStore( folder_ );
   } else if ( found.st_size == 0 ) {
      refuse( folder_, "is damaged: it is empty" );
   } else if ( !survivesReading( folder_ ) ) {
      refuse( folder_, "is damaged: reading it fails half-way" );
   }
   environment_ = environmentIn( folder_, 0 );
   identity_ = identityIn( environment_.get(), folder_ );
   hasVersion_ = !identity_.empty();
   identity_ = hasVersion_ ? identity_ : newIdentity();
}

NatIdStore::~NatIdStore() {
   if ( natIdInfo_ ) {
      natIdInfo_->matchKeyToNatId().watcherDel( *this );
   }
   if ( !changes_.empty() && !hasNewIds_ ) {
      try {
         commit();
      } catch ( UnusableInput const & ) {
         // Ids that are given back stay reserved then until the next start, which gives them back as well.
      }
   }
}

void NatIdStore::natIdInfoIs( Pfe::NatIdInfo::Ptr natIdInfo ) {
   natIdInfo_ = std::move( natIdInfo );
   std::size_t record = 0;
   forEachRecord( environment_.get(), folder_, [ & ]( std::string_view key, std::string_view text ) {
      ++record;
      try {
         if ( key.size() != IdBytes().size() ) {
            throw Vexa::ParseException( "its key is no id" );
         }
         auto const byte = [ & ]( std::size_t i ) { return static_cast< unsigned char >( key[ i ] ); };
         auto const id = U64{ byte( 0 ) } << 8 | byte( 1 );
         if ( id == 0 ) {
            requireVersion( text, folder_ );
            return;
         }
         natIdInfo_->matchKeyToNatIdIs( Vexa::parseWhole< Pfe::NatMatchKey >( text ), Pfe::NatId( id ) );
         if ( natIdInfo_->matchKeyToNatId().count() != ++restoredCount_ ) {
            throw Vexa::ParseException( "its match key has another id already" );
         }
      } catch ( Vexa::Exception const & fault ) {
         refuse( folder_, "is damaged: record " + std::to_string( record ) + ": " + fault.what() );
      }
   } );
   natIdInfo_->matchKeyToNatId().watcherIs( *this );
}

void NatIdStore::onKey( Pfe::NatMatchKey const & key, Pfe::NatId const * previous, Pfe::NatId const * current ) {
   if ( previous && !( current && *current == *previous ) ) {
      changes_.push_back( { *previous, std::nullopt } );
   }
   if ( current ) {
      changes_.push_back( { *current, key } );
      hasNewIds_ = true;
   }
}

void NatIdStore::mergeChanges() {
   if ( !std::ranges::is_sorted( changes_, {}, &Change::id ) ) {
      std::ranges::stable_sort( changes_, {}, &Change::id );
   }
   auto const olders = std::unique( changes_.rbegin(), changes_.rend(),
                                    []( Change const & a, Change const & b ) { return a.id == b.id; } );
   changes_.erase( changes_.begin(), olders.base() );
}

void NatIdStore::write() {
   if ( !environment_ ) {
      environment_ = environmentIn( folder_, 0 );
   }
   MDB_dbi database = 0;
   auto transaction = begin( environment_.get(), 0, database, folder_ );
   if ( !hasVersion_ ) {
      putVersion( transaction.get(), database, identity_, folder_ );
   }
   auto cursor = cursorOn( transaction.get(), database, folder_ );
   std::string text;
   for ( auto const & [ id, matchKey ] : changes_ ) {
      auto bytes = bytesOf( id.value() );
      MDB_val key{ bytes.size(), bytes.data() };
      int error = 0;
      if ( matchKey ) {
         text.clear();
         Vexa::append( text, *matchKey );
         MDB_val value{ text.size(), text.data() };
         // Most new ids are greater than all others, which takes no search and leaves no page half empty.
         error = mdb_cursor_put( cursor.get(), &key, &value, MDB_APPEND );
         error = error == MDB_KEYEXIST ? mdb_cursor_put( cursor.get(), &key, &value, 0 ) : error;
      } else {
         error = mdb_cursor_get( cursor.get(), &key, nullptr, MDB_SET );
         error = error == MDB_NOTFOUND ? 0 : error == 0 ? mdb_cursor_del( cursor.get(), 0 ) : error;
      }
      require( error, folder_, notTaken );
   }
   cursor = nullptr;  // before the end of the transaction, which would take it along
   require( whyPartial( environment_.get(), mdb_txn_commit( transaction.release() ) ), folder_, notTaken );
}

void NatIdStore::commit() {
   mergeChanges();
   if ( changes_.empty() && hasVersion_ ) {
      return;
   }
   try {
      write();
   } catch ( UnusableInput const & ) {
      environment_ = nullptr;  // which may refuse everything from here on
      throw;
   }
   hasVersion_ = true;
   changes_.clear();
   hasNewIds_ = false;
}

}  // namespace Agent
