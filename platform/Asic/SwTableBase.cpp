#include <Asic/SwTableBase.h>

#include <Asic/Hardware.h>
#include <Vexa/Assert.h>
#include <Vexa/Type.h>

#include <algorithm>
#include <utility>

namespace [[gnu::visibility( "default" )]] Asic {

namespace {

void hold( Version * version ) {
   if ( version ) {
      ++version->reasons;
   }
}

void letGo( Row & row, Version * version ) {
   if ( version && --version->reasons == 0 ) {
      row.free( version );
   }
}

bool sendable( Operation const & operation ) {
   auto const * const entry = operation.row->referringEntryOf( *operation.version );
   return !entry || entry->sendable();
}

// Whether what is written holds that handle; null asks for any.
bool refersTo( Row const & row, Version & version, EntryHandle const * handle ) {
   auto const * const entry = row.referringEntryOf( version );
   return entry && entry->refersTo( handle );
}

}  // namespace

void Row::lastUserGone() const {
   auto & self = const_cast< Row & >( *this );
   if ( table && newest && !committed && !removalRefused ) {
      table->remove( self );
   } else {
      SwTableBase::eraseIfOver( self );
   }
}

SwTableBase::SwTableBase( std::string_view name, Orla::Ptr< Hardware > hardware )
   : name_( name ), hardware_( std::move( hardware ) ) {
   hardware_->tables_.push_back( this );
}

SwTableBase::~SwTableBase() { std::erase( hardware_->tables_, this ); }

Version * SwTableBase::newestIs( Row & row, Version * version ) {
   rowCount_ += ( version != nullptr ) - ( row.newest != nullptr );
   hold( version );
   return std::exchange( row.newest, version );
}

Version * SwTableBase::inHardwareIs( Row & row, Version * version ) {
   hardwareRowCount_ += ( version != nullptr ) - ( row.inHardware != nullptr );
   hold( version );
   return std::exchange( row.inHardware, version );
}

void SwTableBase::write( Row & row, Version * version ) {
   auto * const refused = hardware_->takeRefusal( row );
   auto * const replaced = newestIs( row, version );
   row.state_ = EntryState::pending;
   hardware_->queue( row, version, Operation::Kind::write );
   version->number = row.lastOperation;
   letGo( row, replaced );
   letGo( row, refused );
}

void SwTableBase::remove( Row & row ) { removeReportedBy( row, hardware_->takeRefusal( row ) ); }

// What a refusal made visible again is the hardware's version, perhaps an older one. The version whose removal was
// asked for goes on reporting, without its handles: its entry is the one that whoever removed it waits for.
void SwTableBase::removeReportedBy( Row & row, Version * refused ) {
   row.committed = false;
   auto * const visible = newestIs( row, nullptr );
   hardware_->queue( row, refused ? refused : visible, Operation::Kind::removal );
   letGo( row, visible );
   letGo( row, refused );
}

// Giving up a version may give up anything: other rows of this table, other tables, this table. So all rows leave
// first, an operation that none of them has keeps each until the end, and nothing of the table is used once a version
// goes.
void SwTableBase::abandon( std::vector< Row * > const & rows ) {
   rowCount_ = 0;
   hardwareRowCount_ = 0;
   std::vector< HeldVersion > versions;
   for ( auto * const row : rows ) {
      versions.push_back( { row, hardware_->takeRefusal( *row ) } );
      row->table = nullptr;
      ++row->outstanding;
      versions.push_back( { row, std::exchange( row->newest, nullptr ) } );
      versions.push_back( { row, std::exchange( row->inHardware, nullptr ) } );
   }
   hardware_->dropOperationsWithoutTable( versions );
   for ( auto const & held : versions ) {
      letGo( *held.row, held.version );
   }
   for ( auto * const row : rows ) {
      --row->outstanding;
      eraseIfOver( *row );
   }
}

void SwTableBase::eraseIfOver( Row & row ) {
   if ( row.users_ == 0 && row.outstanding == 0 && !row.newest && !row.inHardware ) {
      if ( row.table ) {
         row.table->erase( row );
      } else {
         delete &row;
      }
   }
}

// --- Hardware --------------------------------------------------------------------------------------------------------

void Hardware::queue( Row & row, Version * version, Operation::Kind kind ) {
   hold( version );
   ++row.outstanding;
   row.lastOperation =
      static_cast< U32 >( queue_.push( { .row = &row, .version = version, .turn = turn_, .kind = kind } ) );
}

void Hardware::dropOperationsWithoutTable( std::vector< HeldVersion > & versions ) {
   queue_.forEachUntil( [ & ]( Position position, Operation const & operation ) {
      if ( !operation.row->table ) {
         --operation.row->outstanding;
         versions.push_back( { operation.row, operation.version } );
         queue_.take( position );
      }
      return true;
   } );
}

HardwarePolicy::Request Hardware::requestOf( Operation const & operation ) const {
   auto const & row = *operation.row;
   return { .table = *row.table, .row = row, .addsRow = !row.inHardware, .turnsWaited = turn_ - operation.turn };
}

// Eligible beside older operations: none of them is of the same row, or of a row that this one refers to.
bool Hardware::maySettle( Position position ) const {
   auto const & operation = queue_[ position ];
   bool may = true;
   queue_.forEachUntil( [ & ]( Position older, Operation const & olderOperation ) {
      if ( older == position ) {
         return false;
      }
      may =
         olderOperation.row != operation.row && ( operation.kind == Operation::Kind::removal ||
                                                  !refersTo( *operation.row, *operation.version, olderOperation.row ) );
      return may;
   } );
   return may;
}

std::optional< Hardware::Position > Hardware::nextReady() const {
   if ( queue_.empty() ) {
      return std::nullopt;
   }
   return policy_ ? nextReadyOf( *policy_ ) : queue_.first();
}

std::optional< Hardware::Position > Hardware::nextReadyOf( HardwarePolicy & policy ) const {
   if ( !policy.reorders() ) {
      bool const isReady = policy.isReady( requestOf( queue_[ queue_.first() ] ) );
      return isReady ? std::optional( queue_.first() ) : std::nullopt;
   }
   std::vector< Position > eligible;
   queue_.forEachUntil( [ & ]( Position position, Operation const & operation ) {
      if ( policy.isReady( requestOf( operation ) ) && maySettle( position ) ) {
         eligible.push_back( position );
      }
      return true;
   } );
   return eligible.empty() ? std::nullopt : std::optional( eligible.at( policy.choose( eligible.size() ) ) );
}

EntryState Hardware::outcomeOf( Operation const & operation ) const {
   if ( operation.kind == Operation::Kind::removal ) {
      bool const refused = policy_ && operation.row->inHardware && policy_->refusesRemoval( requestOf( operation ) );
      return refused ? EntryState::failed : EntryState::settled;
   }
   if ( !sendable( operation ) ) {
      return EntryState::failed;
   }
   return policy_ ? policy_->outcomeOfWrite( requestOf( operation ) ) : EntryState::settled;
}

void Hardware::settle() {
   Ptr const self( this );
   ++turn_;
   tryRefusedRemovalsAgain();
   while ( auto const position = nextReady() ) {
      settleOperation( *position, outcomeOf( queue_[ *position ] ) );
   }
}

void Hardware::settleNext( EntryState outcome ) {
   Ptr const self( this );
   VEXA_ASSERT( !queue_.empty() && "nothing is outstanding" );
   auto const position = queue_.first();
   auto const & operation = queue_[ position ];
   bool const sent =
      operation.kind == Operation::Kind::removal ? operation.row->heldByHardware() : sendable( operation );
   auto const notSent = operation.kind == Operation::Kind::removal ? EntryState::settled : EntryState::failed;
   settleOperation( position, sent ? outcome : notSent );
}

// Table, row and response stay until the response has run: the operation counts as outstanding until then, and the
// versions are given up after it. The response may clear the table, which takes the row's versions itself.
void Hardware::settleOperation( Position position, EntryState outcome ) {
   auto const operation = queue_.take( position );
   auto & row = *operation.row;
   Orla::Ptr< SwTableBase > const table( row.table );
   auto * const version = operation.version;
   bool const reports = row.lastOperation == static_cast< U32 >( position );

   Version * replaced = nullptr;
   bool onlyReports = false;
   if ( operation.kind == Operation::Kind::write ) {
      if ( outcome == EntryState::settled ) {
         replaced = table->inHardwareIs( row, version );
      }
   } else if ( outcome == EntryState::settled || !row.inHardware ) {
      replaced = table->inHardwareIs( row, nullptr );
   } else if ( reports ) {
      table->newestIs( row, row.inHardware );
      row.removalRefused = true;
      hold( version );
      refused_.emplace( row.lastOperation, HeldVersion{ &row, version } );
      onlyReports = version != row.inHardware;
   }

   if ( reports ) {
      row.state_ = outcome;
   }
   bool const reportsEverything = policy_ && policy_->reportsEverything();
   if ( auto const & response = row.entryOf( *version ).writeResponse; response && ( reports || reportsEverything ) ) {
      table->settles( row );
      if ( reportsEverything ) {
         response( EntryState::pending );
      }
      response( outcome );
   }

   letGo( row, replaced );
   if ( onlyReports ) {
      if ( auto * const entry = row.referringEntryOf( *version ) ) {
         entry->handlesDel();
      }
   }
   letGo( row, version );
   --row.outstanding;
   SwTableBase::eraseIfOver( row );
}

void Hardware::tryRefusedRemovalsAgain() {
   auto const refused = std::exchange( refused_, {} );
   for ( auto const & [ number, refusal ] : refused ) {
      refusal.row->removalRefused = false;
   }
   for ( auto const & [ number, refusal ] : refused ) {
      refusal.row->table->removeReportedBy( *refusal.row, refusal.version );
   }
}

Version * Hardware::takeRefusal( Row & row ) {
   if ( !row.removalRefused ) {
      return nullptr;
   }
   row.removalRefused = false;
   return refused_.extract( row.lastOperation ).mapped().version;
}

void Hardware::retryFailed() {
   struct Retry {
      int rank;
      U32 age;  // in operations: numbers wrap
      Row * row;
   };
   std::vector< Retry > retries;
   for ( auto * const table : tables_ ) {
      table->forEachRow(
         []( void * context, Row & row ) {
            if ( row.newest && isFailure( row.state_ ) && !row.removalRefused ) {
               int const rank = !refersTo( row, *row.newest, nullptr ) ? 0 : row.committed ? 2 : 1;
               static_cast< std::vector< Retry > * >( context )->push_back( { rank, row.newest->number, &row } );
            }
         },
         &retries );
   }
   for ( auto & retry : retries ) {
      retry.age = queue_.nextNumber() - retry.age;
   }
   std::ranges::sort( retries, {}, []( Retry const & r ) { return std::pair( r.rank, ~r.age ); } );
   for ( auto const & retry : retries ) {
      retry.row->state_ = EntryState::pending;
      queue( *retry.row, retry.row->newest, Operation::Kind::write );
   }
}

Vexa::TypeData const & Hardware::typeData() const {
   static constexpr Vexa::TypeData type{ .name = "Asic::Hardware" };
   return type;
}

}  // namespace Asic
