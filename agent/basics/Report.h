// What the agent shows, as text for people and as JSON for programs.
#pragma once

#include "agent/basics/Json.h"

#include <Vexa/Types.h>

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Agent {

// How tables are written for people: to a file or a program as they are, to a terminal in its width and with colours.
struct TextStyle {
   std::size_t width = 0;  // of a line; 0: any
   bool colours = false;

   // Of what standard output is. No colours where the environment has NO_COLOR.
   static TextStyle ofStandardOutput();
};

// Rows of cells under named columns. A row is complete when each column has its cell.
class Table {
 public:
   enum class Kind { text, number, numbers };  // in JSON; numbers are a list, its cell has blanks between them
   struct Column {
      std::string_view name;
      Kind kind = Kind::text;
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

   std::size_t rowCount() const { return ends_.size() / columns_.size(); }

   // One line per row below one of names. Columns are as wide as they need, those with nothing in them are left out.
   // Where a line has a width, columns that do not fit follow below, with the first column once more. What became of
   // something, in columns named result and state, is green where all is well, or red.
   std::string lines( TextStyle style = {} ) const;
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

// Named tables and facts, as lines written at once or as one object written at the end.
class Report {
 public:
   // `out` must outlive the report.
   Report( std::ostream & out, bool isJson, TextStyle style = {} ) : out_( out ), isJson_( isJson ), style_( style ) {}
   ~Report();
   Report( Report const & ) = delete;
   Report & operator=( Report const & ) = delete;

   // Each in one of the two forms only.
   void line( std::string_view text );
   void fact( char const * name, Json value );
   template< std::convertible_to< std::string_view > Text > void fact( char const * name, Text const & text ) {
      fact( name, Json( std::string_view( text ) ) );
   }

   void table( char const * name, Table const & table );

   // What there is so far, which is not written any more.
   JsonObject takeJson() {
      isTaken_ = true;
      return std::exchange( json_, JsonObject() );
   }

 private:
   std::ostream & out_;
   bool isJson_;
   TextStyle style_;
   bool isTaken_ = false;
   JsonObject json_;
};

}  // namespace Agent
