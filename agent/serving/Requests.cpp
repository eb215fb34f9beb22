#include "agent/serving/Requests.h"

#include "agent/basics/UnusableInput.h"
#include "agent/packets/PacketOptions.h"
#include "agent/reports/HostReport.h"

#include <Trace/RingTrace.h>

#include <boost/json/parse.hpp>

#include <algorithm>
#include <charconv>
#include <deque>
#include <iterator>
#include <map>
#include <utility>
#include <vector>

namespace Agent {

namespace {

enum Code {
   parseError = -32700,
   invalidRequest = -32600,
   noSuchMethod = -32601,
   invalidParams = -32602,
   unusable = -32000
};

struct Fault {
   Code code;
   std::string message;
};

Json errorAnswer( Json const & id, Fault const & fault ) {
   return { { "jsonrpc", "2.0" }, { "error", { { "code", fault.code }, { "message", fault.message } } }, { "id", id } };
}

constexpr std::size_t mostLevels = 16;
constexpr std::size_t mostInBatch = 16;

// Throws Fault when the request is no JSON.
Json parsed( std::string_view request ) {
   boost::json::error_code error;
   auto json = boost::json::parse( request, error, {}, { .max_depth = mostLevels } );
   if ( error == boost::json::error::too_deep ) {
      throw Fault{ invalidRequest,
                   "the message is nested too deeply; allowed: " + std::to_string( mostLevels ) + " levels" };
   }
   if ( error ) {
      throw Fault{ parseError, "the message is no JSON" };
   }
   return json;
}

// Texts and numbers, as an option on the command line would have them.
std::string textOf( std::string_view name, Json const & value ) {
   auto const * const text = value.if_string();
   if ( text && text->find( '\0' ) == text->npos ) {
      return std::string( *text );
   }
   boost::json::error_code error;
   auto const number = value.to_number< U64 >( error );
   if ( error || value.is_double() ) {
      throw Fault{ invalidParams, std::string( name ) + ": " + lineOf( value ).substr( 0, 60 ) +
                                     "; allowed: a text without a NUL character, or a number" };
   }
   return std::to_string( number );
}

std::string listOf( auto const & names ) {
   std::string list;
   for ( auto const & name : names ) {
      list += ( list.empty() ? "" : ", " ) + std::string( name );
   }
   return list;
}

// Of a parameter; `usual` when it is not given.
std::size_t numberOf( std::map< std::string, std::string > const & params, char const * name, std::size_t usual,
                      std::size_t most ) {
   auto const found = params.find( name );
   if ( found == params.end() ) {
      return usual;
   }
   auto const & text = found->second;
   std::size_t number = 0;
   auto const [ end, error ] = std::from_chars( text.data(), text.data() + text.size(), number );
   if ( error != std::errc{} || end != text.data() + text.size() || number < 1 || number > most ) {
      throw Fault{ invalidParams,
                   std::string( name ) + ": " + text.substr( 0, 60 ) + "; allowed: 1 to " + std::to_string( most ) };
   }
   return number;
}

}  // namespace

// --- Methods ---------------------------------------------------------------------------------------------------------

// What a method is handed: its parameters, and where its answer goes.
struct Requests::Call {
   Requests & requests;
   std::map< std::string, std::string > params;
   Report & report;

   Host & host() const { return requests.host_; }

   ConntrackFollower & follower() const {
      if ( !requests.follower_ ) {
         throw Fault{ unusable, "no connection tracking is followed; allowed: of an agent with --follow-conntrack" };
      }
      return *requests.follower_;
   }

   Selection selection() const {
      constexpr std::size_t most = 1'000'000'000;
      Selection selection{ .cells = params, .limit = {} };
      if ( selection.cells.erase( "limit" ) != 0 ) {
         selection.limit = numberOf( params, "limit", most, most );
      }
      return selection;
   }

   // Each whether the answer is certain.
   bool summarize() const {
      reportSummary( report, host() );
      return true;
   }

   bool explain() const {
      Packet packet;
      try {
         packet = packetFrom( params );
      } catch ( UnusableInput const & fault ) {
         throw Fault{ invalidParams, fault.what() };
      }
      return reportWalk( report, requests.walk(), packet );
   }

   bool reload() const {
      auto const file = params.find( "file" );
      if ( file != params.end() && ( file->second.empty() || file->second == "-" ) ) {
         throw Fault{ invalidParams, "file: \"" + file->second + "\"; allowed: the name of a configuration" };
      }
      Configuration configuration;
      try {
         configuration = requests.read_( file == params.end() ? "" : file->second );
      } catch ( UnusableInput const & fault ) {
         throw Fault{ unusable, fault.what() };
      }
      host().reload( std::move( configuration ) );
      return summarize();
   }

   bool showFollowing() const {
      follower().report( report, host() );
      return follower().descriptor() >= 0;
   }

