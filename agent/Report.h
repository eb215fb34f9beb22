// What the agent shows, as text for people and as JSON for programs.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

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

   std::size_t rowCount() const { return ends_.size() / columns_.size(); }

   // One line per row below one of names. Columns are as wide as they need, those with nothing in them are left out.
   std::string lines() const;
   // A list of one object per row, without members for empty cells.
   nlohmann::ordered_json json() const;

 private:
   std::string_view cellAt( std::size_t index ) const;

   std::vector< Column > columns_;
   std::vector< std::size_t > widths_;
   std::string text_;                 // of all cells, one after the other
   std::vector< std::size_t > ends_;  // of each cell in it
};

// Named tables and facts in the order in which they were given.
class Report {
 public:
   explicit Report( bool isJson );
   ~Report();
   Report( Report const & ) = delete;
   Report & operator=( Report const & ) = delete;

   // Of the two forms each call gives only one.
   void line( std::string const & text );
   void fact( char const * name, nlohmann::ordered_json const & value );

   void table( char const * name, Table const & table );

   void write( std::ostream & out ) const;

 private:
   bool isJson_;
   std::string text_;
   std::unique_ptr< nlohmann::ordered_json > json_;
};

}  // namespace Agent
