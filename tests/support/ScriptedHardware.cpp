#include <tests/support/ScriptedHardware.h>

#include <sstream>
#include <utility>

namespace Support {

using Asic::EntryState;

void ScriptedHardware::orderSeedIs( std::optional< U32 > seed ) {
   order_ = seed ? std::optional( std::mt19937( *seed ) ) : std::nullopt;
}

std::vector< std::string > ScriptedHardware::takeLog() { return std::exchange( log_, {} ); }

std::string ScriptedHardware::nameOf( Asic::SwTableBase const & table, Asic::EntryHandle const & row ) {
   std::ostringstream out;
   out << table.name() << ' ';
   row.describe( out );
   return std::move( out ).str();
}

bool ScriptedHardware::isReady( Request const & request ) {
   return ( delay == 0 || request.turnsWaited > delay ) &&
          ( waiting.empty() || !waiting.contains( nameOf( request.table, request.row ) ) );
}

EntryState ScriptedHardware::outcomeOfWrite( Request const & request ) {
   auto const name = nameOf( request.table, request.row );
   bool const isNth = failEvery != 0 && ++writes_ % failEvery == 0;
   if ( isNth || failing.contains( name ) ) {
      log_.push_back( "write " + name + " failed" );
      return EntryState::failed;
   }
   if ( request.addsRow && request.table.hardwareRowCount() >= capacity ) {
      log_.push_back( "write " + name + " full" );
      return EntryState::full;
   }
   log_.push_back( "write " + name );
   return EntryState::settled;
}

bool ScriptedHardware::refusesRemoval( Request const & request ) {
   auto const name = nameOf( request.table, request.row );
   bool const refuses = refuseAll || refusing.contains( name );
   log_.push_back( "remove " + name + ( refuses ? " refused" : "" ) );
   return refuses;
}

std::size_t ScriptedHardware::choose( std::size_t count ) {
   return std::uniform_int_distribution< std::size_t >( 0, count - 1 )( *order_ );
}

}  // namespace Support
