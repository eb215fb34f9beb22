/// @file
/// The platform's NAT hook: what it asks of the code for the forwarding chip.
#pragma once

#include <Orla/Entity.h>
#include <Orla/String.h>

namespace [[gnu::visibility( "default" )]] PfeHelper {

/// Tells the platform how what is programmed through it is to be treated.
class PfeHelperNat : public Orla::Entity {
 public:
   /// `name` tells it from other hooks.
   explicit PfeHelperNat( Orla::String const & name ) : name_( name ) {}
   ~PfeHelperNat() override;  ///< Leaves what was programmed as it is.

   /// Whether programming through this hook is committed at once instead of batched.
   virtual bool immediateCommit() const { return false; }

   /// As constructed.
   Orla::String name() const { return name_; }

   /// @{
   /// Whether what arrives during initialisation is processed at once instead of deferred to its end.
   bool skipDeferredProcessingOnInit() const { return skipDeferredProcessingOnInit_; }
   void skipDeferredProcessingOnInitIs( bool skip ) { skipDeferredProcessingOnInit_ = skip; }
   /// @}

   Vexa::TypeData const & typeData() const override;

 private:
   Orla::String name_;
   bool skipDeferredProcessingOnInit_ = false;
};

}  // namespace PfeHelper
