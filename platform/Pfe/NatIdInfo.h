// The NAT id of every match key: the one thing that survives a restart of the agent.
#pragma once

#include <Orla/Entity.h>
#include <Orla/Ptr.h>
#include <Pfe/NatId.h>
#include <Pfe/NatMatchKey.h>
#include <Vexa/HashMap.h>

#include <utility>

namespace [[gnu::visibility( "default" )]] Pfe {

// Owned by the agent, which fills it from its store before a programmer is initialised and watches it to write it back.
class NatIdInfo final : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< NatIdInfo >;
   using PtrConst = Orla::Ptr< NatIdInfo const >;
   using MatchKeyToNatId = Vexa::HashMap< NatMatchKey, NatId, 0x540EAFC5 >;

   MatchKeyToNatId const & matchKeyToNatId() const { return matchKeyToNatId_; }
   // Null when the key has none.
   NatId const * matchKeyToNatId( NatMatchKey const & matchKey ) const { return matchKeyToNatId_.find( matchKey ); }
   bool matchKeyToNatIdHas( NatMatchKey const & matchKey ) const { return matchKeyToNatId_.has( matchKey ); }
   void matchKeyToNatIdIs( NatMatchKey const & matchKey, NatId natId ) { matchKeyToNatId_.is( matchKey, natId ); }
   // The id under a key; when there is none yet, make() from now on.
   template< class Make > NatId matchKeyToNatIdFindOrInsert( NatMatchKey const & matchKey, Make && make ) {
      return matchKeyToNatId_.findOrInsert( matchKey, std::forward< Make >( make ) );
   }
   void matchKeyToNatIdDel( NatMatchKey const & matchKey ) { matchKeyToNatId_.del( matchKey ); }
   void matchKeyToNatIdDelAll() { matchKeyToNatId_.delAll(); }

   Vexa::TypeData const & typeData() const override;

 private:
   MatchKeyToNatId matchKeyToNatId_;
};

}  // namespace Pfe
