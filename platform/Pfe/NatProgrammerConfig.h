// The programmer's input: every rule that the agent wants programmed, and the settings that all rules share.
#pragma once

#include <Orla/Entity.h>
#include <Orla/Ptr.h>
#include <Pfe/NatProgrammerEntries.h>
#include <Pfe/NatProgrammerKeys.h>
#include <Vexa/HashMap.h>

namespace [[gnu::visibility( "default" )]] Pfe {

class NatProgrammerConfig final : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< NatProgrammerConfig >;
   using PtrConst = Orla::Ptr< NatProgrammerConfig const >;
   using StaticEntries = Vexa::HashMap< NatProgrammerStaticKey, NatProgrammerStaticEntry::PtrConst, 0x243F6A88 >;
   using TwiceEntries = Vexa::HashMap< NatProgrammerTwiceKey, NatProgrammerTwiceEntry::PtrConst, 0x85A308D3 >;
   using DynamicEntries = Vexa::HashMap< NatProgrammerDynamicKey, NatProgrammerDynamicEntry::PtrConst, 0x13198A2E >;
   using TrapEntries = Vexa::HashMap< NatProgrammerTrapKey, NatProgrammerTrapEntry::PtrConst, 0x03707344 >;

   // Whether later fragments are matched by entries of their own. A change takes a replay.
   bool fragmentationEnabled() const { return fragmentationEnabled_; }
   void fragmentationEnabledIs( bool enabled ) { fragmentationEnabled_ = enabled; }

   // Whether twice and dynamic rules match whatever the VRF. Changed only while nothing is programmed.
   bool vrfLess() const { return vrfLess_; }
   void vrfLessIs( bool vrfLess ) { vrfLess_ = vrfLess; }

   StaticEntries const & staticEntry() const { return staticEntry_; }
   NatProgrammerStaticEntry::PtrConst staticEntry( NatProgrammerStaticKey const & key ) const {
      return staticEntry_.valueOr( key );
   }
   bool staticEntryHas( NatProgrammerStaticKey const & key ) const { return staticEntry_.has( key ); }
   void staticEntryIs( NatProgrammerStaticKey const & key, NatProgrammerStaticEntry::PtrConst entry ) {
      staticEntry_.is( key, std::move( entry ) );
   }
   void staticEntryDel( NatProgrammerStaticKey const & key ) { staticEntry_.del( key ); }
   void staticEntryDelAll() { staticEntry_.delAll(); }

   TwiceEntries const & twiceEntry() const { return twiceEntry_; }
   NatProgrammerTwiceEntry::PtrConst twiceEntry( NatProgrammerTwiceKey const & key ) const {
      return twiceEntry_.valueOr( key );
   }
   bool twiceEntryHas( NatProgrammerTwiceKey const & key ) const { return twiceEntry_.has( key ); }
   void twiceEntryIs( NatProgrammerTwiceKey const & key, NatProgrammerTwiceEntry::PtrConst entry ) {
      twiceEntry_.is( key, std::move( entry ) );
   }
   void twiceEntryDel( NatProgrammerTwiceKey const & key ) { twiceEntry_.del( key ); }
   void twiceEntryDelAll() { twiceEntry_.delAll(); }

   DynamicEntries const & dynamicEntry() const { return dynamicEntry_; }
   NatProgrammerDynamicEntry::PtrConst dynamicEntry( NatProgrammerDynamicKey const & key ) const {
      return dynamicEntry_.valueOr( key );
   }
   bool dynamicEntryHas( NatProgrammerDynamicKey const & key ) const { return dynamicEntry_.has( key ); }
   void dynamicEntryIs( NatProgrammerDynamicKey const & key, NatProgrammerDynamicEntry::PtrConst entry ) {
      dynamicEntry_.is( key, std::move( entry ) );
   }
   void dynamicEntryDel( NatProgrammerDynamicKey const & key ) { dynamicEntry_.del( key ); }
   void dynamicEntryDelAll() { dynamicEntry_.delAll(); }

   TrapEntries const & trapEntry() const { return trapEntry_; }
   NatProgrammerTrapEntry::PtrConst trapEntry( NatProgrammerTrapKey const & key ) const {
      return trapEntry_.valueOr( key );
   }
   bool trapEntryHas( NatProgrammerTrapKey const & key ) const { return trapEntry_.has( key ); }
   void trapEntryIs( NatProgrammerTrapKey const & key, NatProgrammerTrapEntry::PtrConst entry ) {
      trapEntry_.is( key, std::move( entry ) );
   }
   void trapEntryDel( NatProgrammerTrapKey const & key ) { trapEntry_.del( key ); }
   void trapEntryDelAll() { trapEntry_.delAll(); }

   Vexa::TypeData const & typeData() const override;

 private:
   bool fragmentationEnabled_ = false;
   bool vrfLess_ = false;
   StaticEntries staticEntry_;
   TwiceEntries twiceEntry_;
   DynamicEntries dynamicEntry_;
   TrapEntries trapEntry_;
};

// Which NAT profile each VLAN shall use: the source of the programmer's profile operations.
class NatVlanProfileConfig final : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< NatVlanProfileConfig >;
   using PtrConst = Orla::Ptr< NatVlanProfileConfig const >;
   using Profiles = Vexa::HashMap< U16, U16, 0xA4093822 >;

   Profiles const & vlanProfile() const { return vlanProfile_; }
   void vlanProfileIs( U16 vlanId, U16 profileId ) { vlanProfile_.is( vlanId, profileId ); }
   void vlanProfileDel( U16 vlanId ) { vlanProfile_.del( vlanId ); }

   Vexa::TypeData const & typeData() const override;

 private:
   Profiles vlanProfile_;
};

}  // namespace Pfe
