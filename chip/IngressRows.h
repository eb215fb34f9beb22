// One ingress table in the kernel.
#pragma once

#include "chip/Maps.h"
#include "chip/PortTable.h"
#include "chip/Rows.h"

#include <boost/unordered/unordered_flat_map.hpp>

#include <cerrno>
#include <functional>
#include <vector>

namespace Ebpf {

// Rows that differ only in what packets do not carry have one key here, and the last one written decides; the key goes
// with the last of them. Keys are known by a hash of 64 bits, which takes a fifth of the memory.
template< class Table > class IngressRows {
 public:
   using Names = ChipTableOf< Table >;
   using Key = typename Names::Key;

   // Reads what is there. `dropped` is told of every row that leaves the chip, or is replaced. Throws Refusal.
   IngressRows( Pins const & pins, PortTable & ports, std::function< void( ChipRow const & ) > dropped )
      : map_( pins.openMap( Names::map ) ), ports_( ports ), dropped_( std::move( dropped ) ) {
      map_.forEach( [ & ]( Key const & key, ChipRow const & row ) {
         owners_.emplace( hashOf( key ), 0 );
         found_.emplace( hashOf( key ), Found{ key, row } );
         ports_.rowCame( Names::shape( key ) );
      } );
   }

   // The row that the chip was found with, while nobody has asked for it; null: none.
   ChipRow const * unclaimed( Key const & key ) const {
      auto const found = found_.find( hashOf( key ) );
      return found == found_.end() ? nullptr : &found->second.row;
   }

   // `number` is the caller's own, for outcome( number, errno ) of carryOut().
   void put( Key const & key, ChipRow const & row, bool addsRow, std::size_t number ) {
      auto const hash = hashOf( key );
      auto & owners = owners_[ hash ];
      bool const isNew = owners == 0 && !found_.contains( hash );
      if ( auto const found = found_.find( hash ); found != found_.end() ) {
         auto const there = found->second.row;
         found_.erase( found );
         if ( __builtin_memcmp( &there, &row, sizeof row ) == 0 ) {
            ++owners;
            settled_.push_back( number );
            return;
         }
         dropped_( there );
      }
      owners += addsRow;
      keys_.push_back( key );
      rows_.push_back( row );
      pending_.push_back( { number, addsRow, isNew } );
   }

   void erase( Key const & key, std::size_t number ) {
      auto const owners = owners_.find( hashOf( key ) );
      if ( owners != owners_.end() && owners->second > 1 ) {
         --owners->second;
         settled_.push_back( number );
         return;
      }
      keys_.push_back( key );
      pending_.push_back( { number, false, false } );
   }

   // Carries out what was put since, or what was erased since.
   template< class Outcome > void putPending( Outcome && outcome ) {
      map_.putAll( keys_, rows_, results_ );
      for ( std::size_t i = 0; i < keys_.size(); ++i ) {
         auto const & [ number, addsRow, isNew ] = pending_[ i ];
         if ( results_[ i ] == 0 && isNew ) {
            ports_.rowCame( Names::shape( keys_[ i ] ) );
         }
         if ( results_[ i ] != 0 && addsRow ) {
            auto const owners = owners_.find( hashOf( keys_[ i ] ) );
            if ( --owners->second == 0 ) {
               owners_.erase( owners );
            }
         }
         written_ += results_[ i ] == 0;
         outcome( number, results_[ i ] );
      }
      settle( outcome );
   }

   template< class Outcome > void erasePending( Outcome && outcome ) {
      map_.eraseAll( keys_, results_ );
      for ( std::size_t i = 0; i < keys_.size(); ++i ) {
         bool const isGone = results_[ i ] == 0 || results_[ i ] == ENOENT;
         if ( isGone && owners_.erase( hashOf( keys_[ i ] ) ) != 0 ) {
            ports_.rowWent( Names::shape( keys_[ i ] ) );
            found_.erase( hashOf( keys_[ i ] ) );
         }
         written_ += results_[ i ] == 0;
         outcome( pending_[ i ].number, isGone ? 0 : results_[ i ] );
      }
      settle( outcome );
   }

   // Calls function( row ) for the rows that the chip was found with and nobody asked for.
   template< class Function > void forEachUnclaimed( Function && function ) const {
      for ( auto const & [ hash, found ] : found_ ) {
         function( found.row );
      }
   }

   // Whether the key goes when one who asked for it goes.
   bool hasOneOwner( Key const & key ) const {
      auto const owners = owners_.find( hashOf( key ) );
      return owners != owners_.end() && owners->second <= 1;
   }

   // Takes out the rows that the chip was found with and nobody asked for.
   void sweep() {
      std::vector< ChipRow > rows;
      for ( auto const & [ hash, found ] : found_ ) {
         keys_.push_back( found.key );
         rows.push_back( found.row );
         pending_.push_back( {} );
      }
      erasePending( []( std::size_t, int ) {} );
      for ( auto const & row : rows ) {
         dropped_( row );
      }
      found_ = {};
   }

   // What the kernel holds under the key; absent: nothing.
   std::optional< ChipRow > held( Key const & key ) const {
      ChipRow row{};
      return map_.find( key, row ) == 0 ? std::optional( row ) : std::nullopt;
   }

   std::size_t count() const { return owners_.size(); }
   U32 room() const { return map_.room(); }
   U64 written() const { return written_; }

 private:
   struct Found {
      Key key;
      ChipRow row;
   };
   struct Pending {
      std::size_t number = 0;
      bool addsRow = false;
      bool isNew = false;
   };

   template< class Outcome > void settle( Outcome && outcome ) {
      for ( auto const number : settled_ ) {
         outcome( number, 0 );
      }
      keys_.clear();
      rows_.clear();
      pending_.clear();
      settled_.clear();
   }

   HashOf< Key, ChipRow > map_;
   PortTable & ports_;
   std::function< void( ChipRow const & ) > dropped_;
   boost::unordered_flat_map< U64, U32 > owners_;  // of each key in the kernel; 0: found, and not asked for yet
   boost::unordered_flat_map< U64, Found > found_;
   std::vector< Key > keys_;
   std::vector< ChipRow > rows_;
   std::vector< Pending > pending_;
   std::vector< std::size_t > settled_;
   std::vector< int > results_;
   U64 written_ = 0;
};

}  // namespace Ebpf
