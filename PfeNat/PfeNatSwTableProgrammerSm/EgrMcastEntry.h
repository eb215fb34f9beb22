// The egress rewrites of one multicast translation.
#pragma once

#include <Pfe/EgrNatTables.h>
#include <Vexa/Attribute.h>
#include <Vexa/Value.h>

#include <ostream>
#include <span>
#include <vector>

namespace [[gnu::visibility( "default" )]] Pfe {

// An ordered list of rewrites, made by the multicast hook, and whether it is complete and usable.
class EgrMcastEntry {
 public:
   // One rewrite: a key of the multicast rewrite table and the entry for it. Never changes.
   class EgrMcastInfo {
    public:
      EgrMcastInfo() = default;
      EgrMcastInfo( EgrNatMcRewriteTable::Key const & key, EgrNatMcRewriteTable::Entry const & entry )
         : key_( key ), entry_( entry ) {}
      explicit EgrMcastInfo( Vexa::CharRange & text );

      EgrNatMcRewriteTable::Key const & key() const { return key_; }
      EgrNatMcRewriteTable::Entry const & entry() const { return entry_; }

      // Whether the info differs from a default one.
      explicit operator bool() const { return !( *this == EgrMcastInfo() ); }
      friend bool operator==( EgrMcastInfo const & a, EgrMcastInfo const & b ) {
         return a.key_ == b.key_ && a.entry_ == b.entry_;
      }
      friend std::ostream & operator<<( std::ostream & out, EgrMcastInfo const & info );

      static std::span< Vexa::Attribute< EgrMcastInfo > const > attributeTable();

    private:
      EgrNatMcRewriteTable::Key key_;
      EgrNatMcRewriteTable::Entry entry_;
   };

   EgrMcastEntry() = default;
   // Lists are not read back from text: stops the agent.
   explicit EgrMcastEntry( Vexa::CharRange & text );

   std::size_t entrys() const { return entry_.size(); }
   // An index at or past the count throws VectorOutOfRangeException, and the list stays as it is.
   EgrMcastInfo const & entry( unsigned int index ) const;
   void entryIs( unsigned int index, EgrMcastInfo const & info );
   // On an empty list these throw EmptyVectorException.
   EgrMcastInfo const & entryFirst() const;
   EgrMcastInfo const & entryLast() const;
   EgrMcastInfo entryPop();
   void entryPush( EgrMcastInfo const & info ) { entry_.push_back( info ); }
   void entryPopAll() { entry_.clear(); }

   bool valid() const { return valid_; }
   void validIs( bool valid ) { valid_ = valid; }

   friend bool operator==( EgrMcastEntry const & a, EgrMcastEntry const & b ) {
      return &a == &b || ( a.valid_ == b.valid_ && a.entry_ == b.entry_ );
   }
   friend std::ostream & operator<<( std::ostream & out, EgrMcastEntry const & value );

   static std::span< Vexa::Attribute< EgrMcastEntry > const > attributeTable();

 private:
   std::vector< EgrMcastInfo > entry_;
   bool valid_ = false;
};

}  // namespace Pfe
