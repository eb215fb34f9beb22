/// @file
/// Hands out NAT ids, and knows which ingress keys hold each of them.
#pragma once

#include "PfeNat/PfeNatSwTableProgrammerSm/IngNatTableKey.h"

#include <Brix/HBitmap.h>
#include <Orla/Entity.h>
#include <Orla/Ptr.h>
#include <Pfe/NatId.h>
#include <Pfe/NatIdInfo.h>
#include <Pfe/NatMatchKey.h>
#include <Vexa/HashMap.h>

namespace [[gnu::visibility( "default" )]] Pfe {

/// One id is shared by all ingress keys with the same match key. What the id is worth is the set of these keys; it goes
/// back to the pool with the last of them. The ids themselves are kept in NatIdInfo, which survives a restart: until
/// the replay has claimed them they are cached, that is reserved but held by no ingress key.
///
/// Invariant: a match key has an id in NatIdInfo exactly while the id's bit is set, and a set of ingress keys that is
/// never empty exactly while it is not cached.
class NatIdManager final : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< NatIdManager >;
   using MatchKeyToIngKeySet = Vexa::HashMap< NatMatchKey, IngKeySet, 0xA955D84F >;  ///< The holders of each id.

   /// Reserves every persisted id. A null `natIdInfo` knows no id, and stops the agent at the first allocation.
   explicit NatIdManager( NatIdInfo::Ptr const & natIdInfo );

   /// Where the ids are kept; the agent's.
   NatIdInfo::Ptr const & natIdInfo() const { return natIdInfo_; }

   /// The ingress keys that hold the id of `matchKey`; a copy, empty for an unknown key.
   IngKeySet matchKeyToIngKeySet( NatMatchKey const & matchKey ) const {
      return matchKeyToIngKeySet_.valueOr( matchKey );
   }
   /// @{
   /// The holders of every id. What is put in or taken out here changes no id and no pool.
   MatchKeyToIngKeySet const & matchKeyToIngKeySet() const { return matchKeyToIngKeySet_; }
   bool matchKeyToIngKeySetHas( NatMatchKey const & matchKey ) const { return matchKeyToIngKeySet_.has( matchKey ); }
   void matchKeyToIngKeySetIs( NatMatchKey const & matchKey, IngKeySet const & ingKeySet ) {
      matchKeyToIngKeySet_.is( matchKey, ingKeySet );
   }
   void matchKeyToIngKeySetDel( NatMatchKey const & matchKey ) { matchKeyToIngKeySet_.del( matchKey ); }
   void matchKeyToIngKeySetDelAll() { matchKeyToIngKeySet_.delAll(); }
   /// @}

   /// @{
   /// The pool: a set bit is an id in use. Created anew only when one of the three values differs.
   Orla::Ptr< Brix::HBitmap > natIdBitmap() const { return natIdBitmap_; }
   Orla::Ptr< Brix::HBitmap > natIdBitmapIs( U64 firstBit, U32 lastBit, Brix::BitState initialBitState );
   void natIdBitmapDel() { natIdBitmap_ = nullptr; }
   /// @}

   /// Returns the NAT id that every ingress key with `matchKey` shares, allocating the lowest free one on first use.
   /// Allocating again for the same `ingKey` changes nothing; each id must be freed once per distinct ingress key.
   ///
   /// Throws Vexa::RangeException when no id is free; nothing has been changed then. Keeps no reference to its
   /// arguments. Activity thread only, like everything here.
   NatId allocateNatId( IngNatTableKey const & ingKey, NatMatchKey const & matchKey );

   /// The id of `matchKey`; 1, the default id, for a key that has none, so ask only for keys that were allocated.
   NatId getNatId( NatMatchKey const & matchKey ) const;

   /// `ingKey` gives up its hold on the id of `matchKey`. An unknown match key is traced and ignored; an id that is
   /// only cached stops the agent.
   void freeNatId( IngNatTableKey const & ingKey, NatMatchKey const & matchKey );

   /// Ends a replay: gives back every id that is still cached.
   void sweepAndCleanupNatIds();

   /// Builds the pool and reserves every persisted id. Run by the constructor.
   void handleInitialized();

   static Vexa::TypeData const & classType();
   Vexa::TypeData const & typeData() const override { return classType(); }

 private:
   // Null when the match key has no id, or there is no `natIdInfo`.
   NatId const * persistedId( NatMatchKey const & matchKey ) const;
   // In place; empty for an unknown key.
   IngKeySet const & holdersOf( NatMatchKey const & matchKey ) const;

   NatIdInfo::Ptr natIdInfo_;
   MatchKeyToIngKeySet matchKeyToIngKeySet_;
   Orla::Ptr< Brix::HBitmap > natIdBitmap_;
};

}  // namespace Pfe
