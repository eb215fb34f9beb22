#include "PfeNat/PfeNatSwTableProgrammerSm/IngNatTableKey.h"

#include <Vexa/Assert.h>
#include <Vexa/Exception.h>

#include <set>

namespace [[gnu::visibility( "default" )]] Pfe {

std::span< Vexa::Attribute< IngNatTableKey > const > IngNatTableKey::attributeTable() {
   using Key = IngNatTableKey;
   static constexpr Vexa::Attribute< Key > table[] = {
      Vexa::attribute< Key, &Key::staticKey, &Key::staticKeyIs >( "staticKey" ),
      Vexa::attribute< Key, &Key::twiceKey, &Key::twiceKeyIs >( "twiceKey" ),
      Vexa::attribute< Key, &Key::dynamicSnaptKey, &Key::dynamicSnaptKeyIs >( "dynamicSnaptKey" ),
      Vexa::attribute< Key, &Key::dynamicDnaptKey, &Key::dynamicDnaptKeyIs >( "dynamicDnaptKey" ),
      Vexa::attribute< Key, &Key::dynamicSnatAddrOnlyKey, &Key::dynamicSnatAddrOnlyKeyIs >( "dynamicSnatAddrOnlyKey" ),
      Vexa::attribute< Key, &Key::dynamicDnatAddrOnlyKey, &Key::dynamicDnatAddrOnlyKeyIs >( "dynamicDnatAddrOnlyKey" ),
      Vexa::readOnlyAttribute< Key, &Key::containsStaticKey >( "containsStaticKey" ),
      Vexa::readOnlyAttribute< Key, &Key::containsTwiceKey >( "containsTwiceKey" ),
      Vexa::readOnlyAttribute< Key, &Key::containsDynamicSnaptKey >( "containsDynamicSnaptKey" ),
      Vexa::readOnlyAttribute< Key, &Key::containsDynamicDnaptKey >( "containsDynamicDnaptKey" ),
      Vexa::readOnlyAttribute< Key, &Key::containsDynamicSnatAddrOnlyKey >( "containsDynamicSnatAddrOnlyKey" ),
      Vexa::readOnlyAttribute< Key, &Key::containsDynamicDnatAddrOnlyKey >( "containsDynamicDnatAddrOnlyKey" ) };
   return table;
}

std::span< Vexa::Attribute< IngKeySet > const > IngKeySet::attributeTable() {
   static constexpr Vexa::Attribute< IngKeySet > table[] = {
      Vexa::collectionAttribute< IngKeySet, &IngKeySet::entryHas, &IngKeySet::entryIs, &IngKeySet::entryDel >(
         "entry" ) };
   return table;
}

IngKeySet::IngKeySet( Vexa::CharRange & ) {
   VEXA_ASSERT( "No String constructor for IngKeySet - has collection" == nullptr );
}

U32 IngKeySet::hash( U32 ) const { throw Vexa::UnhashableTypeException( "Pfe::IngKeySet can not be hashed" ); }

std::ostream & operator<<( std::ostream & out, IngKeySet const & set ) {
   std::set< IngNatTableKey > ordered;
   set.entry_.forEach( [ & ]( IngNatTableKey const & key ) { ordered.insert( key ); } );
   out << "Value('Pfe::IngKeySet', entry={";
   char const * separator = " ";
   for ( auto const & key : ordered ) {
      out << separator << key;
      separator = ", ";
   }
   return out << ( ordered.empty() ? "})" : " })" );
}

}  // namespace Pfe
