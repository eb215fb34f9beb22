// What does it cost the agent to go over to a configuration in which one connection of many has another address
// outside? read_ratio compares it with reading that configuration alone. rows are those that the hardware was sent, and
// the case fails unless they are as many as that one connection takes in an agent of its own.
#include "Measure.h"
#include "Questions.h"
#include "System.h"

#include "agent/configuration/Configuration.h"
#include "agent/host/Host.h"

#include <nlohmann/json.hpp>

#include <array>
#include <fstream>

namespace Bench {

namespace {

class CountingHardware final : public Asic::Chip {
 public:
   std::size_t writes = 0;

   void carryOut( std::span< Asic::ChipRequest const > requests, std::span< Asic::EntryState > outcomes ) override {
      writes += requests.front().version != nullptr;
      outcomes.front() = Asic::EntryState::settled;
   }
};

nlohmann::json & entriesOf( nlohmann::json & document ) {
   return document[ "/ietf-nat:nat/instances/instance/0/mapping-table/mapping-entry"_json_pointer ];
}

// The file, and the same with another address in one entry; and that entry alone.
struct Texts {
   explicit Texts( std::string const & file ) {
      auto document = nlohmann::json::parse( std::ifstream( file ) );
      auto & entries = entriesOf( document );
      versions[ 0 ] = document.dump();
      auto & changed = entries[ entries.size() / 2 ];
      changed[ changed.contains( "external-src-address" ) ? "external-src-address" : "external-dst-address" ] =
         "203.0.113.250/32";
      versions[ 1 ] = document.dump();
      entries = nlohmann::json::array( { nlohmann::json( changed ) } );
      alone = document.dump();
   }

   std::array< std::string, 2 > versions;
   std::string alone;
};

Agent::Configuration read( std::string const & text ) { return Agent::configurationIn( "configuration", text ); }

std::size_t rowsOf( std::string const & text ) {
   auto const hardware = std::make_shared< CountingHardware >();
   Agent::Host host( read( text ), hardware, nullptr );
   host.program();
   return hardware->writes;
}

Figures reloadFigures( std::string const & file, std::size_t connections ) {
   Texts const texts( file );
   auto const rows = rowsOf( texts.alone );
   auto const hardware = std::make_shared< CountingHardware >();
   Agent::Host host( read( texts.versions[ 0 ] ), hardware, nullptr );
   host.program();

   std::size_t reloads = 0;
   auto const reload = [ & ] {
      hardware->writes = 0;
      Stopwatch const watch;
      host.reload( read( texts.versions[ ++reloads % 2 ] ) );
      auto const ns = watch.ns();
      require( host.isComplete(), "everything is programmed after a reload" );
      require( hardware->writes == rows, "a reload writes the rows of the changed connection" );
      return ns;
   };
   auto const readAlone = [ & ] {
      Stopwatch const watch;
      auto const configuration = read( texts.versions[ reloads % 2 ] );
      return watch.ns();
   };
   auto figures = pairedRounds( connections, reload, readAlone, "read" );
   figures[ "rows" ] = static_cast< double >( rows );
   return figures;
}

}  // namespace

void registerReload( std::string const & file, std::size_t connections ) {
   caseIs( "reload", connections, [ = ] { return reloadFigures( file, connections ); } );
}

}  // namespace Bench
