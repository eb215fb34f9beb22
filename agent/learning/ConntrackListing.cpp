#include "agent/learning/ConntrackListing.h"

#include "agent/basics/TextFile.h"
#include "agent/basics/UnusableInput.h"
#include "agent/learning/ConntrackEntry.h"

#include <algorithm>
#include <utility>

namespace Agent {

namespace {

constexpr std::string_view blanks = " \t\r";
constexpr std::size_t linesShown = 10;
constexpr std::size_t tokenShown = 60;

std::string_view withoutBlanks( std::string_view text ) {
   auto const start = std::min( text.find_first_not_of( blanks ), text.size() );
   return text.substr( start, text.find_last_not_of( blanks ) + 1 - start );
}

// A text in quotes, cut short, without what would disturb a terminal.
std::string shown( std::string_view token ) {
   auto const cut = token.substr( 0, tokenShown );
   std::string text = "\"";
   for ( char const c : cut ) {
      text += c < ' ' || c > '~' ? '?' : c;
   }
   return text + ( cut.size() < token.size() ? "\"..." : "\"" );
}

// The tool's last words, which it writes to the error output. In a file that takes both outputs they may fall into
// the middle of an entry.
std::size_t startOfSummary( std::string_view line ) {
   constexpr std::string_view start = "conntrack v";
   constexpr std::string_view end = " flow entries have been shown.";
   return withoutBlanks( line ).ends_with( end ) ? line.rfind( start ) : line.npos;
}

class Reader {
 public:
   Reader( std::string file, std::string_view text, RowClaims & claims ) : rest_( text ), claims_( claims ) {
      listing_.file = std::move( file );
   }

   ConntrackListing read() {
      while ( !rest_.empty() ) {
         auto line = nextLine();
         auto const number = line_;
         std::string joined;
         if ( auto const summary = startOfSummary( line ); summary != line.npos ) {
            joined = line.substr( 0, summary );
            if ( !withoutBlanks( joined ).empty() ) {
               joined += nextLine();
            }
            line = joined;
         }
         if ( !withoutBlanks( line ).empty() ) {
            readEntry( line, number );
         }
      }
      faults_.throwAll( listing_.file, "malformed lines" );
      return std::move( listing_ );
   }

 private:
   std::string_view nextLine() {
      ++line_;
      auto const end = rest_.find( '\n' );
      auto const line = rest_.substr( 0, end );
      lastHasEnd_ = end != rest_.npos;
      rest_.remove_prefix( lastHasEnd_ ? end + 1 : rest_.size() );
      return line;
   }

   void readEntry( std::string_view line, U32 number ) {
      try {
         auto const entry = conntrackEntryFrom( line );
         if ( !lastHasEnd_ && !reachesUseCount( line ) ) {
            throw ConntrackFault{
               line.size(), {}, "use= or the end of the line, without which the entry may be cut off" };
         }
         auto const result = entry.isIpv4 ? learnedFrom( entry.flow ) : NotLearned::notIpv4;
         if ( auto const * const reason = std::get_if< NotLearned >( &result ) ) {
            passOver( line, number, *reason );
         } else {
            claim( line, number, std::get< LearnedConnection >( result ) );
         }
      } catch ( ConntrackFault const & fault ) {
         addFault( number, fault );
      }
   }

   void claim( std::string_view line, U32 number, LearnedConnection const & connection ) {
      auto const other = claims_.claim( connection, number );
      if ( !other ) {
         listing_.learned.push_back( { .line = number, .connection = connection } );
      } else if ( *other == RowClaims::configured ) {
         passOver( line, number, NotLearned::rowConfigured );
      } else {
         passOver( line, number, NotLearned::rowTaken, *other );
      }
   }

   void passOver( std::string_view line, U32 number, NotLearned reason, U32 other = 0 ) {
      listing_.passedOver.push_back(
         { .line = number, .reason = reason, .other = other, .entry = std::string( withoutBlanks( line ) ) } );
   }

   void addFault( U32 number, ConntrackFault const & fault ) {
      faults_.add( [ & ] {
         return listing_.file + ": line " + std::to_string( number ) + ", column " +
                std::to_string( fault.position + 1 ) + ": " +
                ( fault.token.empty() ? "the line ends here" : shown( fault.token ) + " does not fit" ) +
                "; allowed: " + std::string( fault.allowed );
      } );
   }

   std::string_view rest_;
   RowClaims & claims_;
   ConntrackListing listing_;
   U32 line_ = 0;
   bool lastHasEnd_ = true;
   Faults faults_;
};

}  // namespace

ConntrackListing conntrackListing( std::string file, std::string_view text, RowClaims & claims ) {
   return Reader( std::move( file ), text, claims ).read();
}

ConntrackListing conntrackListingFrom( std::string const & file, RowClaims & claims ) {
   return conntrackListing( file, textOfFile( file ), claims );
}

ConntrackListing learnFrom( std::string const & file, Configuration & configuration, NatInterface const & intf ) {
   RowClaims claims( *configuration.rules, intf );
   auto listing = conntrackListingFrom( file, claims );
   for ( auto const & [ line, learned ] : listing.learned ) {
      add( configuration, { .line = line, .rule = ruleOf( learned, intf ) } );
   }
   return listing;
}

std::size_t ConntrackListing::passedOverFor( NotLearned reason ) const {
   return static_cast< std::size_t >( std::ranges::count( passedOver, reason, &PassedOver::reason ) );
}

std::string ConntrackListing::summary() const {
   std::string text = file + ": connections learned: " + std::to_string( learned.size() ) +
                      ", entries passed over: " + std::to_string( passedOver.size() ) + "\n";
   for ( std::size_t i = 0; i < notLearnedTexts.size(); ++i ) {
      auto const reason = static_cast< NotLearned >( i );
      auto const count = passedOverFor( reason );
      if ( count == 0 ) {
         continue;
      }
      text += "   " + std::to_string( count ) + " " + std::string( textOf( reason ) ) + ":";
      std::size_t named = 0;
      for ( auto const & entry : passedOver ) {
         if ( entry.reason == reason && named < linesShown ) {
            text += ( named++ == 0 ? " line " : ", line " ) + std::to_string( entry.line ) +
                    ( entry.other == 0 ? "" : " (those of line " + std::to_string( entry.other ) + ")" );
         }
      }
      text += count > named ? " and " + std::to_string( count - named ) + " more\n" : "\n";
   }
   return text;
}

}  // namespace Agent
