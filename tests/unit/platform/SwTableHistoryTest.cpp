// Software tables against a plain model: random histories, compared after every step.
#include "SwTableModel.h"

#include "agent/basics/Text.h"

#include <tests/support/RandomValue.h>
#include <tests/support/SmallTables.h>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <sstream>

namespace SwTableHistory {
namespace {

using Support::Random;

// --- The tables ------------------------------------------------------------------------------------------------------

class RealWorld final : public World {
 public:
   RealWorld() { hardware_->chipIs( std::make_shared< Chip >( *this ) ); }
   ~RealWorld() override {
      matches_->clear();
      rewrites_->clear();
   }

   void write( RowWrite const & wanted ) override {
      auto handle = wanted.table == match ? written( *matches_, wanted ) : written( *rewrites_, wanted );
      if ( wanted.slot ) {
         slots_[ *wanted.slot ] = std::move( handle );
      }
   }
   void remove( Table table, U32 key ) override {
      Support::RowNumber const row( key );
      table == match ? matches_->entryRemove( row ) : rewrites_->entryRemove( row );
   }
   void drop( U32 slot ) override { slots_[ slot ] = nullptr; }
   void settle() override { hardware_->settle(); }
   void settleNext( EntryState outcome ) override { hardware_->settleNext( outcome ); }
   void retryFailed() override { hardware_->retryFailed(); }
   void clear( Table table ) override { table == match ? matches_->clear() : rewrites_->clear(); }

   Snapshot look() override {
      Snapshot seen{ .outstanding = hardware_->outstanding(), .told = std::exchange( told_, {} ) };
      look( *rewrites_, rewrite, seen );
      look( *matches_, match, seen );
      for ( U32 i = 0; i < slotCount; ++i ) {
         if ( auto const & handle = slots_[ i ] ) {
            seen.slots[ i ] = { std::stoul( Vexa::stringOf( handle ) ) + 1, handle->state(), handle->heldByHardware() };
         }
      }
      std::erase_if( alive_, []( auto const & version ) { return version.second.expired(); } );
      for ( auto const & [ id, token ] : alive_ ) {
         seen.alive.insert( id );
      }
      return seen;
   }

   U64 whenRewriteWasRemoved( U32 key ) {
      U64 number = 0;
      forEachRow( *rewrites_,
                  [ & ]( U32 other, Asic::Row const & row ) { number = other == key ? row.lastOperation : number; } );
      return number;
   }

   std::deque< std::pair< std::size_t, std::size_t > > choices;

 private:
   using Handle = Asic::EntryHandle::PtrConst;

   struct Chip final : Asic::Chip {
      explicit Chip( RealWorld & w ) : world( w ) {}
      bool isReady( Asic::ChipRequest const & request ) override {
         return request.turnsWaited >= world.plan.delay[ tableOf( request ) ];
      }
      void carryOut( std::span< Asic::ChipRequest const > requests, std::span< EntryState > outcomes ) override {
         RC_ASSERT( requests.size() <= world.plan.batch );
         std::ranges::transform( requests, outcomes.begin(), [ & ]( Asic::ChipRequest const & request ) {
            auto const table = tableOf( request );
            return request.version ? world.outcomeOfWrite( table, keyOf( request.row ) )
                                   : world.outcomeOfRemoval( table, keyOf( request.row ) );
         } );
      }
      std::size_t batchLimit() const override { return world.plan.batch; }
      bool reorders() const override { return world.plan.reorders; }
      std::size_t choose( std::size_t count ) override {
         return world.choices.emplace_back( random() % count, count ).first;
      }
      static Table tableOf( Asic::ChipRequest const & request ) {
         return request.table.name() == "match" ? match : rewrite;
      }

      RealWorld & world;
      Random random{ 1 };
   };

   static U32 keyOf( Asic::EntryHandle const & row ) {
      std::ostringstream text;
      row.describe( text );
      return static_cast< U32 >( std::stoul( text.str() ) );
   }

   template< class Function > static void forEachRow( Asic::SwTableBase & table, Function function ) {
      auto const call = []( void * context, Asic::Row & row ) {
         ( *static_cast< Function * >( context ) )( keyOf( row ), row );
      };
      table.forEachRow( call, &function );
   }

