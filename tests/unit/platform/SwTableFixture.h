// Two small tables on a scripted chip, and everything that can be seen of them as one line of text.
#pragma once

#include <tests/support/ScriptedHardware.h>
#include <tests/support/SmallTables.h>
#include <tests/support/TableText.h>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace SwTables {

using Asic::EntryState;
using Handle = Asic::EntryHandle::PtrConst;
using Support::Match;
using Support::Rewrite;
using Support::RowNumber;

// Rewrites have data 10 to 49, matches 50 to 99: a picture of everything names a version by its data.
class SwTable : public testing::Test {
 protected:
   SwTable() { hardware->policyIs( chip ); }
   ~SwTable() override {
      after.clear();
      if ( matches ) {
         matches->clear();
      }
   }

   template< class Entry > Entry entry( U32 data ) {
      Entry made;
      made.data = data;
      made.writeResponse = [ this, data ]( EntryState state ) {
         told += ' ' + std::to_string( data ) + ':' + std::to_string( +static_cast< U8 >( state ) );
         if ( auto const action = after.extract( data ) ) {
            action.mapped()();
         }
      };
      return made;
   }
   Handle ref( U32 row, U32 data ) { return rewrites->entryRef( RowNumber( row ), entry< Rewrite >( data ) ); }
   Match match( U32 data, std::vector< Handle > const & needed, Handle const & twin = nullptr ) {
      auto made = entry< Match >( data );
      for ( auto const & handle : needed ) {
         made.egrHandleIs( handle, true );
      }
      made.fragHdl = twin;
      return made;
   }
   Handle commit( U32 row, U32 data, std::vector< Handle > const & needed = {}, Handle const & twin = nullptr ) {
      return matches->entryCommit( RowNumber( row ), match( data, needed, twin ) );
   }
   Handle refTwin( U32 row, U32 data, std::vector< Handle > const & needed = {} ) {
      return matches->entryRef( RowNumber( row ), match( data, needed ) );
   }
   void remove( U32 row ) { matches->entryRemove( RowNumber( row ) ); }
   void settle() { hardware->settle(); }

   // What look-ups see ("?" pending, "!" failed, "#" full), what the chip holds, what is outstanding, who was told
   // since.
   std::string picture() {
      std::string text = "seen" + seen( *rewrites, 'r' ) + seen( *matches, 'm' ) + " | chip" + held( *rewrites, 'r' ) +
                         held( *matches, 'm' ) + " | open " + std::to_string( hardware->outstanding() );
      return text + " | told" + std::exchange( told, {} );
   }

   Asic::Hardware::Ptr hardware = Orla::make< Asic::Hardware >();
   std::shared_ptr< Support::ScriptedHardware > chip = std::make_shared< Support::ScriptedHardware >();
   Orla::Ptr< Support::RewriteTable > rewrites = Orla::make< Support::RewriteTable >( hardware );
   Orla::Ptr< Support::MatchTable > matches = Orla::make< Support::MatchTable >( hardware );
   std::string told;
   std::map< U32, std::function< void() > > after;  // done once, by the response of the version with that data

 private:
   template< class Table > static std::string seen( Table const & table, char letter ) {
      std::map< U32, std::string > rows;
      table.forEach( [ & ]( RowNumber key, auto const & row, Asic::EntryHandle const & handle ) {
         auto const state = handle.state();
         auto const * const mark = state == EntryState::pending  ? "?"
                                   : state == EntryState::failed ? "!"
                                   : state == EntryState::full   ? "#"
                                                                 : "";
         rows[ key.value() ] = ' ' + ( letter + Vexa::stringOf( key ) ) + '=' + std::to_string( row.data ) + mark;
      } );
      return join( rows );
   }
   template< class Table > static std::string held( Table const & table, char letter ) {
      std::map< U32, std::string > rows;
      for ( U32 row = 0; row < 10; ++row ) {
         if ( auto const * const entry = table.hardwareEntry( RowNumber( row ) ) ) {
            rows[ row ] = std::string( " " ) + letter + std::to_string( row ) + '=' + std::to_string( entry->data );
         }
      }
      return join( rows );
   }
   static std::string join( std::map< U32, std::string > const & rows ) {
      std::string text;
      for ( auto const & [ row, line ] : rows ) {
         text += line;
      }
      return text;
   }
};

}  // namespace SwTables
