// A plain model of two software tables and their hardware, for histories that are played in both. The model counts
// nothing: whether a row is held, or a version still matters, it finds by looking at everything that could be the
// reason.
#pragma once

#include <Asic/EntryState.h>
#include <Vexa/Types.h>

#include <algorithm>
#include <array>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace SwTableHistory {

using Asic::EntryState;

enum Table : U32 { rewrite, match };  // matches refer to rewrites, and to other matches as their twins
constexpr U32 keyCount = 5;
constexpr U32 slotCount = 6;  // handles that the history's player holds

// What one write says.
struct RowWrite {
   enum class Response { reports, removesItself, removesAnother, writesItselfAgain, dropsASlot };

   Table table = rewrite;
   U32 key = 0;
   U32 id = 0;  // the entry's data, another one for every write
   bool commits = false;
   std::vector< std::pair< U32, bool > >
      needs;                   // slots whose handles the entry takes, and whether their failure counts
   std::optional< U32 > twin;  // the slot with the twin's handle
   std::optional< U32 > slot;  // where the handle goes that the write returns
   Response response = Response::reports;
   U32 other = 0;  // key or slot that the response deals with
};

// How the chip answers, the same in both worlds: by row and by how often it was asked.
struct ChipPlan {
   U32 seed = 0;
   U32 failures = 0;  // of 8 writes
   U32 refusals = 0;  // of 8 removals
   std::array< U64, 2 > delay{};
   bool reorders = false;
   std::size_t batch = 1;  // requests in a call, unless it reorders
};

// What can be seen of a world.
struct Snapshot {
   struct Row {
      std::optional< U32 > seen, inHardware;  // ids
      EntryState state = EntryState::none;    // of a row that is seen
      friend bool operator==( Row const &, Row const & ) = default;
   };
   std::map< std::pair< Table, U32 >, Row > rows;                       // of which something is left
   std::array< std::array< std::size_t, 3 >, 2 > counts{};              // per table: seen, in hardware, failed
   std::array< std::tuple< U32, EntryState, bool >, slotCount > slots;  // key plus 1, state, whether in hardware
   std::set< U32 > alive;                                               // versions that keep their handles
   std::size_t outstanding = 0;
   std::vector< std::pair< U32, EntryState > > told;  // since the last look
   friend bool operator==( Snapshot const &, Snapshot const & ) = default;
};

class World {
 public:
   virtual ~World() = default;
   virtual void write( RowWrite const & wanted ) = 0;
   virtual void remove( Table table, U32 key ) = 0;
   virtual void drop( U32 slot ) = 0;
   virtual void settle() = 0;
   virtual void settleNext( EntryState outcome ) = 0;
   virtual void retryFailed() = 0;
   virtual void clear( Table table ) = 0;
   virtual Snapshot look() = 0;

   ChipPlan plan;

 protected:
   EntryState outcomeOfWrite( Table table, U32 key ) {
      auto const number = dice( table, key );
      return number % 8 >= plan.failures ? EntryState::settled : number & 0x100 ? EntryState::failed : EntryState::full;
   }
   EntryState outcomeOfRemoval( Table table, U32 key ) {
      return dice( table + 2, key ) % 8 < plan.refusals ? EntryState::failed : EntryState::settled;
   }

   void respond( RowWrite const & wanted, EntryState state ) {
      told_.emplace_back( wanted.id, state );
      switch ( wanted.response ) {
      case RowWrite::Response::reports: break;
      case RowWrite::Response::removesItself: remove( wanted.table, wanted.key ); break;
      case RowWrite::Response::removesAnother: remove( match, wanted.other % keyCount ); break;
      case RowWrite::Response::dropsASlot: drop( wanted.other % slotCount ); break;
      case RowWrite::Response::writesItselfAgain:
         write( { .table = wanted.table, .key = wanted.key, .id = 1'000'000 + ++again_, .commits = wanted.commits } );
         break;
      }
   }

   std::vector< std::pair< U32, EntryState > > told_;

 private:
   U32 dice( U32 question, U32 key ) {
      std::seed_seq sequence{ plan.seed, question, key, ++asked_[ { question, key } ] };
      U32 number = 0;
      sequence.generate( &number, &number + 1 );
      return number;
   }

   U32 again_ = 0;
   std::map< std::pair< U32, U32 >, U32 > asked_;
};

class ModelWorld final : public World {
 public:
   // What the real world decides and the model follows: which of how many operations the chip chose, for every choice
   // of the last turn; and when the removal of a rewrite was asked for, where several go at once.
   std::deque< std::pair< std::size_t, std::size_t > > choices;
   std::function< U64( U32 key ) > whenRewriteWasRemoved;

