// Random contents for every value type of the platform, by its own description.
#pragma once

#include <Netix/IntfId.h>
#include <Netix/IpAddr.h>
#include <Orla/String.h>
#include <Vexa/Ranged.h>
#include <Vexa/Union.h>
#include <Vexa/Value.h>

#include <random>
#include <string>

namespace Support {

using Random = std::mt19937;

template< class T > struct RandomValue;

template< class T > T randomValue( Random & random ) { return RandomValue< T >::make( random ); }

template< Vexa::Scalar T > struct RandomValue< T > {
   static T make( Random & random ) {
      // Small numbers as often as large ones, so that values meet.
      U64 const wide = ( U64{ random() } << 32 | random() ) >> random() % 64;
      return std::is_same_v< T, bool > ? static_cast< T >( wide & 1 ) : static_cast< T >( wide );
   }
};

template< class Traits > struct RandomValue< Vexa::Ranged< Traits > > {
   static Vexa::Ranged< Traits > make( Random & random ) {
      return Vexa::Ranged< Traits >( std::uniform_int_distribution< U64 >( Traits::min, Traits::max )( random ) );
   }
};

template<> struct RandomValue< Netix::IpAddr > {
   static Netix::IpAddr make( Random & random ) { return Netix::IpAddr( static_cast< U32 >( random() ) ); }
};

template<> struct RandomValue< Netix::IntfId > {
   static Netix::IntfId make( Random & random ) {
      static constexpr char const * kinds[] = { "ethernet", "vlan", "port-channel", "loopback", "tunnel" };
      auto const kind = random() % 6;
      auto const number = random() % ( Netix::IntfId::maxNumber + 1 );
      return kind == 5 ? Netix::IntfId() : *Netix::IntfId::fromName( kinds[ kind ] + std::to_string( number ) );
   }
};

template<> struct RandomValue< Orla::String > {
   static Orla::String make( Random & random ) {
      static constexpr std::string_view awkward( "'\\xab0\n\0\x7f\xff,=)", 13 );
      std::string text( random() % 9, ' ' );
      for ( auto & c : text ) {
         c = random() % 2 == 0 ? awkward[ random() % awkward.size() ] : static_cast< char >( random() );
      }
      return Orla::String( text );
   }
};

template< Vexa::Described T > struct RandomValue< T > {
   static T make( Random & random ) {
      T value;
      auto const fill = [ & ]( auto & member ) {
         member = randomValue< std::remove_cvref_t< decltype( member ) > >( random );
      };
      std::apply( [ & ]( auto... attribute ) { ( fill( value.*attribute.member ), ... ); }, T::attributes() );
      return value;
   }
};

template< class Names, class... Alternatives > struct RandomValue< Vexa::Union< Names, Alternatives... > > {
   using Union = Vexa::Union< Names, Alternatives... >;
   static Union make( Random & random ) {
      using Make = Union ( * )( Random & );
      static constexpr Make makers[] = { []( Random & r ) { return Union( randomValue< Alternatives >( r ) ); }... };
      return makers[ random() % sizeof...( Alternatives ) ]( random );
   }
};

}  // namespace Support
