#include "agent/Report.h"

#include <algorithm>
#include <sstream>
#include <utility>

namespace Agent {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t gap = 2;

Json numbersIn( std::string_view cell ) {
   Json numbers = Json::array();
   std::istringstream words{ std::string( cell ) };
   for ( unsigned number = 0; words >> number; ) {
      numbers.push_back( number );
   }
   return numbers;
}

}  // namespace

Table::Table( std::vector< Column > columns ) : columns_( std::move( columns ) ), widths_( columns_.size() ) {}

void Table::endCell() {
   auto & width = widths_[ ends_.size() % columns_.size() ];
   width = std::max( width, text_.size() - ( ends_.empty() ? 0 : ends_.back() ) );
   ends_.push_back( text_.size() );
}

std::string_view Table::cellAt( std::size_t index ) const {
   auto const start = index == 0 ? 0 : ends_[ index - 1 ];
   return std::string_view( text_ ).substr( start, ends_[ index ] - start );
}

std::string Table::lines() const {
   std::string lines;
   auto const addLine = [ & ]( auto const & cellOf ) {
      std::size_t padding = gap;
      for ( std::size_t column = 0; column < columns_.size(); ++column ) {
         if ( widths_[ column ] == 0 ) {
            continue;
         }
         std::string_view const cell = cellOf( column );
         if ( !cell.empty() ) {
            lines.append( padding, ' ' ).append( cell );
            padding = 0;
         }
         padding += std::max( widths_[ column ], columns_[ column ].name.size() ) - cell.size() + gap;
      }
      lines += '\n';
   };
   addLine( [ & ]( std::size_t column ) { return columns_[ column ].name; } );
   for ( std::size_t first = 0; first < ends_.size(); first += columns_.size() ) {
      addLine( [ & ]( std::size_t column ) { return cellAt( first + column ); } );
   }
   return lines;
}

Json Table::json() const {
   Json rows = Json::array();
   for ( std::size_t i = 0; i < ends_.size(); ++i ) {
      auto const & column = columns_[ i % columns_.size() ];
      if ( i % columns_.size() == 0 ) {
         rows.push_back( Json::object() );
      }
      if ( auto const cell = cellAt( i ); !cell.empty() ) {
         auto & value = rows.back()[ std::string( column.name ) ];
         auto const numbers = column.kind == Kind::text ? Json() : numbersIn( cell );
         value = column.kind == Kind::text ? Json( cell ) : column.kind == Kind::number ? numbers.at( 0 ) : numbers;
      }
   }
   return rows;
}

Report::~Report() {
   if ( isJson_ && !isTaken_ ) {
      // File names need not be UTF-8.
      out_ << json_.dump( 2, ' ', false, Json::error_handler_t::replace ) << '\n';
   }
}

void Report::line( std::string_view text ) {
   if ( !isJson_ ) {
      out_ << text << '\n';
   }
}

void Report::fact( char const * name, Json value ) {
   if ( isJson_ ) {
      json_[ name ] = std::move( value );
   }
}

void Report::table( char const * name, Table const & table ) {
   if ( isJson_ ) {
      json_[ name ] = table.json();
   } else {
      out_ << table.lines();
   }
}

}  // namespace Agent
