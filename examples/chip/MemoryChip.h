// A whole chip, in memory: what a port writes when it keeps the software tables. Where this one fills a map, another fills
// registers.
#pragma once

#include <Asic/Chip.h>
#include <Pfe/NatTable.h>
#include <Vexa/Value.h>

#include <map>
#include <string>
#include <utility>

class MemoryChip : public Asic::Chip {
 public:
   // `room`: rows per table.
   explicit MemoryChip( std::size_t room = 65535 ) : room_( room ) {}

   std::size_t batchLimit() const override { return 64; }

   void carryOut( std::span< Asic::ChipRequest const > requests, std::span< Asic::EntryState > outcomes ) override {
      for ( std::size_t i = 0; i < requests.size(); ++i ) {
         auto const & request = requests[ i ];
         outcomes[ i ] = Pfe::visitNatTable( request.table, [ & ]< class Table >( Table const & table ) {
            auto & rows = tables_[ std::string( table.name() ) ];
            auto const key = Vexa::stringOf( Table::keyOf( request.row ) );
            return request.version ? write( rows, key, Vexa::stringOf( Table::entryOf( *request.version ) ) )
                                   : remove( rows, key );
         } );
      }
   }

 private:
   using Rows = std::map< std::string, std::string >;  // entries by key

   Asic::EntryState write( Rows & rows, std::string const & key, std::string entry ) const {
      if ( !rows.contains( key ) && rows.size() >= room_ ) {
         return Asic::EntryState::full;
      }
      rows[ key ] = std::move( entry );
      return Asic::EntryState::settled;
   }
   static Asic::EntryState remove( Rows & rows, std::string const & key ) {
      return rows.erase( key ) == 1 ? Asic::EntryState::settled : Asic::EntryState::failed;
   }

   std::size_t room_;
   std::map< std::string, Rows > tables_;
};
