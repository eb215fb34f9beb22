// What the agent resolved for each key of the programmer's configuration. Entries never change: a changed rule gets a
// new one.
#pragma once

#include <IpNat/NatDynamic.h>
#include <IpNat/NatStatic.h>
#include <IpNat/NatTrap.h>
#include <Netix/IpAndPort.h>
#include <Orla/Entity.h>
#include <Orla/Ptr.h>
#include <Orla/String.h>
#include <Pfe/NatNextHop.h>
#include <Pfe/NatProgrammerKeys.h>

#include <map>
#include <utility>

namespace [[gnu::visibility( "default" )]] Pfe {

class NatProgrammerStaticEntry final : public Orla::Entity {
 public:
   using PtrConst = Orla::Ptr< NatProgrammerStaticEntry const >;
   using Filters = std::map< U32, Ip::Nat::NatFilter >;  // by sequence number

   struct Fields {
      U32 vrfId = 0;
      U16 vlanId = 0;         // of the interface; 0: none
      U16 intfQualifier = 0;  // of the interface, in rewrite keys
      Ip::Nat::NatStaticConnection connection;
      NatNextHopInfo::PtrConst nextHop;  // null: by the routes
      Orla::String aclName;              // empty: no access list
      bool filtersDisabled = false;
      Filters filters;
   };
   explicit NatProgrammerStaticEntry( Fields fields ) : fields_( std::move( fields ) ) {}

   U32 vrfId() const { return fields_.vrfId; }
   U16 vlanId() const { return fields_.vlanId; }
   U16 intfQualifier() const { return fields_.intfQualifier; }
   Ip::Nat::NatStaticConnection const & connection() const { return fields_.connection; }
   NatNextHopInfo::PtrConst const & nextHop() const { return fields_.nextHop; }
   Orla::String const & aclName() const { return fields_.aclName; }
   bool filtersDisabled() const { return fields_.filtersDisabled; }
   Filters const & filters() const { return fields_.filters; }

   // Whether the fields that decide keys, or whether rows exist, are equal.
   bool derivesSameRows( NatProgrammerStaticEntry const & other ) const;

   Vexa::TypeData const & typeData() const override;

 private:
   Fields fields_;
};

class NatProgrammerTwiceEntry final : public Orla::Entity {
 public:
   using PtrConst = Orla::Ptr< NatProgrammerTwiceEntry const >;

   struct Fields {
      U32 vrfId = 0;
      U16 vlanId = 0;
      U16 intfQualifier = 0;
      Ip::Nat::NatTwiceConnection connection;
      NatNextHopInfo::PtrConst nextHop;
   };
   explicit NatProgrammerTwiceEntry( Fields fields ) : fields_( std::move( fields ) ) {}

   U32 vrfId() const { return fields_.vrfId; }
   U16 vlanId() const { return fields_.vlanId; }
   U16 intfQualifier() const { return fields_.intfQualifier; }
   Ip::Nat::NatTwiceConnection const & connection() const { return fields_.connection; }
   NatNextHopInfo::PtrConst const & nextHop() const { return fields_.nextHop; }
   bool derivesSameRows( NatProgrammerTwiceEntry const & other ) const;
   Vexa::TypeData const & typeData() const override;

 private:
   Fields fields_;
};

class NatProgrammerDynamicEntry final : public Orla::Entity {
 public:
   using PtrConst = Orla::Ptr< NatProgrammerDynamicEntry const >;

   struct Fields {
      U32 vrfId = 0;
      U16 intfQualifier = 0;
      Ip::Nat::DynamicConnection connection;
      Netix::IpAndPort global;
      NatNextHopInfo::PtrConst nextHop;
   };
   explicit NatProgrammerDynamicEntry( Fields fields ) : fields_( std::move( fields ) ) {}

   U32 vrfId() const { return fields_.vrfId; }
   U16 intfQualifier() const { return fields_.intfQualifier; }
   Ip::Nat::DynamicConnection const & connection() const { return fields_.connection; }
   Netix::IpAndPort const & global() const { return fields_.global; }
   NatNextHopInfo::PtrConst const & nextHop() const { return fields_.nextHop; }
   bool derivesSameRows( NatProgrammerDynamicEntry const & other ) const;
   Vexa::TypeData const & typeData() const override;

 private:
   Fields fields_;
};

class NatProgrammerTrapEntry final : public Orla::Entity {
 public:
   using PtrConst = Orla::Ptr< NatProgrammerTrapEntry const >;

   NatProgrammerTrapEntry( U32 vrfId, Ip::Nat::NatDynamicTrapRule rule )
      : vrfId_( vrfId ), rule_( std::move( rule ) ) {}

   U32 vrfId() const { return vrfId_; }
   Ip::Nat::NatDynamicTrapRule const & rule() const { return rule_; }
   Vexa::TypeData const & typeData() const override;

 private:
   U32 vrfId_;
   Ip::Nat::NatDynamicTrapRule rule_;
};

}  // namespace Pfe
