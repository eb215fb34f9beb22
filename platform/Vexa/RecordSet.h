// Records found by their keys: what the hash collections and the software tables stand on.
#pragma once

#include <Vexa/Hash.h>
#include <Vexa/Value.h>

#include <boost/unordered/unordered_flat_set.hpp>

#include <cstddef>
#include <type_traits>
#include <utility>

namespace [[gnu::visibility( "default" )]] Vexa {

// Hashes keys for one collection: the process's seed mixed with a constant of the collection's own, so that no two
// collections share bucket patterns.
template< class Key, U32 seedConstant > struct KeyHash {
   U32 operator()( Key const & key ) const { return hash( key, processHashSeed ^ seedConstant ); }
};

// Pointers to records, which have a `key` and room for its `hash`: neither growth nor removal hashes a key again. Owns
// none of them. Whoever asks for a record mostly comes back to it soon, so the one asked for last is looked at first.
template< class Record, U32 seedConstant > class RecordSet {
 public:
   using Key = std::remove_cvref_t< decltype( Record::key ) >;

   std::size_t count() const { return records_.size(); }

   // Null when there is none.
   Record * find( Key const & key ) const {
      if ( !last_ || !( last_->key == key ) ) {
         auto const found = records_.find( Wanted( key ) );
         if ( found == records_.end() ) {
            return nullptr;
         }
         last_ = *found;
      }
      return last_;
   }

   // The record of `key`, which is make() when there is none yet; and whether that was called.
   template< class Make > std::pair< Record *, bool > findOrInsert( Key const & key, Make && make ) {
      if ( last_ && last_->key == key ) {
         return { last_, false };
      }
      Wanted const wanted( key );
      auto const found = records_.find( wanted );
      bool const isNew = found == records_.end();
      last_ = isNew ? make() : *found;
      if ( isNew ) {
         last_->hash = wanted.hash;
         records_.insert( last_ );
      }
      return { last_, isNew };
   }

   // Takes a record of this set out.
   void erase( Record * record ) {
      if ( last_ == record ) {
         last_ = nullptr;
      }
      records_.erase( record );
   }

   // Tells that a record of this set is likely to be asked for next.
   void isNext( Record * record ) const { last_ = record; }

   // While walking, the record that was passed last may be taken out.
   auto begin() const { return records_.begin(); }
   auto end() const { return records_.end(); }

 private:
   struct Wanted {
      explicit Wanted( Key const & k ) : key( k ), hash( KeyHash< Key, seedConstant >{}( k ) ) {}
      Key const & key;
      U32 hash;
   };
   struct HashOf {
      using is_transparent = void;
      std::size_t operator()( Record const * record ) const { return record->hash; }
      std::size_t operator()( Wanted const & wanted ) const { return wanted.hash; }
   };
   struct Same {
      using is_transparent = void;
      bool operator()( Record const * a, Record const * b ) const { return a == b; }
      bool operator()( Record const * record, Wanted const & wanted ) const { return record->key == wanted.key; }
      bool operator()( Wanted const & wanted, Record const * record ) const { return record->key == wanted.key; }
   };

   boost::unordered_flat_set< Record *, HashOf, Same > records_;
   mutable Record * last_ = nullptr;
};

}  // namespace Vexa
