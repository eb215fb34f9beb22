/// @file
/// The hooks through which the programmer asks the code for one forwarding chip.
#pragma once

#include "PfeNat/PfeNatSwTableProgrammerSm/EgrMcastEntry.h"
#include "PfeNat/PfeNatSwTableProgrammerSm/IngNatTableKey.h"

#include <Orla/Entity.h>
#include <Orla/Ptr.h>
#include <Orla/String.h>
#include <Pfe/NatId.h>
#include <Pfe/NatMatchKey.h>
#include <Pfe/NatProgrammerEntries.h>
#include <Pfe/NatProgrammerKeys.h>
#include <PfeHelper/PfeHelperNat.h>

namespace [[gnu::visibility( "default" )]] Pfe {

/// The system's own NAT hook: what is programmed through it is committed at once, and nothing is deferred during
/// initialisation.
class PfeNatProgrammerBaseHelper final : public PfeHelper::PfeHelperNat {
 public:
   using Ptr = Orla::Ptr< PfeNatProgrammerBaseHelper >;
   /// `name` tells it from other hooks.
   explicit PfeNatProgrammerBaseHelper( Orla::String const & name );
   bool immediateCommit() const override;
   static Vexa::TypeData const & classType();
   Vexa::TypeData const & typeData() const override { return classType(); }
};
/// @{
/// A new hook.
PfeNatProgrammerBaseHelper::Ptr PfeNatProgrammerBaseHelperIs( Orla::String const & name );
PfeNatProgrammerBaseHelper::Ptr pfeNatProgrammerBaseHelperFactory( Orla::String const & name );
/// @}

/// Multicast translations, implemented per chip. The operations raise nothing: a NAT id is taken when they are called.
class NatMcastProgrammerHelper : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< NatMcastProgrammerHelper >;

   /// @{
   /// The rewrites of one multicast rule, for the NAT id that its ingress key holds. The answer must be valid.
   virtual EgrMcastEntry getStaticEgrMcastEntry( NatProgrammerStaticKey const & key,
                                                 NatProgrammerStaticEntry::PtrConst const & entry,
                                                 NatMatchKey const & matchKey, NatId natId ) = 0;
   virtual EgrMcastEntry getTwiceEgrMcastEntry( NatProgrammerTwiceKey const & key,
                                                NatProgrammerTwiceEntry::PtrConst const & entry,
                                                NatMatchKey const & matchKey, NatId natId ) = 0;
   /// @}
   /// @{
   /// Whether the chip can do the translation; asked before anything is taken or written for it.
   virtual bool isValidMcastStaticTranslation( NatProgrammerStaticKey const & key,
                                               NatProgrammerStaticEntry::PtrConst const & entry ) = 0;
   virtual bool isValidMcastTwiceTranslation( NatProgrammerTwiceKey const & key,
                                              NatProgrammerTwiceEntry::PtrConst const & entry ) = 0;
   /// @}
   /// The row of a multicast rule has left the hardware.
   virtual void cleanupNatEntry( IngNatTableKey const & ingNatTableKey ) = 0;
   /// The replay after a start has handed over every rule.
   virtual void handleStartup() = 0;

   static Vexa::TypeData const & classType();
   Vexa::TypeData const & typeData() const override { return classType(); }
};

/// Dynamic NAT, implemented per chip.
class DynamicNatProgrammerHelper : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< DynamicNatProgrammerHelper >;

   /// Whether the chip recognises the layer-4 header of the IANA protocol number.
   virtual bool getL4ProtocolDetected( U8 proto ) = 0;

   static Vexa::TypeData const & classType();
   Vexa::TypeData const & typeData() const override { return classType(); }
};

}  // namespace Pfe
