// What must hold of a switch after each of its steps, and at rest.
#include "FreshProgrammer.h"
#include "World.h"

#include <algorithm>
#include <utility>

namespace Model {

using PfeHelper::NatHwResult;

// The base programmer drops stale results when it is told of rest; nobody watches that here.
void World::check() {
   if ( surroundings_.chip->wrongCalls != 0 ) {
      fault( "the chip was given at once what must come one after the other" );
   }
   auto watching = std::exchange( whenResultChanges, {} );
   if ( surroundings_.chip->talkative ) {
      catchUp();
      faults_.clear();
      if ( running_->tables.hardware->outstanding() == 0 ) {
         running_->sm->atRest();
         checkStatus( Snapshot( running_->tables ) );
      }
   } else {
      checkEverything();
   }
   whenResultChanges = std::move( watching );
}

void World::checkEverything() {
   auto const seen = catchUp();
   checkHandOvers();
   tables_.check( seen, *running_->sm->natIdManager(), faults_ );
   if ( running_->tables.hardware->outstanding() == 0 ) {
      running_->sm->atRest();
      tables_.checkAtRest( seen, faults_ );
      checkStatus( seen );
      checkPackets( seen );
   }
   for ( auto const & [ key, outcome ] : Support::outcomes( *running_->status ) ) {
      expect( outcome.result == NatHwResult::programmed || outcome.result == NatHwResult::failed ||
                 outcome.result == NatHwResult::rejectedMulticast,
              "no such result", key );
   }
}

Snapshot World::catchUp() {
   Snapshot seen( running_->tables );
   tables_.catchUp( seen );
   auto const gone = std::exchange( surroundings_.mcast->cleaned, {} );
   std::set< IngressKey > present;
   for ( auto const & [ key, row ] : seen.matches ) {
      if ( isMulticast( key ) ) {
         present.insert( key );
      }
   }
   std::set< IngressKey > const cleaned( gone.begin(), gone.end() );
   std::erase_if( mcastRows_, [ & ]( IngressKey const & key ) { return present.contains( key ); } );
   if ( cleaned != mcastRows_ || cleaned.size() != gone.size() ) {
      fault( "the multicast hook was not told of exactly the rows that left the hardware" );
   }
   mcastRows_ = std::move( present );
   return seen;
}

// Whatever is configured is handed over as it is configured, or refused.
void World::checkHandOvers() {
   auto remembered = handedOver_;
   for ( auto const & [ rule, byPool ] : refused_ ) {
      remembered.insert_or_assign( keyOf( rule ), rule );
   }
   if ( remembered != configured() || now_.undoing || now_.inFlight ) {
      fault( "what is handed over is not what is configured" );
   }
   if ( running_->sm->refusedCount() != refused_.size() ) {
      fault( "wrong number of refused rules" );
   }
}

void World::checkStatus( Snapshot const & seen ) {
   std::map< AnyKey, Support::Outcome > expected;
   for ( auto const & [ rule, byPool ] : refused_ ) {
      expected.insert( { keyOf( rule ), { NatHwResult::failed, rule } } );
   }
   for ( auto const & key : programmed_ ) {
      auto const & rule = handedOver_.at( key );
      if ( isRejected( rule ) ) {
         expected.insert( { key, { NatHwResult::rejectedMulticast, rule } } );
      } else if ( auto const directions = directionsOf( rule ); !directions.empty() ) {
         bool const settled = std::ranges::all_of( directions, [ & ]( Direction const & direction ) {
            auto const row = seen.matches.find( direction.key );
            return row != seen.matches.end() && row->second.visible && row->second.state == Asic::EntryState::settled;
         } );
         expected.insert( { key, { settled ? NatHwResult::programmed : NatHwResult::failed, rule } } );
      }
   }
   auto const found = Support::outcomes( *running_->status );
   for ( auto const & [ key, outcome ] : found ) {
      // A rule that took over another's row, was never written, and whose removal the hardware refused: from then on
      // the row reports to the other. Its result goes with the replay that ends the clean-up.
      bool const mayLinger = cleaningUp_ && !expected.contains( key ) && outcome.result == NatHwResult::failed &&
                             configured().contains( key );
      auto const known = expected.find( key );
      expect( mayLinger || ( known != expected.end() && known->second == outcome ), "wrong status", key );
   }
   for ( auto const & [ key, outcome ] : expected ) {
      expect( found.contains( key ), "no status", key );
   }
   if ( !running_->sm->checkStaleStatus().empty() ) {
      fault( "a stale status at rest" );
   }
}

// What goes out is translated and comes back, wherever the rule's rows are what it wants them to be.
void World::checkPackets( Snapshot const & seen ) {
   for ( auto const & key : programmed_ ) {
      auto const & rule = handedOver_.at( key );
      auto const directions = isRejected( rule ) ? std::vector< Direction >() : directionsOf( rule );
      auto const all = [ & ]( bool ofTwins ) {
         return !directions.empty() && std::ranges::all_of( directions, [ & ]( Direction const & direction ) {
            bool const hasTwin = direction.twin == Direction::Twin::held;
            return tables_.isAsWanted( direction, ofTwins && hasTwin, seen );
         } );
      };
      if ( all( false ) ) {
         checkExchange( rule, Agent::Packet::Part::whole );
         checkExchange( rule, Agent::Packet::Part::firstFragment );
      }
      if ( config().fragmentationEnabled() && all( true ) ) {
         checkExchange( rule, Agent::Packet::Part::laterFragment );
      }
   }
}

void World::checkExchange( AnyRule const & rule, Agent::Packet::Part part ) {
   auto const exchange = exchangeOf( rule, chip_ );
   auto const key = keyOf( rule );
   auto const asPart = [ & ]( Agent::Packet packet ) {
      packet.part = part;
      if ( part == Agent::Packet::Part::laterFragment ) {
         packet.source.port = packet.destination.port = 0;
      }
      return packet;
   };
   // What leaves of a packet that meets a row of the rule. It may meet one of another rule that matches it better or as
   // well; then nothing.
   auto const walked = [ & ]( Agent::Packet const & packet ) {
      auto const passage = walk( running_->tables.all, packet, exchange.interfaces );
      expect( !passage.matches.empty(), "a packet meets no row", key );
      std::vector< Agent::Packet > leaving;
      if ( passage.matches.size() == 1 &&
           std::ranges::any_of( directionsOf( rule ), [ & ]( Direction const & direction ) {
              return passage.matches[ 0 ].key == direction.key || passage.matches[ 0 ].key == direction.twinKey;
           } ) ) {
         std::ranges::transform( passage.copies, std::back_inserter( leaving ), &Agent::Copy::packet );
         expect( !leaving.empty(), "a packet is lost", key );
      }
      return leaving;
   };
   auto const sent = asPart( exchange.sent );
   auto const out = walked( sent );
   if ( out.empty() ) {
      return;
   }
   ++exchangesChecked[ rule.index() ];
   expect( std::ranges::equal( out, exchange.received, {}, {}, asPart ), "a packet is not translated", key );
   if ( isMulticast( rule ) || out.size() != 1 ) {
      return;
   }
   auto const back = walked( replyTo( out[ 0 ] ) );
   if ( back.empty() ) {
      return;
   }
   auto const & [ destination, source ] = std::tie( back[ 0 ].destination, back[ 0 ].source );
   bool const samePorts = destination.port == sent.source.port && source.port == sent.destination.port;
   expect( destination.ip == sent.source.ip && source.ip == sent.destination.ip &&
              ( samePorts || !exchange.portsComeBack ),
           "an answer does not come back", key );
}

bool World::isAllProgrammed() const {
   return std::ranges::none_of( refused_, &Refused::byPool ) &&
          programmed_.size() + refused_.size() == configured().size() && running_->tables.failedRowCount() == 0;
}

void World::checkAgainstFresh() {
   std::ranges::copy( differencesFromFresh( *running_ ), std::back_inserter( faults_ ) );
}

}  // namespace Model
