/// @file
/// The key of a row in any of the six ingress tables, and sets of such keys.
#pragma once

#include <Pfe/IngDynamicNatTables.h>
#include <Pfe/IngStaticNatTable.h>
#include <Pfe/IngTwiceNatTable.h>
#include <Vexa/Attribute.h>
#include <Vexa/HashMap.h>
#include <Vexa/Union.h>

#include <array>
#include <ostream>
#include <span>
#include <string_view>

namespace [[gnu::visibility( "default" )]] Pfe {

/// How the union calls itself and its alternatives in texts; the order is that of its alternatives.
struct IngNatTableKeyNames {
   /// @{
   /// The type and the alternatives are named in the text form, the short name in errors.
   static constexpr std::string_view typeName = "Pfe::IngNatTableKey";
   static constexpr std::string_view shortName = "IngNatTableKey";
   static constexpr std::array< std::string_view, 6 > alternativeName{ "staticKey",
                                                                       "twiceKey",
                                                                       "dynamicSnaptKey",
                                                                       "dynamicDnaptKey",
                                                                       "dynamicSnatAddrOnlyKey",
                                                                       "dynamicDnatAddrOnlyKey" };
   /// @}
};

/// A key of exactly one ingress table. The order of the alternatives decides tag, comparison and attribute ids.
/// The default is a default static key, which counts as not set.
class IngNatTableKey : public Vexa::Union< IngNatTableKeyNames, IngStaticNatTable::Key, IngTwiceNatTable::Key,
                                           IngDynamicSnaptTable::Key, IngDynamicDnaptTable::Key,
                                           IngDynamicSnatAddrOnlyTable::Key, IngDynamicDnatAddrOnlyTable::Key > {
 public:
   using Union::Union;

   /// Takes the text form from the front of the range. An unknown name of an alternative is a RangeException.
   explicit IngNatTableKey( Vexa::CharRange & text ) : Union( text ) {}

   /// @{
   /// Reading an alternative that is not held throws BadUnionAccessException; writing one replaces what is held.
   IngStaticNatTable::Key const & staticKey() const { return get< IngStaticNatTable::Key >(); }
   IngTwiceNatTable::Key const & twiceKey() const { return get< IngTwiceNatTable::Key >(); }
   IngDynamicSnaptTable::Key const & dynamicSnaptKey() const { return get< IngDynamicSnaptTable::Key >(); }
   IngDynamicDnaptTable::Key const & dynamicDnaptKey() const { return get< IngDynamicDnaptTable::Key >(); }
   IngDynamicSnatAddrOnlyTable::Key const & dynamicSnatAddrOnlyKey() const {
      return get< IngDynamicSnatAddrOnlyTable::Key >();
   }
   IngDynamicDnatAddrOnlyTable::Key const & dynamicDnatAddrOnlyKey() const {
      return get< IngDynamicDnatAddrOnlyTable::Key >();
   }
   void staticKeyIs( IngStaticNatTable::Key const & key ) { assign( key ); }
   void twiceKeyIs( IngTwiceNatTable::Key const & key ) { assign( key ); }
   void dynamicSnaptKeyIs( IngDynamicSnaptTable::Key const & key ) { assign( key ); }
   void dynamicDnaptKeyIs( IngDynamicDnaptTable::Key const & key ) { assign( key ); }
   void dynamicSnatAddrOnlyKeyIs( IngDynamicSnatAddrOnlyTable::Key const & key ) { assign( key ); }
   void dynamicDnatAddrOnlyKeyIs( IngDynamicDnatAddrOnlyTable::Key const & key ) { assign( key ); }
   /// @}

   /// @{
   /// Which table's key is held.
   bool containsStaticKey() const { return contains< IngStaticNatTable::Key >(); }
   bool containsTwiceKey() const { return contains< IngTwiceNatTable::Key >(); }
   bool containsDynamicSnaptKey() const { return contains< IngDynamicSnaptTable::Key >(); }
   bool containsDynamicDnaptKey() const { return contains< IngDynamicDnaptTable::Key >(); }
   bool containsDynamicSnatAddrOnlyKey() const { return contains< IngDynamicSnatAddrOnlyTable::Key >(); }
   bool containsDynamicDnatAddrOnlyKey() const { return contains< IngDynamicDnatAddrOnlyTable::Key >(); }
   /// @}

   /// Whether the key is set: differs from the default.
   explicit operator bool() const { return !( *this == IngNatTableKey() ); }

   /// For access by id or name, ids from 1 in this order.
   static std::span< Vexa::Attribute< IngNatTableKey > const > attributeTable();
};

/// A set of ingress keys; as the holders of one NAT id its size is the id's reference count. No order is kept.
class IngKeySet {
 public:
   IngKeySet() = default;  ///< Empty.
   /// Sets are not read back from text: stops the agent.
   explicit IngKeySet( Vexa::CharRange & text );

   /// @{
   /// The set: whole, count, look up, put in, take out. Absent keys may be taken out, present ones put in.
   Vexa::HashSet< IngNatTableKey, 0x40D8D6CD > const & entry() const { return entry_; }
   std::size_t entrys() const { return entry_.count(); }
   bool entryHas( IngNatTableKey const & key ) const { return entry_.has( key ); }
   void entryIs( IngNatTableKey const & key ) { entry_.is( key ); }
   void entryDel( IngNatTableKey const & key ) { entry_.del( key ); }
   void entryDelAll() { entry_.delAll(); }
   /// @}

   /// Whether the set holds a key.
   explicit operator bool() const { return entrys() != 0; }

   /// Sets are no hash keys: throws UnhashableTypeException.
   [[noreturn]] U32 hash( U32 seed ) const;

   /// For access by id or name, ids from 1 in this order.
   static std::span< Vexa::Attribute< IngKeySet > const > attributeTable();

   /// Whether both hold the same keys.
   friend bool operator==( IngKeySet const & a, IngKeySet const & b ) { return a.entry_ == b.entry_; }
   /// Value('Pfe::IngKeySet', entry={ ... }), keys in their order.
   friend std::ostream & operator<<( std::ostream & out, IngKeySet const & set );

 private:
   Vexa::HashSet< IngNatTableKey, 0x40D8D6CD > entry_;
};

using Vexa::isEq;

}  // namespace Pfe
