// Sets of VLAN ids.
#pragma once

#include <Bridging/VlanId.h>

#include <bit>
#include <cstddef>
#include <memory>
#include <utility>

namespace [[gnu::visibility( "default" )]] Bridging {

// A bit per id, in words of 64, of which only those are kept that have one: ids that are close together take 24 bytes,
// all of them 512 more. So a set is cheap to copy whatever it holds.
class VlanIdSet {
 public:
   VlanIdSet() = default;
   VlanIdSet( VlanIdSet const & other );
   VlanIdSet( VlanIdSet && other ) noexcept { swap( other ); }
   VlanIdSet & operator=( VlanIdSet other ) noexcept {
      swap( other );
      return *this;
   }

   std::size_t count() const;
   bool has( VlanId vlanId ) const {
      return ( present_ & placeOf( vlanId ) ) && ( wordOf( vlanId ) & bitOf( vlanId ) );
   }
   // False when the id was there already.
   bool is( VlanId vlanId );
   // False when the id was absent.
   bool del( VlanId vlanId );

   // Calls function( vlanId ) for each, in their order.
   template< class Function > void forEach( Function && function ) const {
      auto const * word = words();
      for ( auto places = present_; places != 0; places &= places - 1, ++word ) {
         auto const first = U64{ wordBits } * static_cast< unsigned >( std::countr_zero( places ) );
         for ( auto bits = *word; bits != 0; bits &= bits - 1 ) {
            function( VlanId( first + static_cast< unsigned >( std::countr_zero( bits ) ) ) );
         }
      }
   }

   friend bool operator==( VlanIdSet const & a, VlanIdSet const & b );

 private:
   static constexpr unsigned wordBits = 64;
   static_assert( VlanId::max < wordBits * wordBits, "a word tells which words there are" );

   static U64 placeOf( VlanId vlanId ) { return U64{ 1 } << ( vlanId.value() / wordBits ); }
   static U64 bitOf( VlanId vlanId ) { return U64{ 1 } << ( vlanId.value() % wordBits ); }

   std::size_t wordCount() const { return static_cast< std::size_t >( std::popcount( present_ ) ); }
   // How many words stand before the one that has the id.
   std::size_t indexOf( VlanId vlanId ) const {
      return static_cast< std::size_t >( std::popcount( present_ & ( placeOf( vlanId ) - 1 ) ) );
   }
   U64 const * words() const { return many_ ? many_.get() : &single_; }
   U64 * words() { return many_ ? many_.get() : &single_; }
   U64 const & wordOf( VlanId vlanId ) const { return words()[ indexOf( vlanId ) ]; }

   void swap( VlanIdSet & other ) noexcept {
      std::swap( present_, other.present_ );
      std::swap( single_, other.single_ );
      many_.swap( other.many_ );
   }

   U64 present_ = 0;  // a bit per word that has one
   U64 single_ = 0;
   std::unique_ptr< U64[] > many_;  // null: the only word is single_
};

}  // namespace Bridging
