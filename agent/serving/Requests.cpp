#include "agent/serving/Requests.h"

#include "agent/basics/UnusableInput.h"
#include "agent/packets/PacketOptions.h"
#include "agent/reports/HostReport.h"

#include <Trace/RingTrace.h>

#include <boost/json/parse.hpp>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <map>
#include <sstream>
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
// Each answer may hold everything that is programmed.
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

// What a method is handed: its parameters, and where its answer goes.
struct Call {
   Host & host;
   Requests::Read const & read;
   ConntrackFollower * follower;
   std::map< std::string, std::string > params;
   Report & report;
   bool & ends;

   std::string param( std::string const & name ) const {
      auto const found = params.find( name );
      return found == params.end() ? "" : found->second;
   }
};

bool showRing( Call & call ) {
   constexpr std::size_t usual = 20;
   auto const text = call.param( "lines" );
   std::size_t lines = text.empty() ? usual : 0;
   std::from_chars( text.data(), text.data() + text.size(), lines );
   if ( lines < 1 || lines > Trace::RingTrace::capacity ) {
      throw Fault{ invalidParams,
                   "lines: " + text + "; allowed: 1 to " + std::to_string( Trace::RingTrace::capacity ) };
   }
   reportRing( call.report, lines );
   return true;
}

bool explain( Call & call ) {
   Packet packet;
   try {
      packet = packetFrom( call.params );
   } catch ( UnusableInput const & fault ) {
      throw Fault{ invalidParams, fault.what() };
   }
   return reportWalk( call.report, PacketWalk( call.host.tables(), call.host.configuration() ), packet );
}

bool reload( Call & call ) {
   Configuration configuration;
   try {
      configuration = call.read( call.param( "file" ) );
   } catch ( UnusableInput const & fault ) {
      throw Fault{ unusable, fault.what() };
   }
   call.host.reload( std::move( configuration ) );
   reportSummary( call.report, call.host );
   return true;
}

ConntrackFollower & followerOf( Call const & call ) {
   if ( !call.follower ) {
      throw Fault{ unusable, "no connection tracking is followed; allowed: of an agent with --follow-conntrack" };
   }
   return *call.follower;
}

bool showFollowing( Call & call ) {
   followerOf( call ).report( call.report, call.host );
   return followerOf( call ).descriptor() >= 0;
}

bool resync( Call & call ) {
   followerOf( call ).resync( call.host );
   return showFollowing( call );
}

bool summarize( Call & call ) {
   reportSummary( call.report, call.host );
   return true;
}

template< void ( *show )( Report &, Host const & ) > bool showPart( Call & call ) {
   show( call.report, call.host );
   return true;
}

struct Method {
   std::string_view name;
   std::vector< std::string_view > params;
   bool ( *run )( Call & call );  // whether the answer is certain
};

std::vector< Method > const & methods() {
   static std::vector< Method > const all{
      { "show", {}, []( Call & call ) { return reportProgramming( call.report, call.host, {} ), true; } },
      { "connections", {}, showPart< reportConnections > },
      { "statuses", {}, showPart< reportStatuses > },
      { "rows", {}, showPart< reportRows > },
      { "ids", {}, showPart< reportNatIds > },
      { "traps", {}, showPart< reportTraps > },
      { "profiles", {}, showPart< reportProfiles > },
      { "ring", { "lines" }, showRing },
      { "summary", {}, summarize },
      { "explain", { "in", "out", "vrf", "proto", "src", "dst", "fragment" }, explain },
      { "reload", { "file" }, reload },
      { "delete-all", {}, []( Call & call ) { return call.host.deleteAll(), summarize( call ); } },
      { "add-all", {}, []( Call & call ) { return call.host.addAll(), summarize( call ); } },
      { "retry", {}, []( Call & call ) { return call.host.retry(), summarize( call ); } },
      { "following", {}, showFollowing },
      { "resync", {}, resync },
      { "stop", {}, []( Call & call ) { return call.ends = true; } } };
   return all;
}

std::string listOf( auto const & names ) {
   std::string list;
   for ( auto const & name : names ) {
      list += ( list.empty() ? "" : ", " ) + std::string( name );
   }
   return list;
}

