// Trap rules: the order of their filters, how port fields become values and masks, and the ACLs that hold them.
#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <tests/support/Programmer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

namespace {

using Acl::PortSpec;
using Ip::Nat::NatDynamicTrapRule;
using Ip::Nat::NatTrapFilter;
using Support::ip;
using testing::ElementsAre;

// --- Port fields -----------------------------------------------------------------------------------------------------

// The fewest aligned blocks that cover the range, found by halving.
unsigned fewestBlocks( U32 first, U32 last, U32 blockFirst = 0, U32 blockLast = 0xffff ) {
   if ( last < blockFirst || blockLast < first ) {
      return 0;
   }
   if ( first <= blockFirst && blockLast <= last ) {
      return 1;
   }
   U32 const middle = ( blockFirst + blockLast ) / 2;
   return fewestBlocks( first, last, blockFirst, middle ) + fewestBlocks( first, last, middle + 1, blockLast );
}

RC_GTEST_PROP( PortRange, IsMatchedExactlyAndByTheFewestEntries, () ) {
   auto const port = rc::gen::resize( 200, rc::gen::arbitrary< U16 >() );  // small numbers and the whole width
   U16 const one = *port, other = *port;
   auto const [ first, last ] = std::minmax( one, other );
   U8 count = 0;
   auto const lists = generatePortRange( PortSpec{ { { 7, 7 }, { first, last } } }, count, true );
   RC_ASSERT( count == 2 && lists.size() == 2 );
   std::vector< unsigned > matches( 0x10000 ), wanted( 0x10000 );
   for ( auto const & entry : lists[ 1 ] ) {
      for ( U32 matched = 0; matched <= ( entry.mask ^ 0xffffU ); ++matched ) {
         ++matches[ entry.value + matched ];
      }
   }
   std::fill( wanted.begin() + first, wanted.begin() + last + 1, 1U );
   RC_ASSERT( matches == wanted );
   RC_ASSERT( lists[ 1 ].size() == fewestBlocks( first, last ) );
}

// --- Filters ---------------------------------------------------------------------------------------------------------

TEST( TrapFilter, StandInTheOrderOfTheirFieldsOfWhichSomeDescend ) {
   struct {
      char const * name;
      bool descends;
      void ( *set )( NatTrapFilter & filter, U8 value );
   } const fields[] = {
      { "sequence", true, []( auto & f, U8 value ) { f.sequence = value; } },
      { "source", false, []( auto & f, U8 value ) { f.source.address = Netix::IpAddr( value ); } },
      { "destination", false, []( auto & f, U8 value ) { f.destination.address = Netix::IpAddr( value ); } },
      { "protocol", true, []( auto & f, U8 value ) { f.protocol = value; } },
      { "protocol mask", true, []( auto & f, U8 value ) { f.protocolMask = value; } },
      { "permit", true, []( auto & f, U8 value ) { f.permit = value; } },
      { "flag mask", true, []( auto & f, U8 value ) { f.flagMask = value; } },
      { "source port operator", false, []( auto & f, U8 value ) { f.sourcePortOp = value; } },
      { "source port", false,
        []( auto & f, U8 value ) {
           f.sourcePort = { { { value, value } } };
        } },
      { "destination port operator", true, []( auto & f, U8 value ) { f.destinationPortOp = value; } },
      { "destination port", false,
        []( auto & f, U8 value ) {
           f.destinationPort = { { { value, value } } };
        } },
   };
   for ( std::size_t i = 0; i < std::size( fields ); ++i ) {
      SCOPED_TRACE( fields[ i ].name );
      NatTrapFilter first, second;
      // Whatever later fields say.
      for ( std::size_t k = 0; k < std::size( fields ); ++k ) {
         bool const isSmaller = ( k == i ) != fields[ k ].descends;
         fields[ k ].set( first, k < i ? 5 : isSmaller ? 1 : 9 );
         fields[ k ].set( second, 5 );
      }
      EXPECT_TRUE( first < second );
      EXPECT_FALSE( second < first || first < first );
   }
}

// --- ACLs ------------------------------------------------------------------------------------------------------------

struct Trap : testing::Test {
   // The rules of the ACL that the trap becomes, by the number that they are written under.
   std::map< U32, Pfe::NatTrapRule > rulesOf( NatDynamicTrapRule const & rule ) {
      nat->addTrap( key, Orla::make< Pfe::NatProgrammerTrapEntry const >( 7U, rule ) );
      auto const * const acl = nat.traps->trapAcl().find( { "lab", 4, rule.ruleId } );
      return acl ? acl->ruleBySequence() : std::map< U32, Pfe::NatTrapRule >();
   }
   // The one rule that a filter with these port fields becomes: "value/mask value/mask".
   std::string portsOf( PortSpec const & source, PortSpec const & destination ) {
      NatDynamicTrapRule rule;
      rule.trapFilter.is( { .sequence = 10, .sourcePort = source, .destinationPort = destination } );
      auto const written = rulesOf( rule ).at( 12 );
      std::ostringstream out;
      out << std::hex << written.sourcePort << '/' << written.sourcePortMask << ' ' << written.destinationPort << '/'
          << written.destinationPortMask;
      return out.str();
   }

