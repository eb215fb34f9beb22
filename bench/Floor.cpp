#include "Floor.h"

namespace Bench {

namespace {

using Ip::Nat::NatTarget;
using Pfe::IngStaticNatTable;

U32 nextHopIdOf( Pfe::NatProgrammerStaticEntry const & entry ) {
   return entry.nextHop() ? static_cast< Pfe::NatNextHopId const * >( entry.nextHop().ptr() )->id() : 0;
}

}  // namespace

Floor::Rewrites & Floor::rewritesOf( NatTarget side ) {
   return side == NatTarget::source ? sourceRewrites_ : destinationRewrites_;
}

void Floor::directionIs( StaticRule const & rule, IngStaticNatTable::Key const & ingKey, Pfe::NatId natId ) {
   auto const & entry = *rule.entry;
   auto const & translated = ingKey.ipAndPortNew;
   Pfe::EgrNatUcRewriteKey const rewriteKey{ natId, entry.intfQualifier() };
   rewritesOf( ingKey.target )
      .insert_or_assign( rewriteKey, ingKey.target == NatTarget::source
                                        ? Rewrite{ translated.ip, {}, translated.port, 0 }
                                        : Rewrite{ {}, translated.ip, 0, translated.port } );
   ingress_.insert_or_assign( ingKey, IngressRow{ rewriteKey, nextHopIdOf( entry ), 0 } );
   completions_.insert_or_assign( ingKey, Completion{ rule.key, &entry } );
}

void Floor::add( StaticRule const & rule ) {
   for ( auto const & ingKey : ingKeysOf( rule ) ) {
      auto const matchKey = matchKeyOf( ingKey );
      Pfe::NatId const natId( ++lastNatId_ );
      natIds_.insert_or_assign( matchKey, natId );
      holders_.insert_or_assign( matchKey, ingKey );
      directionIs( rule, ingKey, natId );
   }
   status_.insert_or_assign( rule.key, Status{ PfeHelper::NatHwResult::programmed, rule.entry.ptr() } );
}

void Floor::update( StaticRule const & rule ) {
   for ( auto const & ingKey : ingKeysOf( rule ) ) {
      directionIs( rule, ingKey, natIds_.find( matchKeyOf( ingKey ) )->second );
   }
   status_.insert_or_assign( rule.key, Status{ PfeHelper::NatHwResult::programmed, rule.entry.ptr() } );
}

void Floor::del( StaticRule const & rule ) {
   for ( auto const & ingKey : ingKeysOf( rule ) ) {
      auto const matchKey = matchKeyOf( ingKey );
      auto const natId = natIds_.find( matchKey );
      rewritesOf( ingKey.target ).erase( { natId->second, rule.entry->intfQualifier() } );
      natIds_.erase( natId );
      holders_.erase( matchKey );
      ingress_.erase( ingKey );
      completions_.erase( ingKey );
   }
   status_.erase( rule.key );
}

void Floor::add( StaticRules const & rules ) {
   for ( auto const & rule : rules ) {
      add( rule );
   }
}

void Floor::update( StaticRules const & rules ) {
   for ( auto const & rule : rules ) {
      update( rule );
   }
}

void Floor::del( StaticRules const & rules ) {
   for ( auto const & rule : rules ) {
      del( rule );
   }
}

std::size_t Floor::rows() const {
   return ingress_.size() + sourceRewrites_.size() + destinationRewrites_.size() + natIds_.size() + holders_.size() +
          status_.size() + completions_.size();
}

}  // namespace Bench
