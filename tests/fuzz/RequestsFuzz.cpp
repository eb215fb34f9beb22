// Messages of any bytes to a serving agent, one per line: each has an answer of the protocol's form, or none where the
// protocol wants none, and the agent serves on.
#include "agent/serving/Requests.h"

#include "agent/basics/UnusableInput.h"
#include "agent/chips/SimulatedHardware.h"
#include "agent/configuration/Configuration.h"
#include "agent/host/Host.h"
#include "agent/serving/Server.h"

#include <Vexa/Assert.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>

namespace {

using Json = nlohmann::json;

// A client may name one of two configurations: "" and "other".
constexpr std::string_view texts[] = {
   R"({ "ietf-nat:nat": { "instances": { "instance": [ { "id": 1, "mapping-table": { "mapping-entry": [
      { "index": 1, "type": "static", "pfe-nat:interface": "ethernet1",
        "internal-src-address": "10.0.0.1/32", "external-src-address": "192.0.2.1/32" } ] } } ] } } })",
   R"({ "ietf-nat:nat": { "instances": { "instance": [ { "id": 1, "pfe-nat:fragmentation": true,
      "mapping-table": { "mapping-entry": [
      { "index": 1, "type": "static", "pfe-nat:interface": "ethernet1",
        "internal-src-address": "10.0.0.1/32", "external-src-address": "192.0.2.9/32" },
      { "index": 2, "type": "static", "pfe-nat:interface": "ethernet1", "transport-protocol": 6,
        "internal-dst-address": "10.0.0.2/32", "internal-dst-port": { "start-port-number": 8443 },
        "external-dst-address": "192.0.2.2/32", "external-dst-port": { "start-port-number": 443 } } ] } } ] } } })" };

Agent::Configuration configurationOf( std::string const & file ) {
   if ( !file.empty() && file != "other" ) {
      throw Agent::UnusableInput( file + ": cannot be read" );
   }
   return Agent::configurationIn( "input", texts[ file == "other" ] );
}

std::unique_ptr< Agent::Host > programmed() {
   auto host = std::make_unique< Agent::Host >(
      configurationOf( "" ), std::make_shared< Agent::SimulatedHardware >( Agent::SimulatedHardware::Settings{} ),
      nullptr );
   host->program();
   return host;
}

void requireOneAnswer( Json const & answer ) {
   bool const isResult = answer.contains( "result" );
   VEXA_ASSERT( answer.is_object() && answer.size() == 3 && answer.at( "jsonrpc" ) == "2.0" );
   VEXA_ASSERT( answer.contains( "id" ) && !answer.at( "id" ).is_structured() );
   VEXA_ASSERT( isResult != answer.contains( "error" ) );
   VEXA_ASSERT( isResult ? answer.at( "result" ).at( "status" ) <= 1
                         : !answer.at( "error" ).at( "message" ).get< std::string >().empty() );
}

void requireAnswer( std::string const & text ) {
   // Most messages are answered like many before them, and reading the answers takes longer than making them.
   constexpr std::size_t mostKnown = 1 << 20;
   static std::unordered_set< std::size_t > known;
   if ( known.size() == mostKnown ) {
      known.clear();
   }
   if ( text.empty() || !known.insert( std::hash< std::string >()( text ) ).second ) {
      return;
   }
   VEXA_ASSERT( text.find( '\n' ) == text.npos );
   auto const answer = Json::parse( text );
   if ( !answer.is_array() ) {
      return requireOneAnswer( answer );
   }
   VEXA_ASSERT( !answer.empty() );
   std::ranges::for_each( answer, &requireOneAnswer );
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput( std::uint8_t const * data, std::size_t size ) {
   // Made again when an input has changed it, so that every input meets the same.
   static std::unique_ptr< Agent::Host > host;
   static U64 turns = 0;
   if ( !host || host->turns() != turns ) {
      host = programmed();
      turns = host->turns();
   }
   Agent::Requests requests( *host, &configurationOf );
   std::string_view rest( reinterpret_cast< char const * >( data ), size );
   for ( bool serves = true; serves && !rest.empty(); ) {
      auto const line = rest.substr( 0, rest.find( '\n' ) );
      rest.remove_prefix( std::min( line.size() + 1, rest.size() ) );
      if ( line.size() >= Agent::longestRequest ) {
         return 0;
      }
      auto const answer = requests.answer( line );
      std::string text;
      while ( answer->next( text ) ) {
      }
      VEXA_ASSERT( text.empty() || text.ends_with( '\n' ) );
      requireAnswer( text.substr( 0, text.size() - !text.empty() ) );
      serves = !answer->endsServing();
   }
   return 0;
}
