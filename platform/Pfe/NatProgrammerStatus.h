// The programmer's output: what became of each rule. A rule without an entry has no result yet.
#pragma once

#include <Orla/Entity.h>
#include <Orla/Ptr.h>
#include <Pfe/NatProgrammerEntries.h>
#include <Pfe/NatProgrammerKeys.h>
#include <PfeHelper/NatHwResult.h>
#include <Vexa/HashMap.h>

namespace [[gnu::visibility( "default" )]] Pfe {

// A result, and the entry that it was written for.
template< class ProgrammerEntry > struct NatProgrammerStatusEntry {
   PfeHelper::NatHwResult result = PfeHelper::NatHwResult::pending;
   Orla::Ptr< ProgrammerEntry const > entry;
};
using NatProgrammerStaticStatusEntry = NatProgrammerStatusEntry< NatProgrammerStaticEntry >;
using NatProgrammerTwiceStatusEntry = NatProgrammerStatusEntry< NatProgrammerTwiceEntry >;
using NatProgrammerDynamicStatusEntry = NatProgrammerStatusEntry< NatProgrammerDynamicEntry >;

class NatProgrammerStatus final : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< NatProgrammerStatus >;
   using StaticStatus = Vexa::HashMap< NatProgrammerStaticKey, NatProgrammerStaticStatusEntry, 0x299F31D0 >;
   using TwiceStatus = Vexa::HashMap< NatProgrammerTwiceKey, NatProgrammerTwiceStatusEntry, 0x082EFA98 >;
   using DynamicStatus = Vexa::HashMap< NatProgrammerDynamicKey, NatProgrammerDynamicStatusEntry, 0xEC4E6C89 >;

   // Per kind: the collection; the entry under a key, null when there is none; and its changes.
   StaticStatus const & staticStatus() const { return staticStatus_; }
   NatProgrammerStaticStatusEntry const * staticStatus( NatProgrammerStaticKey const & key ) const {
      return staticStatus_.find( key );
   }
   bool staticStatusHas( NatProgrammerStaticKey const & key ) const { return staticStatus_.has( key ); }
   void staticStatusIs( NatProgrammerStaticKey const & key, NatProgrammerStaticStatusEntry entry ) {
      staticStatus_.is( key, std::move( entry ) );
   }
   void staticStatusDel( NatProgrammerStaticKey const & key ) { staticStatus_.del( key ); }
   void staticStatusDelAll() { staticStatus_.delAll(); }

   TwiceStatus const & twiceStatus() const { return twiceStatus_; }
   NatProgrammerTwiceStatusEntry const * twiceStatus( NatProgrammerTwiceKey const & key ) const {
      return twiceStatus_.find( key );
   }
   bool twiceStatusHas( NatProgrammerTwiceKey const & key ) const { return twiceStatus_.has( key ); }
   void twiceStatusIs( NatProgrammerTwiceKey const & key, NatProgrammerTwiceStatusEntry entry ) {
      twiceStatus_.is( key, std::move( entry ) );
   }
   void twiceStatusDel( NatProgrammerTwiceKey const & key ) { twiceStatus_.del( key ); }
   void twiceStatusDelAll() { twiceStatus_.delAll(); }

   DynamicStatus const & dynamicStatus() const { return dynamicStatus_; }
   NatProgrammerDynamicStatusEntry const * dynamicStatus( NatProgrammerDynamicKey const & key ) const {
      return dynamicStatus_.find( key );
   }
   bool dynamicStatusHas( NatProgrammerDynamicKey const & key ) const { return dynamicStatus_.has( key ); }
   void dynamicStatusIs( NatProgrammerDynamicKey const & key, NatProgrammerDynamicStatusEntry entry ) {
      dynamicStatus_.is( key, std::move( entry ) );
   }
   void dynamicStatusDel( NatProgrammerDynamicKey const & key ) { dynamicStatus_.del( key ); }
   void dynamicStatusDelAll() { dynamicStatus_.delAll(); }

   Vexa::TypeData const & typeData() const override;

 private:
   StaticStatus staticStatus_;
   TwiceStatus twiceStatus_;
   DynamicStatus dynamicStatus_;
};

}  // namespace Pfe
