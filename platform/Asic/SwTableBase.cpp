#include <Asic/SwTableBase.h>

#include <Asic/Hardware.h>

#include <utility>

namespace [[gnu::visibility( "default" )]] Asic {

void Row::lastUserGone() const {
   auto & self = const_cast< Row & >( *this );
   if ( table && newest && !committed && !removalRefused ) {
      table->remove( self );
   } else {
      SwTableBase::eraseIfOver( self );
   }
}

SwTableBase::SwTableBase( std::string_view name, Orla::Ptr< Hardware > hardware )
   : name_( name ), hardware_( std::move( hardware ) ) {
   hardware_->tables_.push_back( this );
}

SwTableBase::~SwTableBase() { std::erase( hardware_->tables_, this ); }

void SwTableBase::write( Row & row, Version * version ) {
   auto * const refused = hardware_->takeRefusal( row );
   auto * const replaced = newestIs( row, version );
   row.state_ = EntryState::pending;
   hardware_->queue( row, version, Operation::Kind::write );
   version->number = row.lastOperation;
   row.letGo( replaced );
   row.letGo( refused );
}

void SwTableBase::remove( Row & row ) { removeReportedBy( row, hardware_->takeRefusal( row ) ); }

// What a refusal made visible again is the hardware's version, perhaps an older one. The version whose removal was
// asked for goes on reporting, without its handles: its entry is the one that whoever removed it waits for.
void SwTableBase::removeReportedBy( Row & row, Version * refused ) {
   row.committed = false;
   auto * const visible = newestIs( row, nullptr );
   hardware_->queue( row, refused ? refused : visible, Operation::Kind::removal );
   row.letGo( visible );
   row.letGo( refused );
}

// Giving up a version may give up anything: other rows of this table, other tables, this table. So all rows leave
// first, an operation that none of them has keeps each until the end, and nothing of the table is used once a version
// goes.
void SwTableBase::abandon( std::vector< Row * > const & rows ) {
   rowCount_ = 0;
   hardwareRowCount_ = 0;
   std::vector< HeldVersion > versions;
   for ( auto * const row : rows ) {
      versions.push_back( { row, hardware_->takeRefusal( *row ) } );
      row->table = nullptr;
      ++row->outstanding;
      versions.push_back( { row, std::exchange( row->newest, nullptr ) } );
      versions.push_back( { row, std::exchange( row->inHardware, nullptr ) } );
   }
   hardware_->dropOperationsWithoutTable( versions );
   for ( auto const & held : versions ) {
      held.row->letGo( held.version );
   }
   for ( auto * const row : rows ) {
      --row->outstanding;
      eraseIfOver( *row );
   }
}

void SwTableBase::eraseIfOver( Row & row ) {
   if ( row.users_ == 0 && row.outstanding == 0 && !row.newest && !row.inHardware ) {
      if ( row.table ) {
         row.table->erase( row );
      } else {
         delete &row;
      }
   }
}

}  // namespace Asic