   Support::Programmer nat;
   Pfe::NatProgrammerTrapKey const key{ Support::intf( "ethernet1" ), { "lab", 4 } };
};

TEST_F( Trap, AFilterBecomesOneRuleUnderANumberOfItsOwn ) {
   NatDynamicTrapRule rule{ .ruleId = 2, .poolValue = 3, .trapAll = true, .priority = 4, .action = 5 };
   NatTrapFilter filter{ .sequence = 10,
                         .source = { ip( "10.0.0.0" ), ip( "255.0.255.0" ) },
                         .destination = { ip( "192.0.2.1" ), ip( "255.255.255.255" ) },
                         .protocol = 6,
                         .protocolMask = 255,
                         .permit = 1,
                         .flagMask = 9 };
   rule.trapFilter.is( filter );
   filter.sequence = 0;
   filter.permit = 0;
   rule.trapFilter.is( filter );
   Pfe::NatTrapRule const expected{ .sequence = 10,
                                    .vrfId = 7,
                                    .source = filter.source,
                                    .destination = filter.destination,
                                    .trap = 0,
                                    .protocol = 6,
                                    .protocolMask = 255 };
   auto lowest = expected;
   lowest.sequence = 0;
   lowest.trap = 1;
   EXPECT_THAT( rulesOf( rule ), ElementsAre( std::pair( 1U, Pfe::NatTrapRule{ .sequence = 1, .vrfId = 7, .trap = 1 } ),
                                              std::pair( 2U, lowest ), std::pair( 12U, expected ) ) );
   auto const & acl = *nat.traps->trapAcl().find( { "lab", 4, 2 } );
   EXPECT_EQ( std::tuple( acl.poolValue, acl.priority, acl.action ), std::tuple( 3, 4, 5 ) );
   EXPECT_TRUE( Support::outcomes( *nat.status ).empty() );

   nat.config->vrfLessIs( true );
   for ( auto const & [ sequence, written ] : rulesOf( rule ) ) {
      EXPECT_EQ( written.vrfId, 0U ) << sequence;
   }
}

TEST_F( Trap, OfAFiltersPortPairsTheLastStandsPairedByTheSourcesIndex ) {
   PortSpec const any;
   PortSpec const one{ { { 0x50, 0x50 } } };
   PortSpec const two{ { { 0x50, 0x51 }, { 0x5a, 0x5c } } };
   PortSpec const three{ { { 1, 1 }, { 5, 7 }, { 9, 9 } } };
   EXPECT_EQ( portsOf( any, any ), "0/0 0/0" );
   EXPECT_EQ( portsOf( one, any ), "50/ffff 0/0" );
   EXPECT_EQ( portsOf( any, one ), "0/0 50/ffff" );
   EXPECT_EQ( portsOf( two, any ), "50/fffe 0/0" ) << "there is no second destination";
   EXPECT_EQ( portsOf( any, three ), "0/0 1/ffff" ) << "only the first destination";
   EXPECT_EQ( portsOf( two, three ), "5c/ffff 6/fffe" ) << "the last of both second ones";
   EXPECT_EQ( portsOf( three, two ), "6/fffe 5c/ffff" );
   PortSpec const empty{ { { 2, 1 } } };
   EXPECT_DEATH( portsOf( empty, any ), "^srcVect\\[ iSrc \\]\\.size\\(\\)\n" );
   EXPECT_DEATH( portsOf( any, empty ), "^dstVect\\[ iDst \\]\\.size\\(\\)\n" );
}

TEST_F( Trap, IsReplacedWholeAndRemovedByTheSameKey ) {
   NatDynamicTrapRule const first{ .ruleId = 2, .trapAll = true }, other{ .ruleId = 3, .trapAll = true };
   NatDynamicTrapRule second{ .ruleId = 2 };
   for ( U8 const protocol : { 6, 17, 1 } ) {  // of one number, the last stands
      second.trapFilter.is( { .sequence = 10, .protocol = protocol } );
   }
   rulesOf( other );
   rulesOf( first );
   auto const rules = rulesOf( second );
   ASSERT_THAT( rules, ElementsAre( testing::Key( 12U ) ) );
   EXPECT_EQ( rules.at( 12 ).protocol, 1 );
   for ( auto const & [ rule, left ] : { std::pair( &first, 1U ), { &first, 1U }, { &other, 0U } } ) {
      nat->deleteTrap( key, Orla::make< Pfe::NatProgrammerTrapEntry const >( 0U, *rule ) );
      EXPECT_EQ( nat.traps->trapAcl().count(), left );
   }
}

}  // namespace
