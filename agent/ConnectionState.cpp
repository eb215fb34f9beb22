#include "agent/ConnectionState.h"

#include "agent/McastReplications.h"
#include "agent/Text.h"

#include <algorithm>

namespace Agent {

namespace {

using PfeHelper::NatHwResult;
using Row = Pfe::IngStaticNatTable::Key;

void appendId( std::string & ids, Row const & row, Host const & host ) {
   Pfe::StaticNatMatchKey const matchKey{ .natIntf = row.natIntf,
                                          .vrfId = row.vrfId,
                                          .ipAndPortOld = row.ipAndPortOld,
                                          .target = row.target,
                                          .protocol = row.protocol };
   if ( auto const * const id = host.natIdInfo().matchKeyToNatId().find( matchKey ) ) {
      ids += ids.empty() ? "" : " ";
      append( ids, U64{ id->value() } );
   }
}

// Why the row is not in the hardware; empty when it is. A row that was never written is one of a rule that was refused,
// which happens to static rules for want of a NAT id only.
std::string faultOf( Row const & row, Host const & host ) {
   auto const * const handle = host.tables().ingStatic->entryHandle( row );
   if ( !handle ) {
      return "no NAT id was free";
   }
   auto const state = handle->state();
   return state == Asic::EntryState::settled
             ? ""
             : std::string( targetText( row.target ) ).append( " row " ).append( stateText( state ) );
}

}  // namespace

ConnectionState stateOf( StaticConnection const & connection, Host const & host ) {
   auto const * const status = host.status().staticStatus().find( connection.key );
   auto const result = status ? status->result : NatHwResult::pending;
   ConnectionState state{ .programmed = result == NatHwResult::programmed,
                          .result = status ? resultText( result ) : "no result",
                          .reason =
                             result == NatHwResult::rejectedMulticast ? std::string( whyInvalid( connection ) ) : "",
                          .natIds = {},
                          .fragmentNatIds = {} };
   auto const target = connection.entry->connection().target;
   for ( auto const side : Ip::Nat::getStaticConnectionTargets( target, isMulticast( connection ) ) ) {
      auto row = ingressRowOf( connection, side );
      appendId( state.natIds, row, host );
      if ( !state.programmed && result != NatHwResult::rejectedMulticast ) {
         auto const fault = faultOf( row, host );
         if ( fault != state.reason ) {
            state.reason += ( fault.empty() || state.reason.empty() ? "" : ", " ) + fault;
         }
      }
      if ( row.ipAndPortOld.port != 0 && host.configuration().rules->fragmentationEnabled() ) {
         row.ipAndPortOld.port = 0;
         appendId( state.fragmentNatIds, row, host );
      }
   }
   return state;
}

StaticConnection const * connectionOf( Row const & row, Configuration const & configuration ) {
   auto const found = std::ranges::find_if( configuration.connections, [ & ]( StaticConnection const & connection ) {
      return ingressRowOf( connection, row.target ) == row;
   } );
   return found == configuration.connections.end() ? nullptr : &*found;
}

}  // namespace Agent