Method const & methodOf( std::string_view name ) {
   auto const found = std::ranges::find( methods(), name, &Method::name );
   if ( found == methods().end() ) {
      std::vector< std::string_view > names;
      std::ranges::transform( methods(), std::back_inserter( names ), &Method::name );
      throw Fault{ noSuchMethod,
                   "no such method: " + std::string( name.substr( 0, 60 ) ) + "; allowed: " + listOf( names ) };
   }
   return *found;
}

}  // namespace

std::string Requests::refusal( std::string_view why ) {
   return lineOf( errorAnswer( nullptr, { invalidRequest, std::string( why ) } ) );
}

bool Requests::answer( std::string_view request, std::string & answer ) {
   Json told;
   try {
      told = answerToAll( parsed( request ) );
   } catch ( Fault const & fault ) {
      told = errorAnswer( nullptr, fault );
   }
   answer = told.is_null() ? "" : lineOf( told );
   return !ends_;
}

Json Requests::answerToAll( Json const & json ) {
   Json told;
   auto const * const batch = json.if_array();
   if ( batch && !batch->empty() ) {
      if ( batch->size() > mostInBatch ) {
         throw Fault{ invalidRequest, "too many requests in a batch; allowed: " + std::to_string( mostInBatch ) };
      }
      JsonArray answers;
      for ( auto const & one : *batch ) {
         if ( auto answerToOne = answerTo( one ); !answerToOne.is_null() ) {
            answers.push_back( std::move( answerToOne ) );
         }
      }
      if ( !answers.empty() ) {
         told = std::move( answers );
      }
   } else {
      told = answerTo( json );
   }
   return told;
}

// Null for a notification, which has no answer.
Json Requests::answerTo( Json const & request ) {
   auto const member = [ & ]( char const * name ) {
      auto const * const found = memberOf( request, name );
      return found ? *found : Json();
   };
   bool const isNotification = !memberOf( request, "id" );
   auto id = member( "id" );
   bool const isId = !id.is_structured() && !id.is_bool();
   if ( !isId ) {
      id = nullptr;
   }
   auto const method = member( "method" );
   auto const params = member( "params" );
   try {
      if ( !isId || member( "jsonrpc" ) != "2.0" || !method.is_string() ) {
         throw Fault{ invalidRequest, "no request of JSON-RPC 2.0; allowed: an object with jsonrpc, method, and id" };
      }
      if ( !params.is_null() && !params.is_object() ) {
         throw Fault{ invalidParams, "parameters go by name" };
      }
      auto result = resultOf( method.get_string(), params );
      return isNotification ? Json() : Json{ { "jsonrpc", "2.0" }, { "result", std::move( result ) }, { "id", id } };
   } catch ( Fault const & fault ) {
      return isNotification && fault.code != invalidRequest ? Json() : errorAnswer( id, fault );
   } catch ( UnusableInput const & fault ) {
      return isNotification ? Json() : errorAnswer( id, { unusable, fault.what() } );  // of the store
   }
}

JsonObject Requests::resultOf( std::string_view methodName, Json const & params ) {
   auto const & method = methodOf( methodName );
   std::map< std::string, std::string > given;
   std::string format = "json";
   for ( auto const & [ name, value ] : params.is_null() ? JsonObject() : params.get_object() ) {
      std::string_view const param = name;
      if ( param == "format" ) {
         format = textOf( param, value );
      } else if ( std::ranges::find( method.params, param ) != method.params.end() ) {
         given[ std::string( param ) ] = textOf( param, value );
      } else {
         auto const allowed = listOf( method.params );
         throw Fault{ invalidParams, "no such parameter: " + std::string( param.substr( 0, 60 ) ) +
                                        "; allowed: format" + ( allowed.empty() ? "" : ", " + allowed ) };
      }
   }
   if ( format != "json" && format != "text" ) {
      throw Fault{ invalidParams, "format: " + format.substr( 0, 60 ) + "; allowed: json, text" };
   }
   std::ostringstream text;
   Report report( text, format == "json" );
   Call call{ .host = host_,
              .read = read_,
              .follower = follower_,
              .params = std::move( given ),
              .report = report,
              .ends = ends_ };
   bool const isCertain = method.run( call );
   auto result = report.takeJson();
   if ( format == "text" ) {
      result[ "text" ] = std::move( text ).str();
   }
   result[ "status" ] = isCertain && host_.isComplete() ? 0 : 1;
   return result;
}

}  // namespace Agent
