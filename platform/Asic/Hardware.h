// What has been asked of a forwarding chip and is not settled yet.
#pragma once

#include <Asic/Chip.h>
#include <Asic/OperationQueue.h>
#include <Asic/SwTableBase.h>

#include <map>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace [[gnu::visibility( "default" )]] Asic {

// The outstanding operations of all tables of one chip.
//
// Operations settle in the order in which they were asked for, unless the chip chooses another one or takes several at
// once; SettleOrder tells what is kept then. All of them reach the hardware; only the newest of a row reports. Nothing
// settles but inside settle() and settleNext(); a response may ask for more, and may drop the last reference to
// anything.
class Hardware : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< Hardware >;

   Hardware() = default;

   // Null, as at first: everything settles, in request order, at the next settle.
   void chipIs( std::shared_ptr< Chip > chip ) { chip_ = std::move( chip ); }
   std::shared_ptr< Chip > const & chip() const { return chip_; }

   // One turn: tries refused removals again, then settles until nothing else is ready, what responses asked for
   // included.
   void settle();

   // Settles the operation that is next in request order, by hand; the chip is not asked. A removal takes settled as
   // done, all else as refused.
   void settleNext( EntryState outcome );

   // Operations not settled yet, and removals that the hardware refused.
   std::size_t outstanding() const { return queue_.count() + refused_.size(); }

   // Sends every row again whose newest write failed: rows without handles, then other referenced rows, then committed
   // ones as they were asked for. Refused removals are not among them.
   void retryFailed();

   std::vector< SwTableBase * > const & tables() const { return tables_; }

   Vexa::TypeData const & typeData() const override;

 private:
   friend class SwTableBase;
   friend class Row;

   using Position = OperationQueue::Position;

   void queue( Row & row, Version * version, Operation::Kind kind ) {
      Row::hold( version );
      ++row.outstanding;
      row.lastOperation =
         static_cast< U32 >( queue_.push( { .row = &row, .version = version, .turn = turn_, .kind = kind } ) );
   }
   // Hands the versions of the operations over.
   void dropOperationsWithoutTable( std::vector< HeldVersion > & versions );

   void settleOperation( Position position, EntryState outcome );
   void settleInBatches( std::size_t limit );
   // The oldest operations that are ready, at `most` so many, in batches: those of one are of one kind and may settle
   // together, after those of the batches before. False when none is ready.
   bool sortIntoBatches( std::vector< std::vector< Position > > & batches, std::size_t most ) const;
   void settleTogether( std::span< Position const > positions );

   ChipRequest requestOf( Operation const & operation ) const;
   bool isReady( Operation const & operation ) const { return !chip_ || chip_->isReady( requestOf( operation ) ); }
   EntryState outcomeOf( Operation const & operation ) const;
   // The one that settles next; none when none is ready.
   std::optional< Position > nextReady() const;
   std::optional< Position > chosenByChip() const;

   void tryRefusedRemovalsAgain();
   // Ends the row's refusal and returns the version whose removal was refused, for the caller to let go; null when
   // there is none.
   Version * takeRefusal( Row & row ) { return row.removalRefused ? takeRefusalOf( row ) : nullptr; }
   Version * takeRefusalOf( Row & row );

   std::shared_ptr< Chip > chip_;
   std::vector< SwTableBase * > tables_;
   // What removals that are tried again at the next settle removed, by the number of the refused one, which is its
   // row's newest operation.
   std::map< U32, HeldVersion > refused_;
   OperationQueue queue_;
   U32 turn_ = 0;
};

}  // namespace Asic
