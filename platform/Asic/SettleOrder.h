// Who may settle before whom.
#pragma once

#include <Asic/Entry.h>
#include <Asic/OperationQueue.h>
#include <Asic/SwTableBase.h>
#include <Vexa/Types.h>

#include <algorithm>
#include <limits>
#include <vector>

namespace Asic {

// Sorts operations into steps. Told of outstanding operations, the oldest first, it says for each in which step it may
// settle at the earliest, so that it comes after those older ones that it must wait for:
//
//  - those of its own row: what was asked for last is what the hardware ends with;
//  - for a write, those of the rows that its entry refers to: until these are in the hardware the row would lead
//    packets astray. So rewrites come before twins, and twins before the rows that refer to them;
//  - for a removal of a row that somebody still holds, all of them: any may be of a row that refers to it. A row that
//    left its table with its last handle is referred to by nothing any more, and waits for nobody. So rows come before
//    twins, and twins before rewrites.
//
// Operations of one step depend on none of each other, and the oldest one is always in the first. Nothing may settle
// while this lasts.
class SettleOrder {
 public:
   static constexpr unsigned stepLimit = std::numeric_limits< U8 >::max();

   SettleOrder() = default;
   SettleOrder( SettleOrder const & ) = delete;
   SettleOrder & operator=( SettleOrder const & ) = delete;
   ~SettleOrder() {
      for ( auto const * const row : rows_ ) {
         row->step_ = 0;
      }
   }

   // stepLimit: in none of them; so are all that must wait for it.
   unsigned stepOf( Operation const & operation ) {
      EntryHandle const & row = *operation.row;
      unsigned step = row.step_;
      if ( operation.kind == Operation::Kind::write ) {
         if ( auto const * const entry = operation.row->referringEntryOf( *operation.version ) ) {
            entry->forEachHandle(
               [ & ]( EntryHandle const & handle ) { step = std::max< unsigned >( step, handle.step_ ); } );
         }
      } else if ( row.users_ != 0 ) {
         step = steps_;
      }
      if ( row.step_ == 0 ) {
         rows_.push_back( &row );
      }
      auto const next = std::min( step + 1, stepLimit );
      row.step_ = static_cast< U8 >( next );
      steps_ = std::max( steps_, next );
      return step;
   }

   // The place of a row that is written again among others that are, before they stand in the queue: what refers to
   // nothing, then what others refer to, then the rest.
   static unsigned rankOf( Row const & row ) {
      bool refers = false;
      if ( auto const * const entry = row.referringEntryOf( *row.newest ) ) {
         entry->forEachHandle( [ & ]( EntryHandle const & ) { refers = true; } );
      }
      return !refers ? 0 : row.committed ? 2 : 1;
   }

 private:
   // The step after the last operation of a row stands in the row: 0 when there is none.
   std::vector< EntryHandle const * > rows_;
   unsigned steps_ = 0;
};

}  // namespace Asic
