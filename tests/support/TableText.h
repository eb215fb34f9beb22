// The rows of a software table as text, to be compared whole.
#pragma once

#include <Asic/SwTable.h>
#include <Vexa/Value.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Support {

constexpr std::string_view stateText( Asic::EntryState state ) {
   switch ( state ) {
   case Asic::EntryState::none: return "none";
   case Asic::EntryState::pending: return "pending";
   case Asic::EntryState::settled: return "settled";
   case Asic::EntryState::failed: return "failed";
   case Asic::EntryState::full: return "full";
   }
   return "unknown";
}

// One line "<key> -> <entry>" per row that look-ups see, in the order of the lines. A state other than settled follows
// in brackets.
template< class Table > std::vector< std::string > rowsOf( Table const & table ) {
   std::vector< std::string > lines;
   table.forEach( [ & ]( auto const & key, auto const & entry, Asic::EntryHandle const & handle ) {
      auto & line = lines.emplace_back( Vexa::stringOf( key ) + " -> " + Vexa::stringOf( entry ) );
      if ( handle.state() != Asic::EntryState::settled ) {
         line.append( " (" ).append( stateText( handle.state() ) ).append( ")" );
      }
   } );
   std::ranges::sort( lines );
   return lines;
}

// The same for what the hardware holds, whatever has been asked for since.
template< class Table > std::vector< std::string > hardwareRowsOf( Table & table ) {
   std::vector< std::string > lines;
   auto const collect = []( void * context, Asic::Row & row ) {
      if ( row.inHardware ) {
         std::ostringstream line;
         row.describe( line );
         line << " -> ";
         Vexa::write( line, static_cast< typename Table::Entry const & >( row.entryOf( *row.inHardware ) ) );
         static_cast< std::vector< std::string > * >( context )->push_back( std::move( line ).str() );
      }
   };
   static_cast< Asic::SwTableBase & >( table ).forEachRow( collect, &lines );
   std::ranges::sort( lines );
   return lines;
}

// The keys of all rows of which something is left: seen, in the hardware, outstanding, or held by somebody.
inline std::vector< std::string > keysOf( Asic::SwTableBase & table ) {
   std::vector< std::string > keys;
   auto const collect = []( void * context, Asic::Row & row ) {
      std::ostringstream key;
      row.describe( key );
      static_cast< std::vector< std::string > * >( context )->push_back( std::move( key ).str() );
   };
   table.forEachRow( collect, &keys );
   std::ranges::sort( keys );
   return keys;
}

}  // namespace Support
