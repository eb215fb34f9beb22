#include "RandomRules.h"

#include <tuple>

namespace Model {

using Ip::Nat::NatTarget;
using Support::DynamicRule;
using Support::StaticRule;
using Support::TwiceRule;

namespace {

Netix::IpAndPort pairIn( char const * network, Choices & choices ) {
   return { Netix::IpAddr( Support::ip( network ).value() + 1 + choices.below( 3 ) ),
            choices.of< U16 >( { 0, 80, 80, 81 } ) };
}

Netix::IntfId anyIntf( Choices & choices ) {
   return Support::intf( choices.of( { "ethernet1", "ethernet1", "vlan10" } ) );
}

// The fields of an entry, so that a changed one can be made of them.
StaticRule::Fields fieldsOf( Pfe::NatProgrammerStaticEntry const & entry ) {
   return { entry.vrfId(),   entry.vlanId(),  entry.intfQualifier(),   entry.connection(),
            entry.nextHop(), entry.aclName(), entry.filtersDisabled(), entry.filters() };
}
TwiceRule::Fields fieldsOf( Pfe::NatProgrammerTwiceEntry const & entry ) {
   return { entry.vrfId(), entry.vlanId(), entry.intfQualifier(), entry.connection(), entry.nextHop() };
}
DynamicRule::Fields fieldsOf( Pfe::NatProgrammerDynamicEntry const & entry ) {
   return { entry.vrfId(), entry.intfQualifier(), entry.connection(), entry.global(), entry.nextHop() };
}

template< class Rule > Rule withFields( Rule rule, typename Rule::Fields const & fields ) {
   rule.entry = Orla::make< std::remove_const_t< std::remove_reference_t< decltype( *rule.entry ) > > >( fields );
   return rule;
}

NatTarget otherTarget( NatTarget target ) {
   return target == NatTarget::source ? NatTarget::destination : NatTarget::source;
}

// --- Fields that an update in place may change -----------------------------------------------------------------------

template< class Fields > void varyWhatRowsCarry( Fields & fields, Choices & choices ) {
   fields.nextHop = nullptr;
   if ( !choices.oneIn( 3 ) ) {
      fields.nextHop = Orla::make< Pfe::NatNextHopId >( choices.below( 3 ) );
   } else if ( choices.oneIn( 2 ) ) {
      fields.nextHop = Orla::make< Pfe::NatNextHopInfo >();
   }
}

void varyWhatRowsCarry( StaticRule::Fields & fields, Choices & choices ) {
   switch ( choices.below( 4 ) ) {
   case 0: break;  // nothing changes
   case 1: varyWhatRowsCarry< StaticRule::Fields >( fields, choices ); break;
   case 2: fields.aclName = choices.of( { "", "a", "b", "c" } ); break;
   case 3:
      fields.filtersDisabled = choices.oneIn( 3 );
      fields.filters.clear();
      for ( U32 i = choices.below( 3 ); i > 0; --i ) {
         fields.filters[ choices.below( 10 ) ].sourcePort = static_cast< U16 >( i );
      }
      break;
   }
}

// --- A field that decides keys, or whether rows exist ----------------------------------------------------------------

void varyWhatDecidesRows( StaticRule::Fields & fields, Choices & choices ) {
   auto & connection = fields.connection;
   switch ( choices.below( 7 ) ) {
   case 0:
      connection.translated = pairIn( connection.translated.ip.isMulticast() ? "239.1.0.0" : "192.0.2.0", choices );
      break;
   case 1: connection.target = otherTarget( connection.target ); break;
   case 2: connection.protocol = choices.of< U8 >( { 0, 6, 17 } ); break;
   case 3: fields.vrfId = choices.of< U32 >( { 0, 7 } ); break;
   case 4: fields.vlanId = choices.of< U16 >( { 0, 10 } ); break;
   case 5: fields.intfQualifier = choices.of< U16 >( { 5, 6 } ); break;
   case 6: connection.translated.port = choices.of< U16 >( { 0, 80, 8080 } ); break;
   }
}

void varyWhatDecidesRows( TwiceRule::Fields & fields, Choices & choices ) {
   auto & connection = fields.connection;
   switch ( choices.below( 5 ) ) {
   case 0: connection.translatedSource = pairIn( "192.0.2.0", choices ); break;
   case 1:
      connection.translatedDestination =
         pairIn( connection.destination.ip.isMulticast() ? "239.1.0.0" : "10.9.0.0", choices );
      break;
   case 2: fields.vrfId = choices.of< U32 >( { 0, 7, 0x01000000 } ); break;
   case 3: fields.vlanId = choices.of< U16 >( { 0, 10 } ); break;
   case 4: fields.intfQualifier = choices.of< U16 >( { 5, 6 } ); break;
   }
}

void varyWhatDecidesRows( DynamicRule::Fields & fields, Choices & choices ) {
   auto & connection = fields.connection;
   switch ( choices.below( 6 ) ) {
   case 0: fields.global = pairIn( connection.target == NatTarget::source ? "192.0.2.0" : "10.0.0.0", choices ); break;
   case 1: connection.target = otherTarget( connection.target ); break;
   case 2: connection.addrOnly = !connection.addrOnly; break;
   case 3: connection.fullCone = !connection.fullCone; break;
   case 4: fields.vrfId = choices.of< U32 >( { 0, 7, 0x00ffffff, 0x01000000 } ); break;
   case 5: fields.intfQualifier = choices.of< U16 >( { 5, 6 } ); break;
   }
}

// --- New rules -------------------------------------------------------------------------------------------------------

StaticRule anyStatic( Choices & choices ) {
   bool const multicast = choices.oneIn( 5 );
   auto const keyPair = pairIn( multicast ? "239.0.0.0" : "10.0.0.0", choices );
   StaticRule::Fields fields{ .intfQualifier = 5,
                              .connection = { .translated = pairIn( multicast ? "239.1.0.0" : "192.0.2.0", choices ),
                                              .target = choices.of( { NatTarget::source, NatTarget::destination } ),
                                              .protocol = 6 } };
   if ( choices.oneIn( 2 ) ) {
      varyWhatRowsCarry( fields, choices );
   }
   return withFields(
      StaticRule{ { anyIntf( choices ), { choices.oneIn( 4 ) ? "k" : "", keyPair.ip, keyPair.port } }, {} }, fields );
}

TwiceRule anyTwice( Choices & choices ) {
   bool const multicast = choices.oneIn( 5 );
   auto const source = pairIn( "10.0.0.0", choices );
   auto const destination = pairIn( multicast ? "239.0.0.0" : "192.0.2.0", choices );
   TwiceRule::Fields fields{ .intfQualifier = 5,
                             .connection = { source, destination, pairIn( "192.0.2.0", choices ),
                                             pairIn( multicast ? "239.1.0.0" : "10.9.0.0", choices ) } };
   varyWhatRowsCarry( fields, choices );
   return withFields( TwiceRule{ { anyIntf( choices ), { source, destination } }, {} }, fields );
}

DynamicRule anyDynamic( bool addrOnly, Choices & choices ) {
   bool const isSource = !choices.oneIn( 3 );
   auto const inside = pairIn( "10.0.0.0", choices ), outside = pairIn( "192.0.2.0", choices ),
              peer = pairIn( "203.0.113.0", choices );
   DynamicRule::Fields fields{ .intfQualifier = 5,
                               .connection = { isSource ? NatTarget::source : NatTarget::destination, addrOnly, false },
                               .global = isSource ? outside : inside };
   varyWhatRowsCarry( fields, choices );
   if ( choices.oneIn( 6 ) ) {
      varyWhatDecidesRows( fields, choices );
   }
   Netix::ConnTuple const conn{ isSource ? inside : peer, isSource ? peer : outside, choices.of< U8 >( { 6, 17 } ) };
   return withFields( DynamicRule{ { anyIntf( choices ), conn }, {} }, fields );
}

// --- The same rows under another key ---------------------------------------------------------------------------------

StaticRule moved( StaticRule rule, Choices & choices ) {
   if ( choices.oneIn( 2 ) ) {
      rule.key.key.aclName = rule.key.key.aclName.empty() ? "k" : "";
      return withFields( rule, fieldsOf( *rule.entry ) );
   }
   auto fields = fieldsOf( *rule.entry );
   auto & connection = fields.connection;
   Netix::IpAndPort const keyPair{ rule.key.key.ip, rule.key.key.port };
   rule.key.key.ip = connection.translated.ip;
   rule.key.key.port = connection.translated.port;
   connection.translated = keyPair;
   connection.target = otherTarget( connection.target );
   return withFields( rule, fields );
}

TwiceRule moved( TwiceRule const & rule, Choices & ) { return withFields( rule, fieldsOf( *rule.entry ) ); }

DynamicRule moved( DynamicRule rule, Choices & choices ) {
   if ( choices.oneIn( 2 ) ) {
      rule.key.natIntf = Support::intf( rule.key.natIntf == Support::intf( "vlan10" ) ? "ethernet1" : "vlan10" );
      return withFields( rule, fieldsOf( *rule.entry ) );
   }
   auto fields = fieldsOf( *rule.entry );
   auto & [ source, destination, protocol ] = rule.key.conn;
   if ( fields.connection.target == NatTarget::source ) {
      std::tie( source, destination, fields.global ) = std::tuple( destination, fields.global, source );
   } else {
      std::tie( source, destination, fields.global ) = std::tuple( fields.global, source, destination );
   }
   fields.connection.target = otherTarget( fields.connection.target );
   return withFields( rule, fields );
}

}  // namespace

// --- Of any kind -----------------------------------------------------------------------------------------------------

AnyRule anyRule( Choices & choices ) {
   switch ( choices.below( 4 ) ) {
   case 0: return anyStatic( choices );
   case 1: return anyTwice( choices );
   case 2: return anyDynamic( false, choices );
   default: return anyDynamic( true, choices );
   }
}

AnyRule anew( AnyRule const & rule ) {
   return std::visit( []( auto const & r ) { return AnyRule( withFields( r, fieldsOf( *r.entry ) ) ); }, rule );
}

AnyRule withOtherContents( AnyRule const & rule, Choices & choices ) {
   return std::visit(
      [ & ]( auto const & r ) {
         auto fields = fieldsOf( *r.entry );
         varyWhatRowsCarry( fields, choices );
         return AnyRule( withFields( r, fields ) );
      },
      rule );
}

AnyRule withOtherRows( AnyRule const & rule, Choices & choices ) {
   return std::visit(
      [ & ]( auto const & r ) {
         auto fields = fieldsOf( *r.entry );
         varyWhatDecidesRows( fields, choices );
         return AnyRule( withFields( r, fields ) );
      },
      rule );
}

AnyRule withRowsMoved( AnyRule const & rule, Choices & choices ) {
   return std::visit( [ & ]( auto const & r ) { return AnyRule( moved( r, choices ) ); }, rule );
}

}  // namespace Model
