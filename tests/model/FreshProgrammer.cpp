#include "FreshProgrammer.h"

#include <algorithm>
#include <iterator>
#include <regex>

namespace Model {

namespace {

using Support::Lines;

// Rows and results, a line each, without the numbers of NAT ids.
Lines textOf( Support::Programmer const & programmer ) {
   static std::regex const ids( "natId=[0-9]+" );
   auto lines = programmer.tables.text();
   for ( auto & line : lines ) {
      line = std::regex_replace( line, ids, "natId" );
   }
   for ( auto const & [ key, outcome ] : Support::outcomes( *programmer.status ) ) {
      lines.push_back( Support::textOf( key ) + " has result " +
                       std::to_string( static_cast< int >( outcome.result ) ) );
   }
   lines.push_back( std::to_string( programmer.idsInUse() ) + " NAT ids" );
   std::ranges::sort( lines );
   return lines;
}

}  // namespace

Lines differencesFromFresh( Support::Programmer const & programmer ) {
   Support::Surroundings surroundings = programmer;
   surroundings.natIdInfo = Orla::make< Pfe::NatIdInfo >();
   surroundings.chip = std::make_shared< Support::ScriptedHardware >();
   Support::Programmer const fresh( std::move( surroundings ) );
   fresh->replay();
   if ( !fresh.settleToRest() ) {
      return { "a fresh programmer does not come to rest" };
   }
   auto const here = textOf( programmer ), there = textOf( fresh );
   Lines onlyHere, onlyThere, differences;
   std::ranges::set_difference( here, there, std::back_inserter( onlyHere ) );
   std::ranges::set_difference( there, here, std::back_inserter( onlyThere ) );
   for ( auto const & line : onlyHere ) {
      differences.push_back( "a fresh programmer has not: " + line );
   }
   for ( auto const & line : onlyThere ) {
      differences.push_back( "a fresh programmer has: " + line );
   }
   return differences;
}

}  // namespace Model
