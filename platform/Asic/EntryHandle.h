// Handles of table rows: whoever holds one keeps a referenced row in its table.
#pragma once

#include <Asic/EntryState.h>
#include <Orla/Ptr.h>
#include <Vexa/RareList.h>
#include <Vexa/Types.h>

#include <ostream>

namespace [[gnu::visibility( "default" )]] Asic {

class Row;

class EntryHandle {
 public:
   using PtrConst = Orla::Ptr< EntryHandle const >;

   EntryHandle( EntryHandle const & ) = delete;
   EntryHandle & operator=( EntryHandle const & ) = delete;

   EntryState state() const { return state_; }

   // Whether the hardware holds a version of the row now.
   virtual bool heldByHardware() const = 0;

   // The row that it stands for; null when it stands for none.
   virtual Row const * row() const { return nullptr; }

   // The row's key, for people.
   virtual void describe( std::ostream & out ) const = 0;

   void newUser() const { ++users_; }
   void userGone() const {
      if ( --users_ == 0 ) {
         lastUserGone();
      }
   }

 protected:
   EntryHandle() = default;
   virtual ~EntryHandle() = default;
   virtual void lastUserGone() const = 0;

   friend class SettleOrder;

   mutable U32 users_ = 0;
   EntryState state_ = EntryState::none;
   mutable U8 step_ = 0;  // SettleOrder's own
};

// The egress handles of an ingress entry, in order. One whose failure counts, the common case, is held inside.
class HandleList {
 public:
   void push( EntryHandle::PtrConst const & handle, bool failureCounts ) {
      if ( !first_ && more_.empty() && failureCounts ) {
         first_ = handle;
      } else {
         more_.push( { handle, failureCounts } );
      }
   }

   std::size_t count() const { return ( first_ ? 1 : 0 ) + more_.size(); }

   // Calls function( handle, failureCounts ) for each.
   template< class Function > void forEach( Function && function ) const {
      if ( first_ ) {
         function( first_, true );
      }
      for ( auto const & held : more_ ) {
         function( held.handle, held.failureCounts );
      }
   }

   friend bool operator==( HandleList const & a, HandleList const & b ) = default;
   friend std::ostream & operator<<( std::ostream & out, HandleList const & list );

 private:
   struct Held {
      EntryHandle::PtrConst handle;
      bool failureCounts = false;
      friend bool operator==( Held const &, Held const & ) = default;
   };

   EntryHandle::PtrConst first_;
   Vexa::RareList< Held > more_;
};

}  // namespace Asic
