// What has been asked of the hardware and is not settled yet, in the order in which it was asked for.
#pragma once

#include <Vexa/Types.h>

#include <cstddef>
#include <utility>
#include <vector>

namespace [[gnu::visibility( "default" )]] Asic {

class Row;
struct Version;

// A write or a removal on its way to the hardware.
struct Operation {
   enum class Kind : U8 { write, removal };

   Row * row = nullptr;
   Version * version = nullptr;  // what is written; for a removal the removed version, whose response reports it
   U32 turn = 0;                 // in which it was asked for
   Kind kind = Kind::write;
};

// A ring that grows when it is full and gives large memory back when it is empty: a bulk change queues many times what
// a switch in service does. Operations may be taken out of the middle.
class OperationQueue {
 public:
   // Counts all operations ever asked for. Its low 32 bits number an operation: unique among those outstanding.
   using Position = U64;

   bool empty() const { return count_ == 0; }
   std::size_t count() const { return count_; }

   Position push( Operation const & operation ) {
      if ( end_ - begin_ == slots_.size() ) {
         grow();
      }
      slot( end_ ) = operation;
      ++count_;
      return end_++;
   }

   // Takes the operation out and returns it.
   Operation take( Position position ) {
      auto const operation = slot( position );
      slot( position ) = {};
      --count_;
      while ( begin_ != end_ && !slot( begin_ ).row ) {
         ++begin_;
      }
      if ( count_ == 0 && slots_.size() > keptSlots ) {
         std::vector< Operation >().swap( slots_ );  // assigning {} would keep the memory
      }
      return operation;
   }

   Operation const & operator[]( Position position ) const { return slots_[ position & ( slots_.size() - 1 ) ]; }

   // Whether the operation is outstanding.
   bool holds( Position position ) const {
      return begin_ <= position && position < end_ && !slots_.empty() && ( *this )[ position ].row;
   }

   U32 nextNumber() const { return static_cast< U32 >( end_ ); }

   // The oldest outstanding operation; the queue must not be empty.
   Position first() const { return begin_; }

   // Calls function( position, operation ) for every outstanding operation, the oldest first, until it answers false.
   // The function may take the operation that it is called for.
   template< class Function > void forEachUntil( Function && function ) const {
      for ( auto position = begin_; position != end_ && !slots_.empty(); ++position ) {
         if ( ( *this )[ position ].row && !function( position, ( *this )[ position ] ) ) {
            return;
         }
      }
   }

 private:
   static constexpr std::size_t firstSlots = 64;
   static constexpr std::size_t keptSlots = 1024;

   Operation & slot( Position position ) { return slots_[ position & ( slots_.size() - 1 ) ]; }

   void grow() {
      std::vector< Operation > larger( slots_.empty() ? firstSlots : 2 * slots_.size() );
      for ( auto position = begin_; position != end_; ++position ) {
         larger[ position & ( larger.size() - 1 ) ] = slot( position );
      }
      slots_ = std::move( larger );
   }

   std::vector< Operation > slots_;  // a power of two of them; those taken have no row
   Position begin_ = 0;
   Position end_ = 0;
   std::size_t count_ = 0;
};

}  // namespace Asic
