#include <tests/support/AnyRule.h>

#include <charconv>

namespace Support {

// --- Words for values ------------------------------------------------------------------------------------------------

Netix::IntfId intf( std::string_view name ) { return Netix::IntfId::fromName( name ).value(); }

Netix::IpAddr ip( std::string_view text ) { return Netix::IpAddr::fromText( text ).value(); }

Netix::IpAndPort pair( std::string_view text ) {
   auto const colon = text.find( ':' );
   Netix::IpAndPort result{ ip( text.substr( 0, colon ) ), 0 };
   if ( colon != text.npos ) {
      auto const port = text.substr( colon + 1 );
      std::from_chars( port.data(), port.data() + port.size(), result.port );
   }
   return result;
}

std::string textOf( Netix::IpAndPort const & pair ) {
   return Vexa::stringOf( pair.ip ) + ( pair.port ? ":" + std::to_string( pair.port ) : "" );
}

namespace {

struct Flow {
   Netix::IpAndPort source, destination;
};

Flow flowOf( std::string_view text ) {
   auto const arrow = text.find( " > " );
   return { pair( text.substr( 0, arrow ) ), pair( text.substr( arrow + 3 ) ) };
}

}  // namespace

// --- Rules -----------------------------------------------------------------------------------------------------------

AnyKey keyOf( AnyRule const & rule ) {
   return std::visit( []( auto const & r ) { return AnyKey( r.key ); }, rule );
}

std::string textOf( AnyKey const & key ) {
   return std::visit( []( auto const & k ) { return Vexa::stringOf( k ); }, key );
}

TwiceRule twiceRule( std::string_view before, std::string_view after, std::string_view intfName,
                     TwiceRule::Fields fields ) {
   auto const [ source, destination ] = flowOf( before );
   auto const [ translatedSource, translatedDestination ] = flowOf( after );
   fields.connection = { source, destination, translatedSource, translatedDestination };
   return { { intf( intfName ), { source, destination } },
            Orla::make< Pfe::NatProgrammerTwiceEntry const >( std::move( fields ) ) };
}

DynamicRule dynamicRule( std::string_view flow, std::string_view global, DynamicRule::Fields fields,
                         std::string_view intfName ) {
   auto const [ source, destination ] = flowOf( flow );
   fields.global = pair( global );
   return { { intf( intfName ), { source, destination, 6 } },
            Orla::make< Pfe::NatProgrammerDynamicEntry const >( std::move( fields ) ) };
}

// --- What the programmer offers for each -----------------------------------------------------------------------------

namespace {

// The operations and collections of one kind.
template< class Rule > struct Offer;

template<> struct Offer< StaticRule > {
   static constexpr auto add = &Pfe::NatBaseProgrammerSm::addStaticConnection;
   static constexpr auto update = &Pfe::NatBaseProgrammerSm::updateStaticConnection;
   static constexpr auto del = &Pfe::NatBaseProgrammerSm::deleteStaticConnection;
   static constexpr auto configIs = &Pfe::NatProgrammerConfig::staticEntryIs;
   static constexpr auto configDel = &Pfe::NatProgrammerConfig::staticEntryDel;
   static constexpr auto statusIs = &Pfe::NatProgrammerStatus::staticStatusIs;
   static auto const & config( Pfe::NatProgrammerConfig const & config ) { return config.staticEntry(); }
   static auto const & status( Pfe::NatProgrammerStatus const & status ) { return status.staticStatus(); }
};
template<> struct Offer< TwiceRule > {
   static constexpr auto add = &Pfe::NatBaseProgrammerSm::addTwiceConnection;
   static constexpr auto update = &Pfe::NatBaseProgrammerSm::updateTwiceConnection;
   static constexpr auto del = &Pfe::NatBaseProgrammerSm::deleteTwiceConnection;
   static constexpr auto configIs = &Pfe::NatProgrammerConfig::twiceEntryIs;
   static constexpr auto configDel = &Pfe::NatProgrammerConfig::twiceEntryDel;
   static constexpr auto statusIs = &Pfe::NatProgrammerStatus::twiceStatusIs;
   static auto const & config( Pfe::NatProgrammerConfig const & config ) { return config.twiceEntry(); }
   static auto const & status( Pfe::NatProgrammerStatus const & status ) { return status.twiceStatus(); }
};
template<> struct Offer< DynamicRule > {
   static constexpr auto add = &Pfe::NatBaseProgrammerSm::addDynamicConnection;
   static constexpr auto update = &Pfe::NatBaseProgrammerSm::updateDynamicConnection;
   static constexpr auto del = &Pfe::NatBaseProgrammerSm::deleteDynamicConnection;
   static constexpr auto configIs = &Pfe::NatProgrammerConfig::dynamicEntryIs;
   static constexpr auto configDel = &Pfe::NatProgrammerConfig::dynamicEntryDel;
   static constexpr auto statusIs = &Pfe::NatProgrammerStatus::dynamicStatusIs;
   static auto const & config( Pfe::NatProgrammerConfig const & config ) { return config.dynamicEntry(); }
   static auto const & status( Pfe::NatProgrammerStatus const & status ) { return status.dynamicStatus(); }
};

template< class Rule > using OfferOf = Offer< std::remove_cvref_t< Rule > >;

template< class Function > void forEachKind( Function && function ) {
   function( StaticRule() );
   function( TwiceRule() );
   function( DynamicRule() );
}

}  // namespace

void add( Pfe::NatBaseProgrammerSm & programmer, AnyRule const & rule ) {
   std::visit( [ & ]( auto const & r ) { ( programmer.*OfferOf< decltype( r ) >::add )( r.key, r.entry ); }, rule );
}

void update( Pfe::NatBaseProgrammerSm & programmer, AnyRule const & rule ) {
   std::visit( [ & ]( auto const & r ) { ( programmer.*OfferOf< decltype( r ) >::update )( r.key, r.entry ); }, rule );
}

void del( Pfe::NatBaseProgrammerSm & programmer, AnyRule const & rule ) {
   std::visit( [ & ]( auto const & r ) { ( programmer.*OfferOf< decltype( r ) >::del )( r.key, r.entry ); }, rule );
}

void configure( Pfe::NatProgrammerConfig & config, AnyRule const & rule ) {
   std::visit( [ & ]( auto const & r ) { ( config.*OfferOf< decltype( r ) >::configIs )( r.key, r.entry ); }, rule );
}

void unconfigure( Pfe::NatProgrammerConfig & config, AnyKey const & key ) {
   forEachKind( [ & ]( auto const & kind ) {
      if ( auto const * const own = std::get_if< std::remove_cvref_t< decltype( kind.key ) > >( &key ) ) {
         ( config.*OfferOf< decltype( kind ) >::configDel )( *own );
      }
   } );
}

std::map< AnyKey, AnyRule > configured( Pfe::NatProgrammerConfig const & config ) {
   std::map< AnyKey, AnyRule > rules;
   forEachKind( [ & ]( auto kind ) {
      OfferOf< decltype( kind ) >::config( config ).forEach( [ & ]( auto const & key, auto const & entry ) {
         rules.emplace( key, decltype( kind ){ key, entry } );
      } );
   } );
   return rules;
}

std::map< AnyKey, Outcome > outcomes( Pfe::NatProgrammerStatus const & status ) {
   std::map< AnyKey, Outcome > result;
   forEachKind( [ & ]( auto kind ) {
      OfferOf< decltype( kind ) >::status( status ).forEach( [ & ]( auto const & key, auto const & found ) {
         result.emplace( key, Outcome{ found.result, decltype( kind ){ key, found.entry } } );
      } );
   } );
   return result;
}

std::optional< PfeHelper::NatHwResult > resultOf( Pfe::NatProgrammerStatus const & status, AnyKey const & key ) {
   auto const all = outcomes( status );
   auto const found = all.find( key );
   return found == all.end() ? std::nullopt : std::optional( found->second.result );
}

void resultIs( Pfe::NatProgrammerStatus & status, AnyRule const & rule, PfeHelper::NatHwResult result ) {
   std::visit(
      [ & ]( auto const & r ) {
         ( status.*OfferOf< decltype( r ) >::statusIs )( r.key, { result, r.entry } );
      },
      rule );
}

}  // namespace Support