   void write( RowWrite const & wanted ) override {
      auto & place = rows_[ { wanted.table, wanted.key } ];
      if ( !place ) {
         place = std::make_shared< Row >( Row{ .table = wanted.table, .key = wanted.key } );
      }
      auto const row = place;
      auto const version = std::make_shared< Version >( Version{ .wanted = wanted, .number = asked_ } );
      for ( auto const & [ slot, counts ] : wanted.needs ) {
         version->needs.emplace_back( slots_[ slot ], counts );
      }
      version->twin = wanted.twin ? slots_[ *wanted.twin ] : nullptr;
      row->committed = row->committed || wanted.commits;
      row->state = EntryState::pending;
      auto const replaced = std::exchange( row->newest, version );
      queue( row, version, false );
      givenUp( replaced );
      auto const dropped = wanted.slot ? std::exchange( slots_[ *wanted.slot ], row ) : row;
      handleGone( dropped );
   }

   void remove( Table table, U32 key ) override {
      auto const found = rows_.find( { table, key } );
      if ( found != rows_.end() && found->second->newest ) {
         remove( RowPtr( found->second ) );
      }
   }

   void drop( U32 slot ) override { handleGone( std::exchange( slots_[ slot ], nullptr ) ); }

   void settle() override {
      ++turn_;
      for ( auto const & row : std::vector( refused_ ) ) {
         remove( row );
      }
      if ( plan.batch > 1 && !plan.reorders ) {
         while ( settleBatches() ) {
         }
      }
      while ( auto const operation = nextReady() ) {
         settle( operation, outcomeOf( *operation ) );
      }
   }

   void settleNext( EntryState outcome ) override {
      auto const operation = queue_.front();
      if ( operation->removes && !operation->row->inHardware ) {
         outcome = EntryState::settled;
      } else if ( !operation->removes && !isSendable( *operation->version ) ) {
         outcome = EntryState::failed;
      }
      settle( operation, outcome );
   }

   void retryFailed() override {
      std::vector< std::tuple< int, U64, RowPtr > > retries;
      for ( auto const & [ place, row ] : rows_ ) {
         if ( row->newest && isFailure( row->state ) && !isRefused( row ) ) {
            bool const refers = !row->newest->needs.empty() || row->newest->twin;
            retries.emplace_back( !refers ? 0 : row->committed ? 2 : 1, row->newest->number, row );
         }
      }
      std::ranges::sort( retries );
      for ( auto const & [ rank, number, row ] : retries ) {
         row->state = EntryState::pending;
         queue( row, row->newest, false );
      }
   }

   void clear( Table table ) override {
      std::vector< VersionPtr > versions;
      std::erase_if( queue_, [ & ]( OperationPtr const & operation ) {
         versions.push_back( operation->row->table == table ? operation->version : nullptr );
         return operation->row->table == table;
      } );
      std::erase_if( rows_, [ & ]( auto const & placed ) {
         auto const & row = placed.second;
         if ( row->table == table ) {
            std::erase( refused_, row );
            row->reporter = nullptr;
            row->cleared = true;
            versions.push_back( std::exchange( row->newest, nullptr ) );
            versions.push_back( std::exchange( row->inHardware, nullptr ) );
         }
         return row->cleared;
      } );
      auto const before = static_cast< std::ptrdiff_t >( queue_.size() );
      for ( auto const & version : versions ) {
         givenUp( version );
      }
      std::sort( queue_.begin() + before, queue_.end(), [ & ]( OperationPtr const & a, OperationPtr const & b ) {
         return whenRewriteWasRemoved( a->row->key ) < whenRewriteWasRemoved( b->row->key );
      } );
      for ( auto i = queue_.begin() + before; i != queue_.end(); ++i ) {
         ( *i )->row->lastOperation = ++asked_;
      }
   }

   Snapshot look() override {
      Snapshot seen{ .outstanding = queue_.size() + refused_.size(), .told = std::exchange( told_, {} ) };
      auto const idOf = [ & ]( VersionPtr const & version ) {
         return version ? std::optional( *seen.alive.insert( version->wanted.id ).first ) : std::nullopt;
      };
      for ( auto const & [ place, row ] : rows_ ) {
         auto & [ rows, inHardware, failed ] = seen.counts[ row->table ];
         rows += row->newest != nullptr;
         inHardware += row->inHardware != nullptr;
         failed += row->newest && isFailure( row->state );
         seen.rows[ place ] = { idOf( row->newest ), idOf( row->inHardware ),
                                row->newest ? row->state : EntryState::none };
         idOf( row->reporter );
      }
      for ( auto const & operation : queue_ ) {
         idOf( operation->version );
      }
      for ( U32 i = 0; i < slotCount; ++i ) {
         if ( auto const & row = slots_[ i ] ) {
            seen.slots[ i ] = { row->key + 1, row->state, row->inHardware != nullptr };
         }
      }
      return seen;
   }