   // What it was told, for the one who ends the process.
   bool stop() const {
      auto const keep = params.find( "keep" );
      if ( keep != params.end() && keep->second != "true" && keep->second != "false" ) {
         throw Fault{ invalidParams, "keep: \"" + keep->second + "\"; allowed: true, false" };
      }
      requests.keepsChip_ = keep != params.end() && keep->second == "true";
      return requests.ends_ = true;
   }

   bool resync() const {
      follower().resync( host() );
      return showFollowing();
   }

   bool showRing() const {
      constexpr std::size_t usual = 20;
      reportRing( report, numberOf( params, "lines", usual, Trace::RingTrace::capacity ) );
      return true;
   }
};

namespace {

template< void ( *show )( Report &, Host const &, Selection const & ) > bool showSome( auto const & call ) {
   show( call.report, call.host(), call.selection() );
   return true;
}

}  // namespace

struct Requests::Method {
   std::string_view name;
   std::vector< std::string_view > params;
   bool ( *run )( Call const & call );  // whether the answer is certain
};

std::vector< Requests::Method > const & Requests::methods() {
   static std::vector< Method > const all{
      { "show", {}, []( Call const & call ) { return reportProgramming( call.report, call.host(), {} ), true; } },
      { "connections",
        { "entry", "line", "kind", "interface", "vrf", "vlan", "accessList", "target", "protocol", "local", "global",
          "peer", "natIds", "fragmentIds", "result", "limit" },
        showSome< reportConnections > },
      { "statuses", { "entry", "line", "result", "limit" }, showSome< reportStatuses > },
      { "rows", { "table", "row", "action", "state", "limit" }, showSome< reportRows > },
      { "ids", { "natId", "holder", "limit" }, showSome< reportNatIds > },
      { "traps", { "acl", "trap", "limit" }, showSome< reportTraps > },
      { "profiles", {}, []( Call const & call ) { return reportProfiles( call.report, call.host() ), true; } },
      { "ring", { "lines" }, []( Call const & call ) { return call.showRing(); } },
      { "summary", {}, []( Call const & call ) { return call.summarize(); } },
      { "explain",
        { "in", "out", "vrf", "proto", "src", "dst", "fragment" },
        []( Call const & call ) { return call.explain(); } },
      { "reload", { "file" }, []( Call const & call ) { return call.reload(); } },
      { "delete-all", {}, []( Call const & call ) { return call.host().deleteAll(), call.summarize(); } },
      { "add-all", {}, []( Call const & call ) { return call.host().addAll(), call.summarize(); } },
      { "retry", {}, []( Call const & call ) { return call.host().retry(), call.summarize(); } },
      { "following", {}, []( Call const & call ) { return call.showFollowing(); } },
      { "resync", {}, []( Call const & call ) { return call.resync(); } },
      { "stop", { "keep" }, []( Call const & call ) { return call.stop(); } } };
   return all;
}

// --- Answers ---------------------------------------------------------------------------------------------------------

class Requests::AnswerToAll final : public Answer {
 public:
   AnswerToAll( Requests & requests, std::string_view message ) : requests_( requests ) {
      try {
         take( parsed( message ) );
      } catch ( Fault const & fault ) {
         isBatch_ = false;
         waiting_.clear();
         waiting_.push_back( { .fault = fault } );
      }
   }

   bool next( std::string & text ) override {
      if ( current_ ) {
         tell( text );
      } else if ( !waiting_.empty() ) {
         auto request = std::move( waiting_.front() );
         waiting_.pop_front();
         start( request, text );
      }
      bool const hasMore = current_ || !waiting_.empty();
      if ( !hasMore && hasTold_ ) {
         text += isBatch_ ? "]\n" : "\n";
      }
      return hasMore;
   }

   bool endsServing() const override { return requests_.ends_; }

 private:
   // One request, as far as it is needed.
   struct Request {
      Json id = nullptr;
      bool isNotification = false;
      std::optional< Fault > fault = {};
      Method const * method = nullptr;
      std::map< std::string, std::string > params = {};
      bool isText = false;
   };

   // The request that is being answered.
   struct Current {
      Current( Report && report, Json requestId, bool certain, U64 changesBefore )
         : pieces( std::move( report ) ),
           id( std::move( requestId ) ),
           isCertain( certain ),
           changes( changesBefore ) {}
      ReportPieces pieces;
      Json id;
      bool isCertain;
      U64 changes;  // when it was begun
   };

   void take( Json const & message ) {
      auto const * const batch = message.if_array();
      if ( !batch || batch->empty() ) {
         waiting_.push_back( requestFrom( message ) );
         return;
      }
      if ( batch->size() > mostInBatch ) {
         throw Fault{ invalidRequest, "too many requests in a batch; allowed: " + std::to_string( mostInBatch ) };
      }
      isBatch_ = true;
      std::ranges::transform( *batch, std::back_inserter( waiting_ ), &AnswerToAll::requestFrom );
   }

