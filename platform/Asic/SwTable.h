// Software tables: the image of one table of the forwarding chip.
#pragma once

#include <Asic/Hardware.h>
#include <Asic/SwTableBase.h>
#include <Vexa/Hash.h>
#include <Vexa/Pool.h>
#include <Vexa/Type.h>
#include <Vexa/Value.h>

#include <boost/unordered/unordered_flat_set.hpp>

#include <concepts>
#include <utility>
#include <vector>

namespace Asic {

// A table from `Traits::Key` to `Traits::Entry`, written through the hardware's queue. `Traits` also gives the table's
// tableName, typeName and hashConstant.
template< class Traits > class [[gnu::visibility( "default" )]] SwTable final : public SwTableBase {
 public:
   using Key = typename Traits::Key;
   using Entry = typename Traits::Entry;
   static_assert( std::derived_from< Entry, EntryBase > );

   explicit SwTable( Hardware::Ptr hardware ) : SwTableBase( Traits::tableName, std::move( hardware ) ) {}
   ~SwTable() override { clear(); }

   // Inserts or replaces in place; the row stays until entryRemove. Returns its handle.
   EntryHandle::PtrConst entryCommit( Key const & key, Entry entry ) {
      auto & row = rowOf( key );
      row.committed = true;
      return written( row, std::move( entry ) );
   }

   // Inserts or replaces in place; a row that is not committed stays as long as somebody holds its handle. The handle
   // of an existing row is the same one again.
   EntryHandle::PtrConst entryRef( Key const & key, Entry entry ) {
      return written( rowOf( key ), std::move( entry ) );
   }

   // Takes the key out of look-ups at once; the removal settles later. An absent key: nothing, and nobody is called.
   void entryRemove( Key const & key ) {
      if ( auto * const row = find( key ); row && row->newest ) {
         remove( *row );
      }
   }

   // Null when the table has no such row. Valid until the row is written or removed.
   Entry const * entry( Key const & key ) const {
      auto const * const row = find( key );
      return row && row->newest ? &static_cast< TypedVersion const * >( row->newest )->entry : nullptr;
   }

   // Null when the table has no such row. The caller holds nothing unless it makes an EntryHandle::PtrConst.
   EntryHandle const * entryHandle( Key const & key ) const {
      auto const * const row = find( key );
      return row && row->newest ? row : nullptr;
   }

   // Calls function( key, entry, handle ) for every row that look-ups see.
   template< class Function > void forEach( Function && function ) const {
      for ( auto const * const row : rows_ ) {
         if ( row->newest ) {
            function( row->key, static_cast< TypedVersion const * >( row->newest )->entry,
                      static_cast< EntryHandle const & >( *row ) );
         }
      }
   }

   // What the hardware holds, whatever has been asked for since; null when it holds no version of the row.
   Entry const * hardwareEntry( Key const & key ) const {
      auto const * const row = find( key );
      return row && row->inHardware ? &static_cast< TypedVersion const * >( row->inHardware )->entry : nullptr;
   }

   std::size_t failedRowCount() const override {
      std::size_t failed = 0;
      for ( auto const * const row : rows_ ) {
         failed += row->newest && isFailure( row->state() );
      }
      return failed;
   }

   void clear() override {
      std::vector< Row * > const rows( rows_.begin(), rows_.end() );
      rows_ = {};
      abandon( rows );
   }

   Vexa::TypeData const & typeData() const override {
      static constexpr Vexa::TypeData type{ .name = Traits::typeName };
      return type;
   }

 private:
   struct TypedRow final : Row, Vexa::Pooled< TypedRow > {
      explicit TypedRow( Key const & k ) : key( k ) {}
      void describe( std::ostream & out ) const override { Vexa::write( out, key ); }
      Key const key;
   };

   struct TypedVersion final : Version, Vexa::Pooled< TypedVersion > {
      explicit TypedVersion( Entry e ) : entry( std::move( e ) ) {}

      EntryBase const & entryBase() const override { return entry; }

      void handlesDel() override {
         if constexpr ( std::derived_from< Entry, ReferringEntry > ) {
            auto const egrHdl = std::exchange( entry.egrHdl, {} );
            auto const fragHdl = std::exchange( entry.fragHdl, nullptr );
         }
      }

      bool sendable() const override {
         bool all = true;
         if constexpr ( std::derived_from< Entry, ReferringEntry > ) {
            entry.egrHdl.forEach( [ & ]( EntryHandle::PtrConst const & handle, bool failureCounts ) {
               all = all && ( !failureCounts || ( handle->heldByHardware() && !isFailure( handle->state() ) ) );
            } );
         }
         return all;
      }

      bool refersTo( [[maybe_unused]] EntryHandle const * wanted ) const override {
         bool found = false;
         if constexpr ( std::derived_from< Entry, ReferringEntry > ) {
            found = entry.fragHdl && ( !wanted || entry.fragHdl.ptr() == wanted );
            entry.egrHdl.forEach( [ & ]( EntryHandle::PtrConst const & handle, bool ) {
               found = found || !wanted || handle.ptr() == wanted;
            } );
         }
         return found;
      }

      Entry entry;
   };

   struct HashOfRow {
      using is_transparent = void;
      std::size_t operator()( TypedRow const * row ) const { return row->hash; }
      std::size_t operator()( std::pair< Key const &, U32 > const & wanted ) const { return wanted.second; }
   };
   struct SameKey {
      using is_transparent = void;
      bool operator()( TypedRow const * a, TypedRow const * b ) const { return a == b; }
      bool operator()( TypedRow const * row, std::pair< Key const &, U32 > const & wanted ) const {
         return row->key == wanted.first;
      }
      bool operator()( std::pair< Key const &, U32 > const & wanted, TypedRow const * row ) const {
         return row->key == wanted.first;
      }
   };

   static U32 hashOf( Key const & key ) { return Vexa::hash( key, Vexa::processHashSeed ^ Traits::hashConstant ); }

   TypedRow * find( Key const & key ) const {
      auto const found = rows_.find( std::pair< Key const &, U32 >( key, hashOf( key ) ) );
      return found == rows_.end() ? nullptr : *found;
   }

   TypedRow & rowOf( Key const & key ) {
      std::pair< Key const &, U32 > const wanted( key, hashOf( key ) );
      if ( auto const found = rows_.find( wanted ); found != rows_.end() ) {
         return **found;
      }
      auto * const row = new TypedRow( key );
      row->table = this;
      row->hash = wanted.second;
      rows_.insert( row );
      return *row;
   }

   EntryHandle::PtrConst written( TypedRow & row, Entry && entry ) {
      EntryHandle::PtrConst handle( &row );
      write( row, new TypedVersion( std::move( entry ) ) );
      return handle;
   }

   void erase( Row & row ) override {
      auto * const typed = static_cast< TypedRow * >( &row );
      rows_.erase( typed );
      delete typed;
   }

   void forEachRow( void ( *function )( void * context, Row & row ), void * context ) override {
      for ( auto * const row : rows_ ) {
         function( context, *row );
      }
   }

   boost::unordered_flat_set< TypedRow *, HashOfRow, SameKey > rows_;
};

}  // namespace Asic