   bool queueIsEmpty() const { return queue_.empty(); }
   // Whether a handle in that slot can be the twin of a match with that key; no row may come to hold itself.
   bool canBeTwinOf( U32 slot, U32 key ) const {
      return slots_[ slot ] && slots_[ slot ]->table == match && slots_[ slot ]->key > key;
   }
   // Whether a slot holds a rewrite, and is the first of those that hold it.
   bool isFirstWithItsRewrite( U32 slot ) const {
      return slots_[ slot ] && slots_[ slot ]->table == rewrite &&
             std::ranges::find( slots_, slots_[ slot ] ) == slots_.begin() + slot;
   }
   // Whether some row is in the hardware without a rewrite that it needs.
   bool rewriteIsMissing() const {
      return std::ranges::any_of( rows_, []( auto const & placed ) {
         auto const & version = placed.second->inHardware;
         return version && std::ranges::any_of( version->needs, []( auto const & need ) {
                   return need.second && !need.first->inHardware;
                } );
      } );
   }

 private:
   struct Row;
   using RowPtr = std::shared_ptr< Row >;
   struct Version {
      RowWrite wanted;
      U64 number = 0;
      std::vector< std::pair< RowPtr, bool > > needs;
      RowPtr twin;
   };
   using VersionPtr = std::shared_ptr< Version >;
   struct Row {
      Table table;
      U32 key;
      VersionPtr newest, inHardware;
      VersionPtr reporter;  // of a refused removal: the removed version without what it needs
      EntryState state = EntryState::none;
      bool committed = false, cleared = false;
      U64 lastOperation = 0;
   };
   struct Operation {
      RowPtr row;
      VersionPtr version;
      bool removes = false;
      U64 turn = 0;
   };
   using OperationPtr = std::shared_ptr< Operation >;

   template< class Predicate > bool anyVersion( Predicate const & predicate ) const {
      return std::ranges::any_of( rows_,
                                  [ & ]( auto const & placed ) {
                                     return predicate( placed.second->newest ) ||
                                            predicate( placed.second->inHardware );
                                  } ) ||
             std::ranges::any_of( queue_,
                                  [ & ]( auto const & operation ) { return predicate( operation->version ); } ) ||
             std::ranges::any_of( inResponse_, predicate );
   }
   static bool refers( VersionPtr const & version, RowPtr const & row ) {
      return version && ( version->twin == row || std::ranges::any_of( version->needs, [ & ]( auto const & need ) {
                             return need.first == row;
                          } ) );
   }
   bool isHeld( RowPtr const & row ) const {
      return std::ranges::find( slots_, row ) != slots_.end() ||
             anyVersion( [ & ]( VersionPtr const & version ) { return refers( version, row ); } );
   }
   bool isRefused( RowPtr const & row ) const { return std::ranges::find( refused_, row ) != refused_.end(); }
   bool isQueued( RowPtr const & row ) const {
      return std::ranges::any_of( queue_, [ & ]( auto const & operation ) { return operation->row == row; } );
   }
   static bool isSendable( Version const & version ) {
      return std::ranges::all_of( version.needs, []( auto const & need ) {
         return !need.second || ( need.first->inHardware && !isFailure( need.first->state ) );
      } );
   }

   // In the order in which an entry's handles are destroyed: the twin, then those that are not held inside.
   void givenUp( VersionPtr const & version ) {
      if ( version && !anyVersion( [ & ]( VersionPtr const & other ) { return other == version; } ) ) {
         auto needs = version->needs;
         if ( !needs.empty() && needs.front().second ) {
            std::ranges::rotate( needs, needs.begin() + 1 );
         }
         handleGone( version->twin );
         for ( auto const & [ row, counts ] : needs ) {
            handleGone( row );
         }
      }
   }
   void handleGone( RowPtr const & row ) {
      if ( !row || isHeld( row ) ) {
         return;
      }
      if ( row->newest && !row->committed && !isRefused( row ) ) {
         remove( row );
      } else {
         eraseIfOver( row );
      }
   }
   void eraseIfOver( RowPtr const & row ) {
      if ( !row->cleared && !row->newest && !row->inHardware && !isQueued( row ) && !isHeld( row ) &&
           std::ranges::find( settling_, row ) == settling_.end() ) {
         rows_.erase( { row->table, row->key } );
      }
   }

   void queue( RowPtr const & row, VersionPtr const & version, bool removes ) {
      std::erase( refused_, row );
      row->reporter = nullptr;
      queue_.push_back( std::make_shared< Operation >( Operation{ row, version, removes, turn_ } ) );
      row->lastOperation = ++asked_;
   }
   void remove( RowPtr const & row ) {
      row->committed = false;
      auto const visible = std::exchange( row->newest, nullptr );
      VersionPtr const reporter = row->reporter ? row->reporter : visible;
      queue( row, reporter, true );
   }