   static Request requestFrom( Json const & json ) {
      Request request{ .isNotification = !memberOf( json, "id" ) };
      auto const * const id = memberOf( json, "id" );
      bool const isId = !id || ( !id->is_structured() && !id->is_bool() );
      if ( id && isId ) {
         request.id = *id;
      }
      auto const * const version = memberOf( json, "jsonrpc" );
      auto const * const method = memberOf( json, "method" );
      auto const * const params = memberOf( json, "params" );
      try {
         if ( !isId || !version || *version != "2.0" || !method || !method->is_string() ) {
            throw Fault{ invalidRequest,
                         "no request of JSON-RPC 2.0; allowed: an object with jsonrpc, method, and id" };
         }
         if ( params && !params->is_null() && !params->is_object() ) {
            throw Fault{ invalidParams, "parameters go by name" };
         }
         request.method = &methodOf( method->get_string() );
         takeParams( request, params ? params->if_object() : nullptr );
      } catch ( Fault const & fault ) {
         request.fault = fault;
      }
      return request;
   }

   static Method const & methodOf( std::string_view name ) {
      auto const found = std::ranges::find( methods(), name, &Method::name );
      if ( found == methods().end() ) {
         std::vector< std::string_view > names;
         std::ranges::transform( methods(), std::back_inserter( names ), &Method::name );
         throw Fault{ noSuchMethod,
                      "no such method: " + std::string( name.substr( 0, 60 ) ) + "; allowed: " + listOf( names ) };
      }
      return *found;
   }

   static void takeParams( Request & request, JsonObject const * params ) {
      std::string format = "json";
      auto const & known = request.method->params;
      for ( auto const & [ name, value ] : params ? *params : JsonObject() ) {
         std::string_view const param = name;
         if ( param == "format" ) {
            format = textOf( param, value );
         } else if ( std::ranges::find( known, param ) != known.end() ) {
            request.params[ std::string( param ) ] = textOf( param, value );
         } else {
            auto const allowed = listOf( known );
            throw Fault{ invalidParams, "no such parameter: " + std::string( param.substr( 0, 60 ) ) +
                                           "; allowed: format" + ( allowed.empty() ? "" : ", " + allowed ) };
         }
      }
      if ( format != "json" && format != "text" ) {
         throw Fault{ invalidParams, "format: " + format.substr( 0, 60 ) + "; allowed: json, text" };
      }
      request.isText = format == "text";
   }

   void start( Request & request, std::string & text ) {
      Report report( !request.isText );
      bool isCertain = false;
      auto fault = std::move( request.fault );
      try {
         isCertain = !fault && request.method->run( { requests_, std::move( request.params ), report } );
      } catch ( Fault const & ofMethod ) {
         fault = ofMethod;
      } catch ( UnusableInput const & ofStore ) {
         fault = Fault{ unusable, ofStore.what() };
      }
      if ( fault ) {
         if ( !request.isNotification || fault->code == invalidRequest ) {
            begin( text );
            text += lineOf( errorAnswer( request.id, *fault ) );
         }
         return;
      }
      if ( !request.isNotification ) {
         begin( text );
         text += R"({"jsonrpc":"2.0","result":{)";
         current_.emplace( std::move( report ), std::move( request.id ), isCertain, requests_.host_.changes() );
      }
   }

   void begin( std::string & text ) { text += std::exchange( hasTold_, true ) ? "," : isBatch_ ? "[" : ""; }

   void tell( std::string & text ) {
      if ( current_->pieces.next( text ) ) {
         return;
      }
      text += current_->changes == requests_.host_.changes() ? "" : R"("changed":true,)";
      text += R"("status":)";
      text += current_->isCertain && requests_.isComplete() ? "0" : "1";
      text += R"(},"id":)" + lineOf( current_->id ) + '}';
      current_.reset();
   }

   Requests & requests_;
   bool isBatch_ = false;
   bool hasTold_ = false;
   std::deque< Request > waiting_;
   std::optional< Current > current_;
};

std::string Requests::refusal( std::string_view why ) {
   return lineOf( errorAnswer( nullptr, { invalidRequest, std::string( why ) } ) );
}

std::unique_ptr< Answer > Requests::answer( std::string_view request ) {
   return std::make_unique< AnswerToAll >( *this, request );
}

std::string Requests::reload() {
   try {
      host_.reload( read_( "" ) );
   } catch ( UnusableInput const & fault ) {
      return fault.what();
   }
   return "";
}

bool Requests::isComplete() {
   if ( !complete_ || complete_->first != host_.changes() ) {
      complete_ = { host_.changes(), host_.isComplete() };
   }
   return complete_->second;
}

PacketWalk const & Requests::walk() {
   if ( !walk_ || walk_->first != host_.changes() ) {
      walk_.reset();
      walk_.emplace( host_.changes(), PacketWalk( host_.tables(), host_.configuration() ) );
   }
   return walk_->second;
}

}  // namespace Agent
