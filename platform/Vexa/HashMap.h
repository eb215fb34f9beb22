// The framework's hash collections.
#pragma once

#include <Vexa/Hash.h>
#include <Vexa/Pool.h>
#include <Vexa/Value.h>

#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/unordered/unordered_flat_set.hpp>

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

namespace [[gnu::visibility( "default" )]] Vexa {

// Hashes keys for one collection: the process's seed mixed with a constant of the collection's own, so that no two
// collections share bucket patterns.
template< class Key, U32 seedConstant > struct KeyHash {
   std::size_t operator()( Key const & key ) const { return hash( key, processHashSeed ^ seedConstant ); }
};

// Is told of every change of one key of a map, after it, with the values that the key had before and has now (null:
// none). `key` and `previous` last for the call, `current` until the map changes again. The map must outlive the
// watching, or the watcher be taken off first.
template< class Key, class Value > class KeyWatcher {
 public:
   KeyWatcher() = default;
   KeyWatcher( KeyWatcher const & ) = delete;
   KeyWatcher & operator=( KeyWatcher const & ) = delete;
   virtual void onKey( Key const & key, Value const * previous, Value const * current ) = 0;

 protected:
   ~KeyWatcher() = default;
};

// A map with the operations of a framework collection. References into it last until the next insertion.
template< class KeyType, class ValueType, U32 seedConstant > class HashMap {
 public:
   using Key = KeyType;
   using Value = ValueType;
   using Watcher = KeyWatcher< Key, Value >;

   HashMap() = default;
   HashMap( HashMap const & ) = delete;
   HashMap & operator=( HashMap const & ) = delete;

   std::size_t count() const { return entries_.size(); }
   bool has( Key const & key ) const { return entries_.contains( key ); }

   // Null when the key is absent.
   Value const * find( Key const & key ) const {
      auto const found = entries_.find( key );
      return found == entries_.end() ? nullptr : &found->second;
   }
   Value * find( Key const & key ) { return const_cast< Value * >( std::as_const( *this ).find( key ) ); }

   // A copy; the type's default when the key is absent.
   Value valueOr( Key const & key, Value const & absent = Value() ) const {
      auto const * const value = find( key );
      return value ? *value : absent;
   }

   // Inserts or replaces, then tells the watchers.
   void is( Key const & key, Value value ) {
      if ( watchers_.empty() ) {
         entries_.insert_or_assign( key, std::move( value ) );
         return;
      }
      auto const [ place, inserted ] = entries_.try_emplace( key );
      auto const previous = std::exchange( place->second, std::move( value ) );
      tell( key, inserted ? nullptr : &previous, &place->second );
   }

   // Changes the value under `key` where it stands, inserted as the type's default when absent, by function( value ),
   // then tells the watchers. The function may not change the map.
   template< class Function > void change( Key const & key, Function && function ) {
      auto const [ place, inserted ] = entries_.try_emplace( key );
      if ( watchers_.empty() ) {
         function( place->second );
         return;
      }
      auto const previous = place->second;
      function( place->second );
      tell( key, inserted ? nullptr : &previous, &place->second );
   }

   // The value under `key`, inserted as the type's default when absent, and whether that happened. Tells nobody.
   std::pair< Value &, bool > refOrEmplace( Key const & key ) {
      auto const [ place, inserted ] = entries_.try_emplace( key );
      return { place->second, inserted };
   }

   // Removes the key, then tells the watchers. False when it was absent.
   bool del( Key const & key ) {
      auto const found = entries_.find( key );
      if ( found == entries_.end() ) {
         return false;
      }
      auto const [ goneKey, previous ] = std::move( *found );
      entries_.erase( found );
      tell( goneKey, &previous, nullptr );
      return true;
   }

   void delAll() {
      auto const gone = std::exchange( entries_, {} );
      for ( auto const & [ key, value ] : gone ) {
         tell( key, &value, nullptr );
      }
   }

   // Calls function( key, value ) for every entry in iteration order. The function may remove the entry that it is
   // called for, and change values; it may not insert.
   template< class Function > void forEach( Function && function ) const {
      for ( auto next = entries_.begin(); next != entries_.end(); ) {
         auto const current = next++;
         function( current->first, current->second );
      }
   }

   auto begin() const { return entries_.begin(); }
   auto end() const { return entries_.end(); }

   // Watching does not change a map, so a read-only map can be watched.
   void watcherIs( Watcher & watcher ) const { watchers_.push_back( &watcher ); }
   void watcherDel( Watcher & watcher ) const { std::erase( watchers_, &watcher ); }

 private:
   // A watcher may take itself off while it is told, and may change the map: the next one is told the value of then.
   void tell( Key const & key, Value const * previous, Value const * current ) {
      for ( std::size_t i = 0; i < watchers_.size(); ) {
         auto * const watcher = watchers_[ i ];
         watcher->onKey( key, previous, current );
         i += i < watchers_.size() && watchers_[ i ] == watcher;
         current = i < watchers_.size() ? std::as_const( *this ).find( key ) : nullptr;
      }
   }

   boost::unordered_flat_map< Key, Value, KeyHash< Key, seedConstant > > entries_;
   mutable std::vector< Watcher * > watchers_;
};

// A set of keys. The first member, mostly the only one, is held by itself; others are in a table.
template< class Key, U32 seedConstant > class HashSet {
 public:
   HashSet() = default;
   HashSet( HashSet const & other ) { *this = other; }
   HashSet( HashSet && ) noexcept = default;
   HashSet & operator=( HashSet && ) noexcept = default;
   HashSet & operator=( HashSet const & other ) {
      HashSet copy;
      other.forEach( [ & ]( Key const & key ) { copy.is( key ); } );
      return *this = std::move( copy );
   }

   std::size_t count() const {
      return members_ ? members_->hasFirst + ( members_->others ? members_->others->size() : 0 ) : 0;
   }

   bool has( Key const & key ) const {
      return members_ && ( members_->isFirst( key ) || ( members_->others && members_->others->contains( key ) ) );
   }

   // False when the key was there already.
   bool is( Key const & key ) {
      if ( !members_ ) {
         members_ = std::make_unique< Members >( key );
         return true;
      }
      if ( members_->isFirst( key ) ) {
         return false;
      }
      if ( !members_->others ) {
         members_->others = std::make_unique< Others >();
      }
      return members_->others->insert( key ).second;
   }

   // False when the key was absent.
   bool del( Key const & key ) {
      if ( !has( key ) ) {
         return false;
      }
      auto & others = members_->others;
      if ( members_->isFirst( key ) ) {
         members_->hasFirst = false;
      } else {
         others->erase( key );
      }
      if ( others && others->empty() ) {
         others = nullptr;
      }
      if ( !others && !members_->hasFirst ) {
         members_ = nullptr;
      }
      return true;
   }

   void delAll() { members_ = nullptr; }

   template< class Function > void forEach( Function && function ) const {
      if ( !members_ ) {
         return;
      }
      if ( members_->hasFirst ) {
         function( members_->first );
      }
      if ( members_->others ) {
         for ( auto const & key : *members_->others ) {
            function( key );
         }
      }
   }

   friend bool operator==( HashSet const & a, HashSet const & b ) {
      bool equal = a.count() == b.count();
      a.forEach( [ & ]( Key const & key ) { equal = equal && b.has( key ); } );
      return equal;
   }

 private:
   using Others = boost::unordered_flat_set< Key, KeyHash< Key, seedConstant > >;
   struct Members : Pooled< Members > {
      explicit Members( Key const & key ) : first( key ) {}
      bool isFirst( Key const & key ) const { return hasFirst && first == key; }

      Key first;
      bool hasFirst = true;  // once it is gone nobody takes its place: that would be a search in a large table
      std::unique_ptr< Others > others;  // null rather than empty
   };

   // One pointer, because most sets stand in maps that are half empty.
   std::unique_ptr< Members > members_;
};

}  // namespace Vexa
