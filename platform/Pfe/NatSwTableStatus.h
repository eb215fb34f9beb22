// The software-table status: what became of each entry of the software-table configuration.
#pragma once

#include <Orla/Entity.h>
#include <Orla/Ptr.h>
#include <Pfe/NatSwTableConfig.h>
#include <PfeHelper/NatHwResult.h>
#include <Vexa/HashMap.h>
#include <Vexa/Value.h>

namespace [[gnu::visibility( "default" )]] Pfe {

struct NatSwTableStatusEntry {
   PfeHelper::NatHwResult result = PfeHelper::NatHwResult::pending;

   static constexpr std::string_view typeName = "Pfe::NatSwTableStatusEntry";
   static constexpr auto attributes() { return std::tuple( Vexa::attr< &NatSwTableStatusEntry::result >( "result" ) ); }
   friend auto operator<=>( NatSwTableStatusEntry const &, NatSwTableStatusEntry const & ) = default;
};
static_assert( Vexa::describesEveryMember< NatSwTableStatusEntry > );

class NatSwTableStatus final : public Orla::Entity {
 public:
   using Ptr = Orla::Ptr< NatSwTableStatus >;
   using PtrConst = Orla::Ptr< NatSwTableStatus const >;
   using StaticEntries = Vexa::HashMap< NatSwTableStaticKey, NatSwTableStatusEntry, 0x9C30D539 >;

   StaticEntries const & staticEntry() const { return staticEntry_; }
   // Null when the key is absent.
   NatSwTableStatusEntry const * staticEntry( NatSwTableStaticKey const & key ) const {
      return staticEntry_.find( key );
   }
   bool staticEntryHas( NatSwTableStaticKey const & key ) const { return staticEntry_.has( key ); }
   // Inserts or replaces.
   void staticEntryIs( NatSwTableStaticKey const & key, NatSwTableStatusEntry const & entry ) {
      staticEntry_.is( key, entry );
   }
   void staticEntryDel( NatSwTableStaticKey const & key ) { staticEntry_.del( key ); }
   void staticEntryDelAll() { staticEntry_.delAll(); }

   Vexa::TypeData const & typeData() const override;

 private:
   StaticEntries staticEntry_;
};

}  // namespace Pfe
