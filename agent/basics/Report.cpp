#include "agent/basics/Report.h"

#include <utility>

namespace Agent {

namespace {

// All that is left of a source.
Table tableOf( RowSource & source ) {
   Table table( source.columns() );
   while ( source.next( table ) ) {
   }
   return table;
}

JsonArray textsOf( Table const & table ) {
   JsonArray texts;
   for ( std::size_t row = 0; row < table.rowCount(); ++row ) {
      texts.emplace_back( table.cellAt( row, 0 ) );
   }
   return texts;
}

std::string indented( Table const & table ) {
   std::string lines;
   for ( std::size_t row = 0; row < table.rowCount(); ++row ) {
      lines.append( "  " ).append( table.cellAt( row, 0 ) ).append( "\n" );
   }
   return lines;
}

// As it stands inside a JSON text.
std::string escaped( std::string_view text ) {
   auto const quoted = lineOf( Json( text ) );
   return quoted.substr( 1, quoted.size() - 2 );
}

}  // namespace

void Report::line( std::string_view text ) {
   if ( !isJson_ ) {
      parts_.push_back( { .name = {}, .content = std::string( text ) + '\n' } );
   }
}

void Report::fact( std::string_view name, Json value ) {
   if ( isJson_ ) {
      parts_.push_back( { .name = std::string( name ), .content = std::move( value ) } );
   }
}

void Report::table( std::string_view name, Table table ) {
   parts_.push_back( { .name = std::string( name ), .content = std::move( table ) } );
}

void Report::rows( std::string_view name, std::unique_ptr< RowSource > source ) {
   parts_.push_back( { .name = std::string( name ), .content = std::move( source ) } );
}

void Report::texts( std::string_view name, std::unique_ptr< RowSource > source ) {
   parts_.push_back( { .name = std::string( name ), .content = std::move( source ), .isTexts = true } );
}

void Report::write( std::ostream & out, TextStyle style ) {
   if ( isJson_ && !parts_.empty() ) {
      return writeJson( out );
   }
   for ( ; !parts_.empty(); parts_.pop_front() ) {
      auto & part = parts_.front();
      if ( auto * const source = std::get_if< std::unique_ptr< RowSource > >( &part.content ) ) {
         auto const table = tableOf( **source );
         out << ( part.isTexts ? indented( table ) : table.lines( style ) );
      } else if ( auto const * const table = std::get_if< Table >( &part.content ) ) {
         out << table->lines( style );
      } else {
         out << std::get< std::string >( part.content );
      }
   }
}

void Report::writeJson( std::ostream & out ) {
   JsonObject object;
   for ( ; !parts_.empty(); parts_.pop_front() ) {
      auto & part = parts_.front();
      auto & value = object[ part.name ];
      if ( auto * const source = std::get_if< std::unique_ptr< RowSource > >( &part.content ) ) {
         auto const table = tableOf( **source );
         value = part.isTexts ? textsOf( table ) : table.json();
      } else if ( auto const * const table = std::get_if< Table >( &part.content ) ) {
         value = table->json();
      } else {
         value = std::move( std::get< Json >( part.content ) );
      }
   }
   writeLines( out, object );
   out << '\n';
}

// --- By and by -------------------------------------------------------------------------------------------------------

// The rows of one part. As text they are looked at twice, first for the widths of their columns.
class ReportPieces::Rows {
 public:
   Rows( std::unique_ptr< RowSource > source, bool isJson, bool isTexts )
      : source_( std::move( source ) ),
        isJson_( isJson ),
        isTexts_( isTexts ),
        isMeasuring_( !isJson && !isTexts ),
        layout_( source_->columns() ) {}

   bool next( std::string & out ) {
      Table some( source_->columns() );
      bool const hasMore = source_->next( some );
      if ( isMeasuring_ ) {
         layout_.widen( some );
         if ( !hasMore ) {
            isMeasuring_ = false;
            source_->rewind();
            out += escaped( layout_.lines() );
         }
         return true;
      }
      if ( !isJson_ ) {
         some.widen( layout_ );
         out += escaped( isTexts_ ? indented( some ) : some.lines( {}, false ) );
         return hasMore;
      }
      auto const list = lineOf( Json( isTexts_ ? textsOf( some ) : some.json() ) );
      if ( some.rowCount() != 0 ) {
         out += std::exchange( isFirst_, false ) ? "" : ",";
         out.append( list, 1, list.size() - 2 );
      }
      return hasMore;
   }

 private:
   std::unique_ptr< RowSource > source_;
   bool isJson_;
   bool isTexts_;
   bool isMeasuring_;
   Table layout_;
   bool isFirst_ = true;
};

ReportPieces::ReportPieces( Report && report ) : report_( std::move( report ) ) {}
ReportPieces::~ReportPieces() = default;

bool ReportPieces::next( std::string & out ) {
   if ( std::exchange( isFirst_, false ) && !report_.isJson() ) {
      out += "\"text\":\"";
   }
   if ( rows_ ) {
      if ( !rows_->next( out ) ) {
         rows_ = nullptr;
         out += report_.isJson() ? "]," : "";
      }
      return true;
   }
   if ( report_.parts_.empty() ) {
      out += report_.isJson() ? "" : "\",";
      return false;
   }
   take( report_.parts_.front(), out );
   report_.parts_.pop_front();
   return true;
}

void ReportPieces::take( Report::Part & part, std::string & out ) {
   bool const isJson = report_.isJson();
   if ( isJson ) {
      out += lineOf( Json( part.name ) ) + ':';
   }
   if ( auto * const source = std::get_if< std::unique_ptr< RowSource > >( &part.content ) ) {
      rows_ = std::make_unique< Rows >( std::move( *source ), isJson, part.isTexts );
      out += isJson ? "[" : "";
   } else if ( auto const * const table = std::get_if< Table >( &part.content ) ) {
      out += isJson ? lineOf( Json( table->json() ) ) + ',' : escaped( table->lines() );
   } else {
      out +=
         isJson ? lineOf( std::get< Json >( part.content ) ) + ',' : escaped( std::get< std::string >( part.content ) );
   }
}

}  // namespace Agent
