// Software tables: the image of one table of the forwarding chip.
#pragma once

#include <Asic/Hardware.h>
#include <Asic/SwTableBase.h>
#include <Vexa/Pool.h>
#include <Vexa/RecordSet.h>
#include <Vexa/Type.h>
#include <Vexa/Value.h>

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
   template< class Given = Entry > EntryHandle::PtrConst entryCommit( Key const & key, Given && entry ) {
      auto & row = rowOf( key );
      row.committed = true;
      return written( row, std::forward< Given >( entry ) );
   }

   // Inserts or replaces in place; a row that is not committed stays as long as somebody holds its handle. The handle
   // of an existing row is the same one again.
   template< class Given = Entry > EntryHandle::PtrConst entryRef( Key const & key, Given && entry ) {
      return written( rowOf( key ), std::forward< Given >( entry ) );
   }

   // Takes the key out of look-ups at once; the removal settles later. An absent key: nothing, and nobody is called.
   void entryRemove( Key const & key ) {
      if ( auto * const row = rows_.find( key ); row && row->newest ) {
         remove( *row );
      }
   }

   // Null when the table has no such row. Valid until the row is written or removed.
   Entry const * entry( Key const & key ) const {
      auto const * const row = rows_.find( key );
      return row && row->newest ? &row->entryOf( *row->newest ) : nullptr;
   }

   // Null when the table has no such row. The caller holds nothing unless it makes an EntryHandle::PtrConst.
   EntryHandle const * entryHandle( Key const & key ) const {
      auto const * const row = rows_.find( key );
      return row && row->newest ? row : nullptr;
   }

   // Calls function( key, entry, handle ) for every row that look-ups see.
   template< class Function > void forEach( Function && function ) const {
      for ( auto const * const row : rows_ ) {
         if ( row->newest ) {
            function( row->key, row->entryOf( *row->newest ), static_cast< EntryHandle const & >( *row ) );
         }
      }
   }

   // What the hardware holds, whatever has been asked for since; null when it holds no version of the row.
   Entry const * hardwareEntry( Key const & key ) const {
      auto const * const row = rows_.find( key );
      return row && row->inHardware ? &row->entryOf( *row->inHardware ) : nullptr;
   }

   // Key and entry of a row, or a version, of a table of this type: what a chip is given.
   static Key const & keyOf( Row const & row ) { return static_cast< TypedRow const & >( row ).key; }
   static Entry const & entryOf( Version const & version ) {
      return static_cast< TypedVersion const & >( version ).entry;
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

   static constexpr Vexa::TypeData type{ .name = Traits::typeName };
   Vexa::TypeData const & typeData() const override { return type; }

 private:
   struct TypedVersion final : Version, Vexa::Pooled< TypedVersion > {
      explicit TypedVersion( Entry const & e ) : entry( e ) {}
      explicit TypedVersion( Entry && e ) : entry( std::move( e ) ) {}
      Entry entry;
   };

   struct TypedRow final : Row, Vexa::Pooled< TypedRow > {
      TypedRow( SwTable & owner, Key const & k ) : key( k ) { table = &owner; }

      void describe( std::ostream & out ) const override { Vexa::write( out, key ); }
      Entry & entryOf( Version & version ) const override { return static_cast< TypedVersion & >( version ).entry; }
      ReferringEntry * referringEntryOf( [[maybe_unused]] Version & version ) const override {
         if constexpr ( std::derived_from< Entry, ReferringEntry > ) {
            return &entryOf( version );
         } else {
            return nullptr;
         }
      }
      void free( Version * version ) const override { delete static_cast< TypedVersion * >( version ); }

      Key const key;
   };

   TypedRow & rowOf( Key const & key ) {
      return *rows_.findOrInsert( key, [ & ] { return new TypedRow( *this, key ); } ).first;
   }

   template< class Given > EntryHandle::PtrConst written( TypedRow & row, Given && entry ) {
      EntryHandle::PtrConst handle( &row );
      write( row, new TypedVersion( std::forward< Given >( entry ) ) );
      return handle;
   }

   void erase( Row & row ) override {
      auto * const typed = static_cast< TypedRow * >( &row );
      rows_.erase( typed );
      delete typed;
   }

   void settles( Row & row ) override { rows_.isNext( static_cast< TypedRow * >( &row ) ); }

   void forEachRow( void ( *function )( void * context, Row & row ), void * context ) override {
      for ( auto * const row : rows_ ) {
         function( context, *row );
      }
   }

   Vexa::RecordSet< TypedRow, Traits::hashConstant > rows_;
};

}  // namespace Asic
