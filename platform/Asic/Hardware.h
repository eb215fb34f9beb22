// The hardware below the software tables: what has been asked of it and is not settled yet, and how it behaves.
#pragma once

#include <Asic/SwTableBase.h>

#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace [[gnu::visibility( "default" )]] Asic {

// Decides when and how operations settle. The default accepts everything, in request order, at the next settle.
class HardwarePolicy {
 public:
   // A write or removal whose turn has come.
   struct Request {
      SwTableBase const & table;
      EntryHandle const & row;
      bool addsRow;     // the hardware holds no version of the row yet
      U32 turnsWaited;  // settles since it was asked for
   };

   virtual ~HardwarePolicy() = default;

   virtual bool isReady( Request const & ) { return true; }
   // settled, failed or full.
   virtual EntryState outcomeOfWrite( Request const & ) { return EntryState::settled; }
   virtual bool refusesRemoval( Request const & ) { return false; }
   // A policy that reorders is asked which of the `count` operations that may settle now is the next.
   virtual bool reorders() const { return false; }
   virtual std::size_t choose( std::size_t /* count */ ) { return 0; }
   // Whether every operation reports, an overtaken one too, and pending before its outcome.
   virtual bool reportsEverything() const { return false; }
};

// The outstanding operations of all tables of one chip.
//
// Operations of a row settle in the order in which they were asked for, and never before an older one of a row that
// theirs refers to. All of them reach the hardware; only the newest of a row reports. Nothing settles but inside
// settle() and settleNext(); a response may ask for more, and may drop the last reference to anything.
class Hardware : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< Hardware >;

   Hardware() = default;

   // Null restores the default.
   void policyIs( std::shared_ptr< HardwarePolicy > policy ) { policy_ = std::move( policy ); }

   // One turn: tries refused removals again, then settles until nothing else is ready, what responses asked for
   // included.
   void settle();

   // Settles the operation that is next in request order, by hand. A removal takes settled as done, all else as
   // refused.
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

   void queue( Row & row, Version * version, Operation::Kind kind );
   // Hands the versions of the operations over.
   void dropOperationsWithoutTable( std::vector< HeldVersion > & versions );
   void settleOperation( Position position, EntryState outcome );
   EntryState outcomeOf( Operation const & operation ) const;
   HardwarePolicy::Request requestOf( Operation const & operation ) const;
   std::optional< Position > nextReady() const;
   std::optional< Position > nextReadyOf( HardwarePolicy & policy ) const;
   bool maySettle( Position position ) const;
   void tryRefusedRemovalsAgain();
   // Ends the row's refusal and returns the version whose removal was refused, for the caller to let go; null when
   // there is none.
   Version * takeRefusal( Row & row );

   std::shared_ptr< HardwarePolicy > policy_;
   std::vector< SwTableBase * > tables_;
   // What removals that are tried again at the next settle removed, by the number of the refused one, which is its
   // row's newest operation.
   std::map< U32, HeldVersion > refused_;
   OperationQueue queue_;
   U32 turn_ = 0;
};

}  // namespace Asic
