#include "agent/basics/Report.h"

#include <Vexa/Value.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <utility>

#include <sys/ioctl.h>
#include <unistd.h>

namespace Agent {

namespace {

constexpr std::size_t gap = 2;
// ECMA-48, select graphic rendition.
constexpr char const * green = "\x1b[32m";
constexpr char const * red = "\x1b[31m";
constexpr char const * colourEnd = "\x1b[0m";

// Null for what is neither good nor bad.
char const * colourOf( std::string_view column, std::string_view cell ) {
   if ( column != "result" && column != "state" ) {
      return nullptr;
   }
   return cell == "programmed" || cell == "settled" ? green : red;
}

JsonArray numbersIn( std::string_view cell ) {
   JsonArray numbers;
   std::istringstream words{ std::string( cell ) };
   for ( unsigned number = 0; words >> number; ) {
      numbers.push_back( number );
   }
   return numbers;
}

}  // namespace

TextStyle TextStyle::ofStandardOutput() {
   if ( isatty( STDOUT_FILENO ) == 0 ) {
      return {};
   }
   winsize size{};
   bool const isKnown = ioctl( STDOUT_FILENO, TIOCGWINSZ, &size ) == 0;
   return { .width = isKnown ? size.ws_col : std::size_t{ 0 }, .colours = std::getenv( "NO_COLOR" ) == nullptr };
}

Table::Table( std::vector< Column > columns ) : columns_( std::move( columns ) ), widths_( columns_.size() ) {}

void Table::endCell() {
   auto & width = widths_[ ends_.size() % columns_.size() ];
   width = std::max( width, text_.size() - ( ends_.empty() ? 0 : ends_.back() ) );
   ends_.push_back( text_.size() );
}

void Table::number( U64 number ) {
   Vexa::append( text_, number );
   endCell();
}

std::string_view Table::cellAt( std::size_t index ) const {
   auto const start = index == 0 ? 0 : ends_[ index - 1 ];
   return std::string_view( text_ ).substr( start, ends_[ index ] - start );
}

// Groups of columns that have something in them, each as wide as a line at most and beginning with the first column.
std::vector< std::vector< std::size_t > > Table::columnGroups( std::size_t lineWidth ) const {
   std::vector< std::vector< std::size_t > > groups( 1 );
   std::size_t used = 0;
   for ( std::size_t column = 0; column < columns_.size(); ++column ) {
      if ( widths_[ column ] == 0 ) {
         continue;
      }
      if ( lineWidth != 0 && used + gap + width( column ) > lineWidth && groups.back().size() > 1 ) {
         auto const first = groups.front().front();
         groups.push_back( { first } );
         used = gap + width( first );
      }
      groups.back().push_back( column );
      used += gap + width( column );
   }
   return groups;
}

std::string Table::lines( TextStyle style ) const {
   std::string lines;
   for ( auto const & group : columnGroups( style.width ) ) {
      auto const addLine = [ & ]( auto const & cellOf, bool isColoured ) {
         std::size_t padding = gap;
         for ( auto const column : group ) {
            std::string_view const cell = cellOf( column );
            if ( !cell.empty() ) {
               auto const * const colour = isColoured ? colourOf( columns_[ column ].name, cell ) : nullptr;
               lines.append( padding, ' ' ).append( colour ? colour : "" ).append( cell );
               lines.append( colour ? colourEnd : "" );
               padding = 0;
            }
            padding += width( column ) - cell.size() + gap;
         }
         lines += '\n';
      };
      lines += lines.empty() ? "" : "\n";
      addLine( [ & ]( std::size_t column ) { return columns_[ column ].name; }, false );
      for ( std::size_t first = 0; first < ends_.size(); first += columns_.size() ) {
         addLine( [ & ]( std::size_t column ) { return cellAt( first + column ); }, style.colours );
      }
   }
   return lines;
}

JsonArray Table::json() const {
   JsonArray rows;
   rows.reserve( rowCount() );
   for ( std::size_t i = 0; i < ends_.size(); ++i ) {
      auto const & column = columns_[ i % columns_.size() ];
      if ( i % columns_.size() == 0 ) {
         rows.emplace_back( JsonObject() );
      }
      if ( auto const cell = cellAt( i ); !cell.empty() ) {
         auto & value = rows.back().as_object()[ column.name ];
         if ( column.kind == Kind::text ) {
            value = cell;
         } else {
            auto numbers = numbersIn( cell );
            value = column.kind == Kind::number ? numbers.at( 0 ) : Json( std::move( numbers ) );
         }
      }
   }
   return rows;
}

Report::~Report() {
   if ( isJson_ && !isTaken_ ) {
      writeLines( out_, json_ );
      out_ << '\n';
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
      out_ << table.lines( style_ );
   }
}

}  // namespace Agent
