#include "agent/NatIdStore.h"

#include "agent/UnusableInput.h"

#include <Vexa/Exception.h>
#include <Vexa/Value.h>

#include <lmdb.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sstream>
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
using Environment = std::unique_ptr< MDB_env, void ( * )( MDB_env * ) >;

[[noreturn]] void refuse( std::string const & folder, std::string const & fault ) {
   throw UnusableInput( folder + "/data.mdb: " + fault + "; it was left as it is" );
}

Environment environmentIn( std::string const & folder, unsigned flags ) {
   MDB_env * created = nullptr;
   int error = mdb_env_create( &created );
   Environment environment( created, &mdb_env_close );
   if ( error == 0 ) {
      mdb_env_set_mapsize( created, mapSize );
      error = mdb_env_open( created, folder.c_str(), flags, fileMode );
   }
   if ( error != 0 ) {
      refuse( folder, std::string( "cannot be opened: " ) + mdb_strerror( error ) );
   }
   return environment;
}

// One transaction with the one database of the environment; given up unless committed.
class Transaction {
 public:
   Transaction( MDB_env * environment, unsigned flags, std::string const & folder ) : folder_( folder ) {
      require( mdb_txn_begin( environment, nullptr, flags, &transaction_ ) );
      require( mdb_dbi_open( transaction_, nullptr, 0, &database_ ) );
   }
   ~Transaction() { mdb_txn_abort( transaction_ ); }
   Transaction( Transaction const & ) = delete;
   Transaction & operator=( Transaction const & ) = delete;

   void put( IdBytes id, std::string_view text ) {
      MDB_val key{ id.size(), id.data() };
      MDB_val value{ text.size(), const_cast< char * >( text.data() ) };
      require( mdb_put( transaction_, database_, &key, &value, 0 ) );
   }

   void remove( IdBytes id ) {
      MDB_val key{ id.size(), id.data() };
      int const error = mdb_del( transaction_, database_, &key, nullptr );
      require( error == MDB_NOTFOUND ? 0 : error );
   }

   void commit() { require( mdb_txn_commit( std::exchange( transaction_, nullptr ) ) ); }

   // Calls function( key, value ) for every record in the order of the ids.
   template< class Function > void forEach( Function && function ) {
      MDB_cursor * opened = nullptr;
      require( mdb_cursor_open( transaction_, database_, &opened ) );
      std::unique_ptr< MDB_cursor, void ( * )( MDB_cursor * ) > const cursor( opened, &mdb_cursor_close );
      int error = 0;
      for ( MDB_val key, value; ( error = mdb_cursor_get( opened, &key, &value, MDB_NEXT ) ) == 0; ) {
         function( std::string_view( static_cast< char const * >( key.mv_data ), key.mv_size ),
                   std::string_view( static_cast< char const * >( value.mv_data ), value.mv_size ) );
      }
      require( error == MDB_NOTFOUND ? 0 : error );
   }

 private:
   void require( int error ) const {
      if ( error != 0 ) {
         refuse( folder_, mdb_strerror( error ) );
      }
   }

   std::string const & folder_;
   MDB_txn * transaction_ = nullptr;
   MDB_dbi database_ = 0;
};

// LMDB keeps no checksums and reads through a memory map, so a damaged file may kill whoever reads it. A child reads
// everything first; what is merely wrong the parent finds again.
bool survivesReading( std::string const & folder ) {
   auto const child = fork();
   if ( child == 0 ) {
      close( STDERR_FILENO );
      try {
         auto const environment = environmentIn( folder, MDB_RDONLY | MDB_NOLOCK );
         std::size_t volatile sum = 0;
         Transaction( environment.get(), MDB_RDONLY, folder )
            .forEach(
               [ & ]( std::string_view, std::string_view value ) { sum = std::hash< std::string_view >()( value ); } );
      } catch ( UnusableInput const & ) {
         _exit( 0 );
      }
      _exit( 0 );
   }
   int status = 0;
   return child < 0 || waitpid( child, &status, 0 ) < 0 || status == 0;
}

}  // namespace

NatIdStore::Lock::Lock( std::string const & folder )
   : descriptor_( open( ( folder + "/agent.lock" ).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, fileMode ) ) {
   struct flock region {};
   region.l_type = F_WRLCK;
   region.l_whence = SEEK_SET;
   if ( descriptor_ >= 0 && fcntl( descriptor_, F_SETLK, &region ) == 0 ) {
      return;
   }
   int const error = errno;
   bool const isHeld = ( error == EACCES || error == EAGAIN ) && fcntl( descriptor_, F_GETLK, &region ) == 0;
   close( descriptor_ );
   throw UnusableInput( isHeld ? folder + ": is in use by process " + std::to_string( region.l_pid ) +
                                    "; allowed: one agent per state folder"
                               : folder + "/agent.lock: cannot be locked: " + std::strerror( error ) );
}

NatIdStore::Lock::~Lock() { close( descriptor_ ); }

NatIdStore::NatIdStore( std::string folder ) : folder_( std::move( folder ) ), environment_( nullptr, &mdb_env_close ) {
   if ( mkdir( folder_.c_str(), folderMode ) < 0 && errno != EEXIST ) {
      throw UnusableInput( folder_ + ": cannot be created: " + std::strerror( errno ) );
   }
   lock_.emplace( folder_ );
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
   load();
   restoredCount_ = natIdInfo_->matchKeyToNatId().count();
   natIdInfo_->matchKeyToNatId().watcherIs( *this );
}

void NatIdStore::load() {
   std::size_t records = 0;
   Transaction( environment_.get(), MDB_RDONLY, folder_ )
      .forEach( [ & ]( std::string_view key, std::string_view text ) {
         ++records;
         try {
            if ( key.size() != IdBytes().size() ) {
               throw Vexa::ParseException( "its key is no id" );
            }
            auto const byte = [ & ]( std::size_t i ) { return static_cast< unsigned char >( key[ i ] ); };
            natIdInfo_->matchKeyToNatIdIs( Vexa::parseWhole< Pfe::NatMatchKey >( text ),
                                           Pfe::NatId( U64{ byte( 0 ) } << 8 | byte( 1 ) ) );
            if ( natIdInfo_->matchKeyToNatId().count() != records ) {
               throw Vexa::ParseException( "its match key has another id already" );
            }
         } catch ( Vexa::Exception const & fault ) {
            refuse( folder_, "is damaged: record " + std::to_string( records ) + ": " + fault.what() );
         }
      } );
}

void NatIdStore::onKey( Pfe::NatMatchKey const & key, Pfe::NatId const * previous, Pfe::NatId const * current ) {
   if ( previous ) {
      changes_.emplace_back( *previous, std::nullopt );
   }
   if ( current ) {
      changes_.emplace_back( *current, key );
   }
}

void NatIdStore::commit() {
   if ( changes_.empty() ) {
      return;
   }
   Transaction transaction( environment_.get(), 0, folder_ );
   std::ostringstream text;
   for ( auto const & [ id, key ] : changes_ ) {
      IdBytes const bytes{ static_cast< unsigned char >( id.value() >> 8 ),
                           static_cast< unsigned char >( id.value() ) };
      if ( key ) {
         text.str( {} );
         Vexa::write( text, *key );
         transaction.put( bytes, text.view() );
      } else {
         transaction.remove( bytes );
      }
   }
   transaction.commit();
   changes_.clear();
}

}  // namespace Agent
