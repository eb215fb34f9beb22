// Tables that the agent shows, whole or row by row.
#pragma once

#include "agent/basics/Json.h"

#include <Vexa/Types.h>

#include <algorithm>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

// How tables are written for people: to a file or a program as they are, to a terminal in its width and with colours.
struct TextStyle {
   std::size_t width = 0;  // of a line; 0: any
   bool colours = false;

   // Of what standard output is. No colours where the environment has NO_COLOR, or the terminal is a dumb one.
   static TextStyle ofStandardOutput();
};

// Rows of cells under named columns. A row is complete when each column has its cell.
class Table {
 public:
   // In JSON; the cell of numbers has blanks between them, that of json is the text of a value, not shown to people.
   enum class Kind { text, number, numbers, json };
   struct Column {
      std::string_view name;
      Kind kind = Kind::text;
      bool isAlways = false;  // in JSON; an empty cell is 0 or "" then
   };

   explicit Table( std::vector< Column > columns );

   // The text of the next cell so far, to append to; ended by endCell.
   std::string & cell() { return text_; }
   void endCell();
   void cell( std::string_view text ) {
      text_ += text;
      endCell();
   }
   void number( U64 number );

   std::vector< Column > const & columns() const { return columns_; }
   std::size_t rowCount() const { return ends_.size() / columns_.size(); }
   std::string_view cellAt( std::size_t row, std::size_t column ) const {
      return cellAt( row * columns_.size() + column );
   }

   // Makes the columns at least as wide as those of a table that has the same.
   void widen( Table const & other );

   // One line per row, below one of names unless `named` is false. Columns are as wide as they need, those with nothing
   // in them are left out. Where a line has a width, columns that do not fit follow below, with the first column once
   // more. What became of something, in columns named result and state, is green where all is well, or red.
   std::string lines( TextStyle style = {}, bool named = true ) const;
   // A list of one object per row, without members for empty cells.
   JsonArray json() const;

 private:
   std::string_view cellAt( std::size_t index ) const;
   std::size_t width( std::size_t column ) const {
      return std::max( widths_[ column ], columns_[ column ].name.size() );
   }
   std::vector< std::vector< std::size_t > > columnGroups( std::size_t lineWidth ) const;

   std::vector< Column > columns_;
   std::vector< std::size_t > widths_;
   std::string text_;                 // of all cells, one after the other
   std::vector< std::size_t > ends_;  // of each cell in it
};

// The rows of a table by and by, for those who do not want all of them at once. What it reads may change between two
// calls: whatever stays all the time comes once, as it is when it comes.
class RowSource {
 public:
   RowSource() = default;
   RowSource( RowSource const & ) = delete;
   RowSource & operator=( RowSource const & ) = delete;
   virtual ~RowSource() = default;

   virtual std::vector< Table::Column > columns() const = 0;
   // Appends some rows, a few milliseconds of work, or none if it has to look further. False: there are no more.
   virtual bool next( Table & rows ) = 0;
   // From the first one again.
   virtual void rewind() = 0;
};

// Which rows are wanted.
struct Selection {
   // By column: the cell, a word of it, or one without the port behind it.
   std::map< std::string, std::string > cells;
   std::optional< std::size_t > limit;
};
std::unique_ptr< RowSource > selected( std::unique_ptr< RowSource > source, Selection selection );

}  // namespace Agent