   bool isReady( Operation const & operation ) const {
      return turn_ - operation.turn >= plan.delay[ operation.row->table ];
   }
   bool mustWait( Operation const & operation, Operation const & older ) const {
      return older.row == operation.row ||
             ( operation.removes ? isHeld( operation.row ) : refers( operation.version, older.row ) );
   }
   EntryState outcomeOf( Operation const & operation ) {
      auto const & row = *operation.row;
      if ( operation.removes ) {
         return row.inHardware ? outcomeOfRemoval( row.table, row.key ) : EntryState::settled;
      }
      return isSendable( *operation.version ) ? outcomeOfWrite( row.table, row.key ) : EntryState::failed;
   }

   // By the longest way back over operations that must wait for each other; of these the removals first.
   bool settleBatches() {
      std::vector< std::pair< OperationPtr, unsigned > > placed;
      std::map< std::pair< unsigned, bool >, std::vector< OperationPtr > > batches;
      for ( auto const & operation : queue_ ) {
         if ( placed.size() == 4 * plan.batch || !isReady( *operation ) ) {
            break;
         }
         unsigned step = 0;
         for ( auto const & [ older, its ] : placed ) {
            step = mustWait( *operation, *older ) ? std::max( step, its + 1 ) : step;
         }
         placed.emplace_back( operation, step );
         batches[ { step, !operation->removes } ].push_back( operation );
      }
      for ( auto const & [ place, batch ] : batches ) {
         for ( std::size_t begin = 0; begin < batch.size(); begin += plan.batch ) {
            std::vector< std::pair< OperationPtr, EntryState > > together;
            for ( auto i = begin; i < std::min( begin + plan.batch, batch.size() ); ++i ) {
               if ( std::ranges::find( queue_, batch[ i ] ) != queue_.end() ) {
                  together.emplace_back( batch[ i ], outcomeOf( *batch[ i ] ) );
               }
            }
            for ( auto const & [ operation, outcome ] : together ) {
               if ( std::ranges::find( queue_, operation ) != queue_.end() ) {
                  settle( operation, outcome );
               }
            }
         }
      }
      return !placed.empty();
   }

   OperationPtr nextReady() {
      std::vector< OperationPtr > ready;
      for ( auto i = queue_.begin(); i != queue_.end(); ++i ) {
         auto const & operation = *i;
         if ( !plan.reorders ) {
            return isReady( *operation ) ? operation : nullptr;
         }
         if ( isReady( *operation ) && std::none_of( queue_.begin(), i, [ & ]( OperationPtr const & older ) {
                 return mustWait( *operation, *older );
              } ) ) {
            ready.push_back( operation );
         }
      }
      if ( choices.empty() || choices.front().second != ready.size() ) {
         return nullptr;  // the chip had another choice, or none: what is outstanding will differ
      }
      auto const chosen = choices.front().first;
      choices.pop_front();
      return ready[ chosen ];
   }

   void settle( OperationPtr const operation, EntryState outcome ) {
      auto const row = operation->row;
      std::erase( queue_, operation );
      bool const isNewest = !isQueued( row );
      VersionPtr replaced;
      if ( outcome == EntryState::settled ) {
         replaced = std::exchange( row->inHardware, operation->removes ? nullptr : operation->version );
      } else if ( operation->removes && isNewest ) {
         row->newest = row->inHardware;
         bool const isHeld = operation->version == row->inHardware;
         row->reporter =
            isHeld ? row->inHardware : std::make_shared< Version >( Version{ .wanted = operation->version->wanted } );
         refused_.push_back( row );
         std::ranges::sort( refused_, {}, []( RowPtr const & refused ) { return refused->lastOperation; } );
      }
      settling_.push_back( row );
      inResponse_.insert( inResponse_.end(), { operation->version, replaced } );
      if ( isNewest ) {
         row->state = outcome;
         respond( operation->version->wanted, outcome );
      }
      inResponse_.pop_back();
      givenUp( replaced );
      inResponse_.pop_back();
      givenUp( operation->version );
      settling_.pop_back();
      eraseIfOver( row );
   }

   std::map< std::pair< Table, U32 >, RowPtr > rows_;
   std::array< RowPtr, slotCount > slots_;
   std::vector< OperationPtr > queue_;
   std::vector< RowPtr > refused_, settling_;
   std::vector< VersionPtr > inResponse_;  // given up after it
   U64 asked_ = 0;
   U64 turn_ = 0;
};

}  // namespace SwTableHistory
