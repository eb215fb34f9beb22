// What the entries of all software tables have in common.
#pragma once

#include <Asic/EntryHandle.h>
#include <Asic/WriteResponseFn.h>
#include <Vexa/Value.h>

#include <utility>

namespace [[gnu::visibility( "default" )]] Asic {

// Entries compare and print without their write-response function.
struct EntryBase {
   static constexpr std::size_t undescribedBases = 1;

   WriteResponseFn writeResponse;

   friend bool operator==( EntryBase const &, EntryBase const & ) { return true; }
   friend std::strong_ordering operator<=>( EntryBase const &, EntryBase const & ) {
      return std::strong_ordering::equal;
   }
};

// An entry that refers to rows of other tables and keeps them there.
struct ReferringEntry : EntryBase {
   // The entry's write counts as failed while the row of a handle that was given with `failureCounts` is failed or
   // missing in the hardware.
   void egrHandleIs( EntryHandle::PtrConst const & handle, bool failureCounts ) {
      egrHdl.push( handle, failureCounts );
   }

   void handlesDel() {
      auto const egress = std::exchange( egrHdl, {} );
      auto const fragment = std::exchange( fragHdl, nullptr );
   }

   // False while a row that the entry needs is failed or missing in the hardware.
   bool sendable() const {
      bool all = true;
      egrHdl.forEach( [ & ]( EntryHandle::PtrConst const & handle, bool failureCounts ) {
         all = all && ( !failureCounts || ( handle->heldByHardware() && !isFailure( handle->state() ) ) );
      } );
      return all;
   }

   // Calls function( handle ) for each handle that the entry holds.
   template< class Function > void forEachHandle( Function && function ) const {
      egrHdl.forEach( [ & ]( EntryHandle::PtrConst const & handle, bool ) { function( *handle ); } );
      if ( fragHdl ) {
         function( *fragHdl );
      }
   }

   HandleList egrHdl;
   // The fragment twin, or the don't-care handle. Its failure does not count.
   EntryHandle::PtrConst fragHdl;

   friend bool operator==( ReferringEntry const & a, ReferringEntry const & b ) {
      return a.egrHdl == b.egrHdl && a.fragHdl == b.fragHdl;
   }
};

}  // namespace Asic

namespace [[gnu::visibility( "default" )]] Orla {

// A handle prints as the key of its row; "none" for null.
std::ostream & operator<<( std::ostream & out, Ptr< Asic::EntryHandle const > const & handle );

}  // namespace Orla
