// Software tables: what all of them share, whatever their keys and entries.
#pragma once

#include <Asic/Entry.h>
#include <Asic/EntryHandle.h>
#include <Asic/OperationQueue.h>
#include <Orla/Entity.h>
#include <Orla/Ptr.h>
#include <Vexa/Types.h>

#include <string_view>
#include <utility>
#include <vector>

namespace [[gnu::visibility( "default" )]] Asic {

class Hardware;
class SwTableBase;

// One version of a row: the data of one write, which the row's table knows. It keeps its entry, and so the handles in
// it, while it is the newest asked for, while the hardware holds it, and while an operation on it is outstanding.
struct Version {
   U32 reasons = 0;
   U32 number = 0;  // of the write that asked for it
};

// One key of a table, from its first write until nothing of it is left: neither look-ups nor the hardware nor an
// outstanding operation nor a handle. It is the handle that callers hold.
class Row : public EntryHandle {
 public:
   bool heldByHardware() const override { return inHardware != nullptr; }
   Row const * row() const override { return this; }

   // One reason more, or less, for a version of this row. Null: nothing.
   static void hold( Version * version ) {
      if ( version ) {
         ++version->reasons;
      }
   }
   void letGo( Version * version ) const {
      if ( version && --version->reasons == 0 ) {
         free( version );
      }
   }

   // Of a version of this row.
   virtual EntryBase & entryOf( Version & version ) const = 0;
   // Null when the table's entries refer to nothing.
   virtual ReferringEntry * referringEntryOf( Version & version ) const = 0;
   virtual void free( Version * version ) const = 0;

   bool committed = false;         // stays until removed; else as long as somebody holds its handle
   bool removalRefused = false;    // visible only because the hardware did not let it go
   SwTableBase * table = nullptr;  // null once the table is cleared or gone
   Version * newest = nullptr;     // as look-ups see it; null while they do not see the row
   Version * inHardware = nullptr;
   U32 outstanding = 0;    // operations
   U32 lastOperation = 0;  // the number of the newest of them
   U32 hash = 0;

 protected:
   void lastUserGone() const override;

   friend class Hardware;
   friend class SwTableBase;
};

// A row's version that somebody holds.
struct HeldVersion {
   Row * row;
   Version * version;
};

class SwTableBase : public Orla::Entity {
 public:
   using EntryState = Asic::EntryState;
   using EntryHandle = Asic::EntryHandle;

   std::string_view name() const { return name_; }

   // Rows that look-ups see.
   std::size_t rowCount() const { return rowCount_; }
   std::size_t hardwareRowCount() const { return hardwareRowCount_; }

   // Rows that look-ups see in a failed state, refused removals among them. Looks at every row.
   virtual std::size_t failedRowCount() const = 0;

   // Drops everything without calling anybody back.
   virtual void clear() = 0;

   // Calls function( row ) for every row of which something is left. The function changes nothing.
   virtual void forEachRow( void ( *function )( void * context, Row & row ), void * context ) = 0;

 protected:
   SwTableBase( std::string_view name, Orla::Ptr< Hardware > hardware );
   ~SwTableBase() override;

   // Makes `version` the newest of `row` and queues its write.
   void write( Row & row, Version * version );
   // Takes the row out of look-ups and queues its removal.
   void remove( Row & row );
   // For all rows of a table that has let them go: gives up their operations, their versions, and themselves unless
   // somebody still holds them. The table may be destroyed meanwhile.
   void abandon( std::vector< Row * > const & rows );

   virtual void erase( Row & row ) = 0;
   // An operation of the row settles; whoever is told will look at the row.
   virtual void settles( Row & row ) = 0;

   std::string_view name_;
   Orla::Ptr< Hardware > hardware_;
   std::size_t rowCount_ = 0;
   std::size_t hardwareRowCount_ = 0;

 private:
   // Gives the row up when nothing of it is left.
   static void eraseIfOver( Row & row );
   // Queues the removal of a row; `refused`, if not null, is let go and reports it in place of the visible version.
   void removeReportedBy( Row & row, Version * refused );
   // Changes what look-ups see of the row, or what the hardware holds; returns what was there before, with its reason.
   Version * newestIs( Row & row, Version * version ) {
      rowCount_ += ( version != nullptr ) - ( row.newest != nullptr );
      Row::hold( version );
      return std::exchange( row.newest, version );
   }
   Version * inHardwareIs( Row & row, Version * version ) {
      hardwareRowCount_ += ( version != nullptr ) - ( row.inHardware != nullptr );
      Row::hold( version );
      return std::exchange( row.inHardware, version );
   }

   friend class Hardware;
   friend class Row;
};

}  // namespace Asic
