#include "agent/basics/Table.h"

#include <Vexa/Value.h>

#include <boost/json/parse.hpp>

#include <charconv>
#include <cstdlib>
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
   auto const * const end = cell.data() + cell.size();
   for ( auto const * next = cell.data(); next < end; ++next ) {
      U64 number = 0;
      next = std::from_chars( next, end, number ).ptr;
      numbers.push_back( number );
   }
   return numbers;
}

Json valueOf( Table::Kind kind, std::string_view cell ) {
   switch ( kind ) {
   case Table::Kind::text: return Json( cell );
   case Table::Kind::number: return cell.empty() ? Json( 0 ) : numbersIn( cell ).at( 0 );
   case Table::Kind::numbers: return numbersIn( cell );
   case Table::Kind::json: return boost::json::parse( cell.empty() ? "null" : cell );
   }
   return nullptr;
}

}  // namespace

TextStyle TextStyle::ofStandardOutput() {
   if ( isatty( STDOUT_FILENO ) == 0 ) {
      return {};
   }
   winsize size{};
   bool const isKnown = ioctl( STDOUT_FILENO, TIOCGWINSZ, &size ) == 0;
   auto const * const terminal = std::getenv( "TERM" );
   bool const isDumb = terminal && std::string_view( terminal ) == "dumb";
   return { .width = isKnown ? size.ws_col : std::size_t{ 0 },
            .colours = !isDumb && std::getenv( "NO_COLOR" ) == nullptr };
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
      if ( widths_[ column ] == 0 || columns_[ column ].kind == Kind::json ) {
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

void Table::widen( Table const & other ) {
   std::ranges::transform( widths_, other.widths_, widths_.begin(), []( auto a, auto b ) { return std::max( a, b ); } );
}

std::string Table::lines( TextStyle style, bool named ) const {
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
      if ( named ) {
         addLine( [ & ]( std::size_t column ) { return columns_[ column ].name; }, false );
      }
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
      if ( auto const cell = cellAt( i ); !cell.empty() || column.isAlways ) {
         rows.back().as_object()[ column.name ] = valueOf( column.kind, cell );
      }
   }
   return rows;
}

// --- Some of the rows ------------------------------------------------------------------------------------------------

namespace {

bool isMet( std::string_view cell, std::string_view wanted ) {
   if ( cell == wanted ) {
      return true;
   }
   for ( std::size_t start = 0; start < cell.size(); ) {
      auto const word = cell.substr( start, cell.find( ' ', start ) - start );
      if ( word == wanted || word.substr( 0, word.find( ':' ) ) == wanted ) {
         return true;
      }
      start += word.size() + 1;
   }
   return false;
}

class SelectedRows final : public RowSource {
 public:
   SelectedRows( std::unique_ptr< RowSource > source, Selection selection )
      : source_( std::move( source ) ), selection_( std::move( selection ) ) {}

   std::vector< Table::Column > columns() const override { return source_->columns(); }

   bool next( Table & rows ) override {
      Table some( columns() );
      bool const hasMore = source_->next( some );
      for ( std::size_t row = 0; row < some.rowCount() && !isEnough(); ++row ) {
         if ( isWanted( some, row ) ) {
            for ( std::size_t column = 0; column < some.columns().size(); ++column ) {
               rows.cell( some.cellAt( row, column ) );
            }
            ++count_;
         }
      }
      return hasMore && !isEnough();
   }

   void rewind() override {
      source_->rewind();
      count_ = 0;
   }

 private:
   bool isEnough() const { return selection_.limit && count_ >= *selection_.limit; }
   bool isWanted( Table const & table, std::size_t row ) const {
      for ( std::size_t column = 0; column < table.columns().size(); ++column ) {
         auto const & [ name, kind, isAlways ] = table.columns()[ column ];
         auto const wanted = selection_.cells.find( std::string( name ) );
         auto const cell = table.cellAt( row, column );
         bool const isZero = cell.empty() && isAlways && kind == Table::Kind::number;
         if ( wanted != selection_.cells.end() && !isMet( isZero ? "0" : cell, wanted->second ) ) {
            return false;
         }
      }
      return true;
   }

   std::unique_ptr< RowSource > source_;
   Selection selection_;
   std::size_t count_ = 0;
};

}  // namespace

std::unique_ptr< RowSource > selected( std::unique_ptr< RowSource > source, Selection selection ) {
   return selection.cells.empty() && !selection.limit
             ? std::move( source )
             : std::make_unique< SelectedRows >( std::move( source ), std::move( selection ) );
}

}  // namespace Agent
