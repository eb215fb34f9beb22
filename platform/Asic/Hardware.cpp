#include <Asic/Hardware.h>

#include <Asic/SettleOrder.h>
#include <Vexa/Assert.h>
#include <Vexa/Type.h>

#include <algorithm>
#include <utility>

namespace [[gnu::visibility( "default" )]] Asic {

namespace {

// Whether the chip hears of the operation: a write whose rewrite is failed or missing is kept from it, and there is
// nothing to remove of a row that it never took.
bool isSent( Operation const & operation ) {
   if ( operation.kind == Operation::Kind::removal ) {
      return operation.row->inHardware != nullptr;
   }
   auto const * const entry = operation.row->referringEntryOf( *operation.version );
   return !entry || entry->sendable();
}

EntryState checked( EntryState answer ) {
   VEXA_ASSERT( ( answer == EntryState::settled || isFailure( answer ) ) && "a chip answers every request" );
   return answer;
}

EntryState outcomeOfUnsent( Operation const & operation ) {
   return operation.kind == Operation::Kind::removal ? EntryState::settled : EntryState::failed;
}

}  // namespace

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

// --- One at a time ---------------------------------------------------------------------------------------------------

void Hardware::settle() {
   Ptr const self( this );
   ++turn_;
   tryRefusedRemovalsAgain();
   if ( chip_ && chip_->batchLimit() > 1 && !chip_->reorders() ) {
      settleInBatches( chip_->batchLimit() );
      return;
   }
   while ( auto const position = nextReady() ) {
      settleOperation( *position, outcomeOf( queue_[ *position ] ) );
   }
}

ChipRequest Hardware::requestOf( Operation const & operation ) const {
   auto const & row = *operation.row;
   return { .table = *row.table,
            .row = row,
            .version = operation.kind == Operation::Kind::write ? operation.version : nullptr,
            .addsRow = !row.inHardware,
            .turnsWaited = turn_ - operation.turn };
}

std::optional< Hardware::Position > Hardware::nextReady() const {
   if ( queue_.empty() ) {
      return std::nullopt;
   }
   if ( chip_ && chip_->reorders() ) {
      return chosenByChip();
   }
   return isReady( queue_[ queue_.first() ] ) ? std::optional( queue_.first() ) : std::nullopt;
}

std::optional< Hardware::Position > Hardware::chosenByChip() const {
   std::vector< Position > eligible;
   SettleOrder order;
   queue_.forEachUntil( [ & ]( Position position, Operation const & operation ) {
      if ( order.stepOf( operation ) == 0 && isReady( operation ) ) {
         eligible.push_back( position );
      }
      return true;
   } );
   return eligible.empty() ? std::nullopt : std::optional( eligible.at( chip_->choose( eligible.size() ) ) );
}

EntryState Hardware::outcomeOf( Operation const & operation ) const {
   if ( !isSent( operation ) ) {
      return outcomeOfUnsent( operation );
   }
   auto outcome = EntryState::settled;
   if ( chip_ ) {
      outcome = EntryState::none;
      auto const request = requestOf( operation );
      chip_->carryOut( { &request, 1 }, { &outcome, 1 } );
   }
   return checked( outcome );
}

void Hardware::settleNext( EntryState outcome ) {
   Ptr const self( this );
   VEXA_ASSERT( !queue_.empty() && "nothing is outstanding" );
   auto const position = queue_.first();
   auto const & operation = queue_[ position ];
   settleOperation( position, isSent( operation ) ? outcome : outcomeOfUnsent( operation ) );
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
      Row::hold( version );
      refused_.emplace( row.lastOperation, HeldVersion{ &row, version } );
      onlyReports = version != row.inHardware;
   }

   if ( reports ) {
      row.state_ = outcome;
   }
   // A report that finds the key absent is taken for that of the removal, and gives the NAT id back.
   bool const reportsEverything = chip_ && chip_->reportsEverything() && ( reports || row.newest );
   if ( auto const & response = row.entryOf( *version ).writeResponse; response && ( reports || reportsEverything ) ) {
      table->settles( row );
      if ( reportsEverything ) {
         response( EntryState::pending );
      }
      response( outcome );
   }

