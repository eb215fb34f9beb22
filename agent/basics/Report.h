// What the agent shows, as text for people and as JSON for programs.
#pragma once

#include "agent/basics/Json.h"
#include "agent/basics/Table.h"

#include <concepts>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <variant>

namespace Agent {

// Named tables and facts, to be written as lines, or as one object. What they are read from must live until then.
class Report {
 public:
   explicit Report( bool isJson ) : isJson_( isJson ) {}

   bool isJson() const { return isJson_; }

   // Each in one of the two forms only.
   void line( std::string_view text );
   void fact( std::string_view name, Json value );
   template< std::convertible_to< std::string_view > Text > void fact( std::string_view name, Text const & text ) {
      fact( name, Json( std::string_view( text ) ) );
   }

   void table( std::string_view name, Table table );
   void rows( std::string_view name, std::unique_ptr< RowSource > source );
   // A list of texts, lines to people.
   void texts( std::string_view name, std::unique_ptr< RowSource > source );

   // All at once, and no more then.
   void write( std::ostream & out, TextStyle style );

 private:
   friend class ReportPieces;

   struct Part {
      std::string name;  // empty: none has it
      std::variant< std::string, Json, Table, std::unique_ptr< RowSource > > content;
      bool isTexts = false;  // the only cell of each row is an element
   };

   void writeJson( std::ostream & out );

   bool isJson_;
   std::deque< Part > parts_;
};

// A report as members of a JSON object in one line, by and by: its own, or the member "text".
class ReportPieces {
 public:
   explicit ReportPieces( Report && report );
   ~ReportPieces();
   ReportPieces( ReportPieces const & ) = delete;
   ReportPieces & operator=( ReportPieces const & ) = delete;

   // Appends a piece, or nothing if it has to look further first. False: that was all.
   bool next( std::string & out );

 private:
   class Rows;

   void take( Report::Part & part, std::string & out );

   Report report_;
   bool isFirst_ = true;
   std::unique_ptr< Rows > rows_;  // of the part that is being told; null: none
};

}  // namespace Agent