   template< class SwTable > Handle written( SwTable & table, RowWrite const & wanted ) {
      auto const token = std::make_shared< int >();
      alive_[ wanted.id ] = token;
      typename SwTable::Entry entry;
      entry.data = wanted.id;
      entry.writeResponse = [ this, wanted, token ]( EntryState state ) { respond( wanted, state ); };
      if constexpr ( std::is_same_v< SwTable, Support::MatchTable > ) {
         for ( auto const & [ slot, counts ] : wanted.needs ) {
            entry.egrHandleIs( slots_[ slot ], counts );
         }
         entry.fragHdl = wanted.twin ? slots_[ *wanted.twin ] : nullptr;
      }
      Support::RowNumber const key( wanted.key );
      return wanted.commits ? table.entryCommit( key, std::move( entry ) ) : table.entryRef( key, std::move( entry ) );
   }

   template< class SwTable > static void look( SwTable & table, Table which, Snapshot & seen ) {
      seen.counts[ which ] = { table.rowCount(), table.hardwareRowCount(), table.failedRowCount() };
      forEachRow( table, [ & ]( U32 key, Asic::Row & ) {
         Support::RowNumber const number( key );
         auto const * const entry = table.entry( number );
         auto const * const inHardware = table.hardwareEntry( number );
         auto const * const handle = table.entryHandle( number );
         seen.rows[ { which, key } ] = { entry ? std::optional( entry->data ) : std::nullopt,
                                         inHardware ? std::optional( inHardware->data ) : std::nullopt,
                                         handle ? handle->state() : EntryState::none };
      } );
   }

   Asic::Hardware::Ptr hardware_ = Orla::make< Asic::Hardware >();
   Orla::Ptr< Support::RewriteTable > rewrites_ = Orla::make< Support::RewriteTable >( hardware_ );
   Orla::Ptr< Support::MatchTable > matches_ = Orla::make< Support::MatchTable >( hardware_ );
   std::array< Handle, slotCount > slots_;
   std::map< U32, std::weak_ptr< int > > alive_;
};

// --- Histories -------------------------------------------------------------------------------------------------------

std::ostream & operator<<( std::ostream & out, Snapshot const & seen ) {
   auto const idText = []( std::optional< U32 > id ) { return id ? std::to_string( *id ) : "-"; };
   for ( auto const & [ place, row ] : seen.rows ) {
      out << ( place.first == match ? "match " : "rewrite " ) << place.second << ": " << idText( row.seen ) << ' '
          << Agent::stateText( row.state ) << ", hardware " << idText( row.inHardware ) << '\n';
   }
   for ( auto const & [ rows, inHardware, failed ] : seen.counts ) {
      out << rows << " seen, " << inHardware << " in hardware, " << failed << " failed\n";
   }
   for ( auto const & [ key, state, held ] : seen.slots ) {
      out << "slot " << key << ' ' << Agent::stateText( state ) << ' ' << held << '\n';
   }
   out << "alive";
   for ( auto const id : seen.alive ) {
      out << ' ' << id;
   }
   out << ", outstanding " << seen.outstanding << ", told";
   for ( auto const & [ id, state ] : seen.told ) {
      out << ' ' << id << ' ' << Agent::stateText( state );
   }
   return out << '\n';
}

// Plays the same steps in both worlds and compares what can be seen of them.
class Player {
 public:
   explicit Player( U32 seed ) {
      Random random( seed );
      rewritesGoByThemselves_ = random() % 2 == 0;
      auto const sometimes = [ & ]( U32 number ) {
         return random() % 2 == 0 ? static_cast< U32 >( random() ) % number : 0;
      };
      ChipPlan const plan{ .seed = seed,
                           .failures = sometimes( 5 ),
                           .refusals = sometimes( 7 ),
                           .delay = { sometimes( 3 ), sometimes( 3 ) },
                           .reorders = random() % 2 == 0,
                           .batch = 1 + sometimes( 4 ) };
      model_.whenRewriteWasRemoved = [ this ]( U32 key ) { return real_.whenRewriteWasRemoved( key ); };
      both( [ & ]( World & world ) { world.plan = plan; } );
   }