   row.letGo( replaced );
   if ( onlyReports ) {
      if ( auto * const entry = row.referringEntryOf( *version ) ) {
         entry->handlesDel();
      }
   }
   row.letGo( version );
   --row.outstanding;
   SwTableBase::eraseIfOver( row );
}

// --- Batches ---------------------------------------------------------------------------------------------------------

// A stretch of the queue at a time: long enough to fill the batches that it is sorted into, and no longer, since what
// goes is taken out before what comes in its place is put in.
void Hardware::settleInBatches( std::size_t limit ) {
   constexpr std::size_t sorts = 4;  // removals, rewrites, twins, rows
   std::vector< std::vector< Position > > batches;
   while ( sortIntoBatches( batches, sorts * limit ) ) {
      for ( auto const & batch : batches ) {
         for ( std::size_t done = 0; done < batch.size(); done += limit ) {
            settleTogether( std::span( batch ).subspan( done, std::min( limit, batch.size() - done ) ) );
         }
      }
   }
}

// Step by step, and in a step the removals first: there may be no room for what comes until they are done.
bool Hardware::sortIntoBatches( std::vector< std::vector< Position > > & batches, std::size_t most ) const {
   for ( auto & batch : batches ) {
      batch.clear();
   }
   SettleOrder order;
   std::size_t count = 0;
   queue_.forEachUntil( [ & ]( Position position, Operation const & operation ) {
      auto const step = count < most && isReady( operation ) ? order.stepOf( operation ) : SettleOrder::stepLimit;
      if ( step == SettleOrder::stepLimit ) {
         return false;
      }
      auto const number = 2 * step + ( operation.kind == Operation::Kind::write );
      batches.resize( std::max< std::size_t >( batches.size(), number + 1 ) );
      batches[ number ].push_back( position );
      ++count;
      return true;
   } );
   return count != 0;
}

// All are of one kind. A response may clear tables, and with them operations that the chip has carried out already.
void Hardware::settleTogether( std::span< Position const > positions ) {
   std::vector< ChipRequest > requests;
   std::vector< EntryState > outcomes( positions.size(), EntryState::none );  // none: to be answered by the chip
   for ( std::size_t i = 0; i < positions.size(); ++i ) {
      if ( !queue_.holds( positions[ i ] ) ) {
         outcomes[ i ] = EntryState::settled;  // to nobody's knowledge
      } else if ( auto const & operation = queue_[ positions[ i ] ]; isSent( operation ) ) {
         requests.push_back( requestOf( operation ) );
      } else {
         outcomes[ i ] = outcomeOfUnsent( operation );
      }
   }
   std::vector< EntryState > answers( requests.size(), EntryState::none );
   if ( !requests.empty() ) {
      chip_->carryOut( requests, answers );
   }
   auto answer = answers.begin();
   for ( std::size_t i = 0; i < positions.size(); ++i ) {
      auto const outcome = outcomes[ i ] == EntryState::none ? checked( *answer++ ) : outcomes[ i ];
      if ( queue_.holds( positions[ i ] ) ) {
         settleOperation( positions[ i ], outcome );
      }
   }
}

// --- Again -----------------------------------------------------------------------------------------------------------

void Hardware::tryRefusedRemovalsAgain() {
   auto const refused = std::exchange( refused_, {} );
   for ( auto const & [ number, refusal ] : refused ) {
      refusal.row->removalRefused = false;
   }
   for ( auto const & [ number, refusal ] : refused ) {
      refusal.row->table->removeReportedBy( *refusal.row, refusal.version );
   }
}

Version * Hardware::takeRefusalOf( Row & row ) {
   row.removalRefused = false;
   return refused_.extract( row.lastOperation ).mapped().version;
}

void Hardware::retryFailed() {
   struct Retry {
      unsigned rank;
      U32 age;  // in operations: numbers wrap
      Row * row;
   };
   std::vector< Retry > retries;
   for ( auto * const table : tables_ ) {
      table->forEachRow(
         []( void * context, Row & row ) {
            if ( row.newest && isFailure( row.state_ ) && !row.removalRefused ) {
               static_cast< std::vector< Retry > * >( context )->push_back(
                  { SettleOrder::rankOf( row ), row.newest->number, &row } );
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
