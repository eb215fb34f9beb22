// The kernel's maps, with the types of their keys and values.
#pragma once

#include "chip/Descriptor.h"
#include "chip/bpf/layout.h"

#include <Vexa/Types.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <span>
#include <vector>

namespace Ebpf {

// A hash map of plain keys and values. Results are 0 or an errno; -1 is none of them.
class RawHash {
 public:
   RawHash( Descriptor map, std::size_t keySize, std::size_t valueSize );

   int find( void const * key, void * value ) const;
   int put( void const * key, void const * value ) const;
   int erase( void const * key ) const;

   // The same of `count` keys that stand one behind another. Goes on behind an element that fails; `results` has an
   // errno for each.
   void putAll( void const * keys, void const * values, std::size_t count, int * results ) const;
   void eraseAll( void const * keys, std::size_t count, int * results ) const;

   // Everything that it holds. Throws Refusal.
   void read( std::vector< std::byte > & keys, std::vector< std::byte > & values, std::size_t & count ) const;

   U32 room() const { return room_; }
   int number() const { return map_.number(); }

 private:
   Descriptor map_;
   std::size_t keySize_;
   std::size_t valueSize_;
   U32 room_;
};

template< class Key, class Value > class HashOf {
 public:
   explicit HashOf( Descriptor map ) : raw_( std::move( map ), sizeof( Key ), sizeof( Value ) ) {}

   int find( Key const & key, Value & value ) const { return raw_.find( &key, &value ); }
   int put( Key const & key, Value const & value ) const { return raw_.put( &key, &value ); }
   int erase( Key const & key ) const { return raw_.erase( &key ); }

   void putAll( std::vector< Key > const & keys, std::vector< Value > const & values,
                std::vector< int > & results ) const {
      results.assign( keys.size(), 0 );
      raw_.putAll( keys.data(), values.data(), keys.size(), results.data() );
   }
   void eraseAll( std::vector< Key > const & keys, std::vector< int > & results ) const {
      results.assign( keys.size(), 0 );
      raw_.eraseAll( keys.data(), keys.size(), results.data() );
   }

   // Calls function( key, value ) for everything that it holds. Throws Refusal.
   template< class Function > void forEach( Function && function ) const {
      std::vector< std::byte > keys, values;
      std::size_t count = 0;
      raw_.read( keys, values, count );
      for ( std::size_t i = 0; i < count; ++i ) {
         function( reinterpret_cast< Key const * >( keys.data() )[ i ],
                   reinterpret_cast< Value const * >( values.data() )[ i ] );
      }
   }

   U32 room() const { return raw_.room(); }

 private:
   RawHash raw_;
};

// An array that this process sees in its own memory: no call for what is written to it.
class RawArray {
 public:
   // Throws Refusal.
   RawArray( Descriptor map, std::size_t elementSize );
   ~RawArray();
   RawArray( RawArray const & ) = delete;
   RawArray & operator=( RawArray const & ) = delete;

   void * data() const { return memory_; }
   U32 count() const { return count_; }

 private:
   Descriptor map_;
   void * memory_ = nullptr;
   std::size_t size_ = 0;
   U32 count_ = 0;
};

template< class Element > class ArrayOf {
 public:
   explicit ArrayOf( Descriptor map ) : raw_( std::move( map ), sizeof( Element ) ) {}
   std::span< Element > elements() const { return { static_cast< Element * >( raw_.data() ), raw_.count() }; }
   Element & operator[]( std::size_t at ) const { return static_cast< Element * >( raw_.data() )[ at ]; }

 private:
   RawArray raw_;
};

// The version of a slot that readers see.
inline ChipRewrite const & current( ChipSlot const & slot ) { return slot.version[ slot.sequence & 1 ]; }

inline bool isInUse( ChipRewrite const & rewrite ) { return rewrite.generation & 1; }

// Readers see the old version until they see the new one.
inline void replace( ChipSlot & slot, ChipRewrite const & rewrite ) {
   auto const sequence = slot.sequence;
   slot.version[ ( sequence + 1 ) & 1 ] = rewrite;
   std::atomic_ref( slot.sequence ).store( sequence + 1, std::memory_order_release );
}

}  // namespace Ebpf
