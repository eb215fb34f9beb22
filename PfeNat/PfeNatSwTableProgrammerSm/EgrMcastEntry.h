/// @file
/// The egress rewrites of one multicast translation.
#pragma once

#include <Pfe/EgrNatTables.h>
#include <Vexa/Attribute.h>
#include <Vexa/Value.h>

#include <ostream>
#include <span>
#include <vector>

namespace [[gnu::visibility( "default" )]] Pfe {

/// An ordered list of rewrites, made by the multicast hook, and whether it is complete and usable.
class EgrMcastEntry {
 public:
   /// One rewrite: a key of the multicast rewrite table and the entry for it. Never changes.
   class EgrMcastInfo {
    public:
      EgrMcastInfo() = default;  ///< Of default key and entry.
      /// A copy of both.
      EgrMcastInfo( EgrNatMcRewriteTable::Key const & key, EgrNatMcRewriteTable::Entry const & entry )
         : key_( key ), entry_( entry ) {}
      /// Takes the text form from the front of the range; throws ParseException or RangeException.
      explicit EgrMcastInfo( Vexa::CharRange & text );

      /// @{
      /// What is written, and under which key.
      EgrNatMcRewriteTable::Key const & key() const { return key_; }
      EgrNatMcRewriteTable::Entry const & entry() const { return entry_; }
      /// @}

      /// Whether the info differs from a default one.
      explicit operator bool() const { return !( *this == EgrMcastInfo() ); }
      /// By key and entry.
      friend bool operator==( EgrMcastInfo const & a, EgrMcastInfo const & b ) {
         return a.key_ == b.key_ && a.entry_ == b.entry_;
      }
      /// Value('Pfe::EgrMcastEntry::EgrMcastInfo', key=..., entry=...)
      friend std::ostream & operator<<( std::ostream & out, EgrMcastInfo const & info );

      /// For access by id or name, ids from 1 in this order.
      static std::span< Vexa::Attribute< EgrMcastInfo > const > attributeTable();

    private:
      EgrNatMcRewriteTable::Key key_;
      EgrNatMcRewriteTable::Entry entry_;
   };

   EgrMcastEntry() = default;  ///< Without rewrites, and not valid.
   /// Lists are not read back from text: stops the agent.
   explicit EgrMcastEntry( Vexa::CharRange & text );

   /// How many rewrites there are.
   std::size_t entrys() const { return entry_.size(); }
   /// @{
   /// One rewrite, counted from 0. An index at or past the count throws VectorOutOfRangeException, and the list stays
   /// as it is.
   EgrMcastInfo const & entry( unsigned int index ) const;
   void entryIs( unsigned int index, EgrMcastInfo const & info );
   /// @}
   /// @{
   /// The ends; entryPop() takes the last one away and returns it. On an empty list these throw EmptyVectorException.
   EgrMcastInfo const & entryFirst() const;
   EgrMcastInfo const & entryLast() const;
   EgrMcastInfo entryPop();
   /// @}
   /// @{
   /// Grows at the end, or becomes empty.
   void entryPush( EgrMcastInfo const & info ) { entry_.push_back( info ); }
   void entryPopAll() { entry_.clear(); }
   /// @}

   /// @{
   /// Whether the list is complete and usable.
   bool valid() const { return valid_; }
   void validIs( bool valid ) { valid_ = valid; }
   /// @}

   /// By validity, and rewrite by rewrite.
   friend bool operator==( EgrMcastEntry const & a, EgrMcastEntry const & b ) {
      return &a == &b || ( a.valid_ == b.valid_ && a.entry_ == b.entry_ );
   }
   /// Value('Pfe::EgrMcastEntry', entry=[ ... ], valid=1)
   friend std::ostream & operator<<( std::ostream & out, EgrMcastEntry const & value );

   /// For access by id or name, ids from 1 in this order.
   static std::span< Vexa::Attribute< EgrMcastEntry > const > attributeTable();

 private:
   std::vector< EgrMcastInfo > entry_;
   bool valid_ = false;
};

}  // namespace Pfe
