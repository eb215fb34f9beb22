// The framework's hash collections.
#pragma once

#include <Vexa/Pool.h>
#include <Vexa/RecordSet.h>

#include <boost/unordered/unordered_flat_set.hpp>

#include <cstddef>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace [[gnu::visibility( "default" )]] Vexa {

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

// A map with the operations of a framework collection. References to a value last until its key is removed.
template< class KeyType, class ValueType, U32 seedConstant > class HashMap {
   struct Node : Pooled< Node > {
      template< class... Arguments >
      explicit Node( KeyType const & k, Arguments &&... arguments )
         : value( std::forward< Arguments >( arguments )... ), key( k ) {}
      ValueType value;  // before the key: most values are pointers, most keys half as strictly aligned
      KeyType const key;
      U32 hash = 0;
   };
   using Nodes = RecordSet< Node, seedConstant >;

 public:
   using Key = KeyType;
   using Value = ValueType;
   using Watcher = KeyWatcher< Key, Value >;

   HashMap() = default;
   ~HashMap() { free( nodes_ ); }
   HashMap( HashMap const & ) = delete;
   HashMap & operator=( HashMap const & ) = delete;

   std::size_t count() const { return nodes_.count(); }
   bool has( Key const & key ) const { return nodes_.find( key ) != nullptr; }

   // Null when the key is absent.
   Value const * find( Key const & key ) const {
      auto const * const node = nodes_.find( key );
      return node ? &node->value : nullptr;
   }
   Value * find( Key const & key ) { return const_cast< Value * >( std::as_const( *this ).find( key ) ); }

   // A copy; the type's default when the key is absent.
   Value valueOr( Key const & key, Value const & absent = Value() ) const {
      auto const * const value = find( key );
      return value ? *value : absent;
   }

   // Inserts or replaces, then tells the watchers.
   void is( Key const & key, Value value ) {
      change( key, [ & ]( Value & place ) { place = std::move( value ); } );
   }

   // Changes the value under `key` where it stands, inserted as the type's default when absent, by function( value ),
   // then tells the watchers. The function may not change the map.
   template< class Function > void change( Key const & key, Function && function ) {
      auto const [ value, isNew ] = refOrEmplace( key );
      if ( watchers_.empty() ) {
         function( value );
         return;
      }
      auto const previous = isNew ? Value() : value;
      function( value );
      tell( key, isNew ? nullptr : &previous, &value );
   }

   // The value under `key`. When absent it is inserted as make(), and the watchers are told; when that throws, nothing
   // has changed. make() may not change the map.
   template< class Make > Value findOrInsert( Key const & key, Make && make ) {
      auto const [ node, isNew ] = nodes_.findOrInsert( key, [ & ] { return new Node( key, make() ); } );
      auto const value = node->value;
      if ( isNew ) {
         tell( key, nullptr, &node->value );
      }
      return value;
   }

   // The value under `key`, inserted as the type's default when absent, and whether that happened. Tells nobody.
   std::pair< Value &, bool > refOrEmplace( Key const & key ) {
      auto const [ node, isNew ] = nodes_.findOrInsert( key, [ & ] { return new Node( key ); } );
      return { node->value, isNew };
   }

   // Removes the key, then tells the watchers. False when it was absent.
   bool del( Key const & key ) {
      std::unique_ptr< Node > const gone( nodes_.find( key ) );
      if ( gone ) {
         nodes_.erase( gone.get() );
         tell( gone->key, &gone->value, nullptr );
      }
      return gone != nullptr;
   }

   void delAll() {
      auto const gone = std::exchange( nodes_, {} );
      for ( auto const * const node : gone ) {
         tell( node->key, &node->value, nullptr );
      }
      free( gone );
   }

   // Calls function( key, value ) for every entry in iteration order. The function may remove the entry that it is
   // called for, and change values; it may not insert.
   template< class Function > void forEach( Function && function ) const {
      for ( auto next = nodes_.begin(); next != nodes_.end(); ) {
         auto const * const node = *next++;
         function( node->key, node->value );
      }
   }

   // Yields pairs of references to key and value.
   struct Iterator {
      using value_type = std::pair< Key const &, Value const & >;
      using difference_type = std::ptrdiff_t;

      value_type operator*() const { return { ( *node )->key, ( *node )->value }; }
      Iterator & operator++() {
         ++node;
         return *this;
      }
      void operator++( int ) { ++node; }
      friend bool operator==( Iterator const &, Iterator const & ) = default;

      decltype( std::declval< Nodes const & >().begin() ) node;
   };
   Iterator begin() const { return { nodes_.begin() }; }
   Iterator end() const { return { nodes_.end() }; }

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

   static void free( Nodes const & nodes ) {
      for ( auto const * const node : nodes ) {
         delete node;
      }
   }

   Nodes nodes_;
   mutable std::vector< Watcher * > watchers_;
};

// A set of keys. The first member, mostly the only one, is held by itself; others are in a table.
template< class Key, U32 seedConstant > class HashSet {
 public:
   HashSet() = default;
   HashSet( HashSet const & other ) { *this = other; }
   HashSet( HashSet && other ) noexcept { swap( other ); }
   HashSet & operator=( HashSet && other ) noexcept {
      HashSet( std::move( other ) ).swap( *this );
      return *this;
   }
   HashSet & operator=( HashSet const & other ) {
      HashSet copy;
      other.forEach( [ & ]( Key const & key ) { copy.is( key ); } );
      return *this = std::move( copy );
   }

   std::size_t count() const { return first_.has_value() + ( others_ ? others_->size() : 0 ); }

   bool has( Key const & key ) const { return first_ == key || ( others_ && others_->contains( key ) ); }

   // False when the key was there already.
   bool is( Key const & key ) {
      if ( count() == 0 ) {
         first_ = key;
         return true;
      }
      if ( first_ == key ) {
         return false;
      }
      if ( !others_ ) {
         others_ = std::make_unique< Others >();
      }
      return others_->insert( key ).second;
   }

   // False when the key was absent.
   bool del( Key const & key ) {
      if ( first_ == key ) {
         first_.reset();
         return true;
      }
      if ( !others_ || others_->erase( key ) == 0 ) {
         return false;
      }
      if ( others_->empty() ) {
         others_ = nullptr;
      }
      return true;
   }

   void delAll() { *this = HashSet(); }

   template< class Function > void forEach( Function && function ) const {
      if ( first_ ) {
         function( *first_ );
      }
      if ( others_ ) {
         for ( auto const & key : *others_ ) {
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

   void swap( HashSet & other ) noexcept {
      std::swap( first_, other.first_ );
      others_.swap( other.others_ );
   }

   std::optional< Key > first_;  // once it is gone nobody takes its place: that would be a search in a large table
   std::unique_ptr< Others > others_;  // null rather than empty
};

}  // namespace Vexa