   void step( U32 dice ) {
      Random random( dice );
      auto const key = static_cast< U32 >( random() % keyCount );
      auto const table = random() % 3 == 0 ? rewrite : match;
      bool const mayGo = table == match || !rewritesGoByThemselves_;
      auto const slot = static_cast< U32 >( random() % slotCount );
      auto const outcome = random() % 3 == 0 ? EntryState::failed : EntryState::settled;
      auto const kind = random() % 32;
      if ( kind < 14 ) {
         write( key, table, random );
      } else if ( kind < 18 && mayGo ) {
         both( [ & ]( World & world ) { world.remove( table, key ); } );
      } else if ( kind < 22 ) {
         both( [ & ]( World & world ) { world.drop( slot ); } );
      } else if ( kind < 24 && !model_.queueIsEmpty() ) {
         both( [ & ]( World & world ) { world.settleNext( outcome ); } );
      } else if ( kind < 26 ) {
         both( []( World & world ) { world.retryFailed(); } );
      } else if ( kind == 26 && mayGo ) {
         both( [ & ]( World & world ) { world.clear( table ); } );
      } else {
         both( []( World & world ) { world.settle(); } );
      }
   }

   // Everything goes with a chip that does what it is asked: row by row, or matches all at once.
   void end( bool atOnce ) {
      both( []( World & world ) { world.plan = {}; } );
      both( [ & ]( World & world ) {
         for ( U32 slot = 0; slot < slotCount; ++slot ) {
            world.drop( slot );
         }
         if ( atOnce ) {
            world.clear( match );
         }
      } );
      for ( int turn = 0; turn < 3; ++turn ) {  // responses may write rows anew
         both( []( World & world ) {
            for ( U32 key = 0; key < keyCount; ++key ) {
               world.remove( match, key );
               world.remove( rewrite, key );
            }
         } );
         both( []( World & world ) { world.settle(); } );
      }
      RC_ASSERT( real_.look() == Snapshot() );
   }

 private:
   template< class Step > void both( Step const & step ) {
      step( static_cast< World & >( real_ ) );
      model_.choices = std::exchange( real_.choices, {} );
      step( static_cast< World & >( model_ ) );
      auto const real = real_.look();
      auto const model = model_.look();
      if ( real != model ) {
         std::ostringstream text;
         text << "the tables:\n" << real << "the model:\n" << model;
         RC_FAIL( text.str() );
      }
      RC_ASSERT( model_.choices.empty() );
      RC_ASSERT( !rewritesGoByThemselves_ || !model_.rewriteIsMissing() );
   }

   void write( U32 key, Table table, Random & random ) {
      RowWrite wanted{ .table = table, .key = key, .id = ++written_, .commits = random() % 2 == 0 };
      if ( !wanted.commits || random() % 4 == 0 ) {
         wanted.slot = static_cast< U32 >( random() % slotCount );
      }
      for ( U32 slot = 0; slot < slotCount && table == match; ++slot ) {
         if ( model_.isFirstWithItsRewrite( slot ) && random() % 2 == 0 ) {
            wanted.needs.emplace_back( slot, random() % 4 != 0 );
         }
         if ( model_.canBeTwinOf( slot, key ) && random() % 2 == 0 ) {
            wanted.twin = slot;
         }
      }
      if ( random() % 4 == 0 && !( table == rewrite && rewritesGoByThemselves_ ) ) {
         wanted.response = static_cast< RowWrite::Response >( random() % 5 );
         wanted.other = static_cast< U32 >( random() );
      }
      both( [ & ]( World & world ) { world.write( wanted ); } );
   }

   bool rewritesGoByThemselves_ = false;  // when nobody holds them any more
   U32 written_ = 0;
   RealWorld real_;
   ModelWorld model_;
};

RC_GTEST_PROP( SwTableHistory, AgreesWithAPlainModelAfterEveryStep, ( U32 seed ) ) {
   auto const steps = *rc::gen::scale( 3.0, rc::gen::arbitrary< std::vector< U32 > >() );
   Player player( seed );
   for ( auto const step : steps ) {
      player.step( step );
   }
   player.end( seed % 2 == 0 );
}

}  // namespace
}  // namespace SwTableHistory
