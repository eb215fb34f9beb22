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
using testing::IsEmpty;

Netix::IpAddrWithFullMask host( char const * address ) { return { ip( address ), ip( "255.255.255.255" ) }; }

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

// Small numbers and the whole width; a few ranges show what many would.
RC_GTEST_PROP( PortRange, IsMatchedExactlyAndByTheFewestEntries, () ) {
   auto const port = rc::gen::resize( 200, rc::gen::arbitrary< U16 >() );
   auto const ends =
      *rc::gen::resize( 4, rc::gen::container< std::vector< std::pair< U16, U16 > > >( rc::gen::pair( port, port ) ) );
   PortSpec ports;
   for ( auto const & [ a, b ] : ends ) {
      ports.ranges.push_back( { std::min( a, b ), std::max( a, b ) } );
   }
   U8 count = 0;
   auto const lists = generatePortRange( ports, count, true );
   RC_ASSERT( lists.size() == count );
   RC_ASSERT( lists.size() == std::max< std::size_t >( 1, ends.size() ) );
   for ( std::size_t i = 0; i < ports.ranges.size(); ++i ) {
      auto const [ first, last ] = ports.ranges[ i ];
      std::vector< unsigned > matches( 0x10000 );
      for ( auto const & entry : lists[ i ] ) {
         for ( U32 matched = 0; matched <= ( entry.mask ^ 0xffffU ); ++matched ) {
            ++matches[ entry.value + matched ];
         }
      }
      std::vector< unsigned > wanted( 0x10000 );
      std::fill( wanted.begin() + first, wanted.begin() + last + 1, 1U );
      RC_ASSERT( matches == wanted );
      RC_ASSERT( lists[ i ].size() == fewestBlocks( first, last ) );
   }
}

// --- Filters ---------------------------------------------------------------------------------------------------------

TEST( TrapFilter, StandInTheOrderOfTheirFieldsOfWhichSomeDescend ) {
   NatTrapFilter const base{ .sequence = 5,
                             .source = host( "10.0.0.5" ),
                             .destination = host( "10.0.0.5" ),
                             .protocol = 5,
                             .protocolMask = 5,
                             .permit = 5,
                             .flagMask = 5,
                             .sourcePortOp = 5,
                             .sourcePort = { { { 5, 5 } } },
                             .destinationPortOp = 5,
                             .destinationPort = { { { 5, 5 } } } };
   struct Field {
      char const * name;
      bool descends;
      std::function< void( NatTrapFilter &, U8 ) > set;
   };
   auto const hostOf = []( U8 value ) { return host( ( "10.0.0." + std::to_string( value ) ).c_str() ); };
   auto const ports = []( U8 value ) { return PortSpec{ { { value, value } } }; };
   std::vector< Field > const fields{
      { "sequence", true, []( auto & f, U8 value ) { f.sequence = value; } },
      { "source", false, [ & ]( auto & f, U8 value ) { f.source = hostOf( value ); } },
      { "destination", false, [ & ]( auto & f, U8 value ) { f.destination = hostOf( value ); } },
      { "protocol", true, []( auto & f, U8 value ) { f.protocol = value; } },
      { "protocol mask", true, []( auto & f, U8 value ) { f.protocolMask = value; } },
      { "permit", true, []( auto & f, U8 value ) { f.permit = value; } },
      { "flag mask", true, []( auto & f, U8 value ) { f.flagMask = value; } },
      { "source port operator", false, []( auto & f, U8 value ) { f.sourcePortOp = value; } },
      { "source port", false, [ & ]( auto & f, U8 value ) { f.sourcePort = ports( value ); } },
      { "destination port operator", true, []( auto & f, U8 value ) { f.destinationPortOp = value; } },
      { "destination port", false, [ & ]( auto & f, U8 value ) { f.destinationPort = ports( value ); } },
   };
   for ( std::size_t i = 0; i < fields.size(); ++i ) {
      SCOPED_TRACE( fields[ i ].name );
      auto first = base, second = base;
      fields[ i ].set( first, fields[ i ].descends ? 9 : 1 );
      // Whatever later fields say.
      for ( std::size_t later = i + 1; later < fields.size(); ++later ) {
         fields[ later ].set( first, fields[ later ].descends ? 1 : 9 );
      }
      EXPECT_TRUE( first < second );
      EXPECT_FALSE( second < first );
   }
   EXPECT_FALSE( base < base );
}

// --- ACLs ------------------------------------------------------------------------------------------------------------

struct Trap : testing::Test {
   // The rules of the ACL that the trap becomes, by the number that they are written under.
   std::map< U32, Pfe::NatTrapRule > rulesOf( NatDynamicTrapRule const & rule, U32 vrfId = 7 ) {
      nat->addTrap( key, Orla::make< Pfe::NatProgrammerTrapEntry const >( vrfId, rule ) );
      auto const * const acl = nat.traps->trapAcl().find( { "lab", 4, rule.ruleId } );
      return acl ? acl->ruleBySequence() : std::map< U32, Pfe::NatTrapRule >();
   }
   // The one rule that a filter with these port fields becomes: "value/mask value/mask".
   std::string portsOf( PortSpec const & source, PortSpec const & destination ) {
      NatDynamicTrapRule rule;
      rule.trapFilter.is( { .sequence = 10, .sourcePort = source, .destinationPort = destination } );
      auto const rules = rulesOf( rule );
      EXPECT_EQ( rules.size(), 1U );
      auto const & written = rules.at( 12 );
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
                         .destination = host( "192.0.2.1" ),
                         .protocol = 6,
                         .protocolMask = 255,
                         .permit = 1,
                         .flagMask = 9,
                         .sourcePort = { { { 80, 80 } } },
                         .destinationPort = { { { 1024, 2047 } } } };
   rule.trapFilter.is( filter );
   filter.sequence = 0;
   filter.permit = 0;
   rule.trapFilter.is( filter );
   Pfe::NatTrapRule const expected{ .sequence = 10,
                                    .vrfId = 7,
                                    .source = filter.source,
                                    .destination = filter.destination,
                                    .sourcePort = 80,
                                    .sourcePortMask = 0xffff,
                                    .destinationPort = 1024,
                                    .destinationPortMask = 0xfc00,
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
}

TEST_F( Trap, TheVrfIsZeroWhereRulesMatchWhateverTheVrf ) {
   nat.config->vrfLessIs( true );
   NatDynamicTrapRule rule{ .trapAll = true };
   rule.trapFilter.is( { .sequence = 10 } );
   for ( auto const & [ sequence, written ] : rulesOf( rule ) ) {
      EXPECT_EQ( written.vrfId, 0U ) << sequence;
   }
}

TEST_F( Trap, OfAFiltersPortPairsTheLastStandsPairedByTheSourcesIndex ) {
   PortSpec const any;
   PortSpec const one{ { { 0x50, 0x50 } } };
   PortSpec const two{ { { 0x50, 0x51 }, { 0x5a, 0x5c } } };
   PortSpec const three{ { { 1, 1 }, { 5, 7 }, { 9, 9 } } };
   struct {
      char const * name;
      PortSpec source, destination;
      char const * written;
   } const rows[] = {
      { "any to any", any, any, "0/0 0/0" },
      { "one to any", one, any, "50/ffff 0/0" },
      { "any to one", any, one, "0/0 50/ffff" },
      { "several to any: there is no second destination", two, any, "50/fffe 0/0" },
      { "any to several: only the first destination", any, three, "0/0 1/ffff" },
      { "several to several: the last of both second ones", two, three, "5c/ffff 6/fffe" },
      { "more sources than destinations", three, two, "6/fffe 5c/ffff" },
   };
   for ( auto const & row : rows ) {
      SCOPED_TRACE( row.name );
      EXPECT_EQ( portsOf( row.source, row.destination ), row.written );
   }
}

TEST_F( Trap, FiltersOfOneNumberReplaceEachOtherInTheirOrder ) {
   NatDynamicTrapRule rule;
   for ( U8 const protocol : { 6, 17, 1 } ) {
      rule.trapFilter.is( { .sequence = 10, .protocol = protocol } );
   }
   auto const rules = rulesOf( rule );
   ASSERT_EQ( rules.size(), 1U );
   EXPECT_EQ( rules.at( 12 ).protocol, 1 );
}

TEST_F( Trap, IsReplacedWholeAndRemovedByTheSameKey ) {
   NatDynamicTrapRule first{ .ruleId = 2, .trapAll = true };
   auto second = first;
   second.trapAll = false;
   second.trapFilter.is( { .sequence = 10 } );
   NatDynamicTrapRule const other{ .ruleId = 3, .trapAll = true };
   rulesOf( other );
   rulesOf( first );
   EXPECT_THAT( rulesOf( second ), ElementsAre( testing::Key( 12U ) ) );
   EXPECT_EQ( nat.traps->trapAcl().count(), 2U );
   for ( int again = 0; again < 2; ++again ) {
      nat->deleteTrap( key, Orla::make< Pfe::NatProgrammerTrapEntry const >( 0, first ) );
      EXPECT_EQ( nat.traps->trapAcl().count(), 1U );
   }
   nat->deleteTrap( key, Orla::make< Pfe::NatProgrammerTrapEntry const >( 0, other ) );
   EXPECT_EQ( nat.traps->trapAcl().count(), 0U );
   EXPECT_THAT( rulesOf( {} ), IsEmpty() );
}

// A trap whose key stays is added over the old one; one whose rule id changes is a trap of another key.
TEST_F( Trap, ConfigurationChangesReplaceItOrTakeTheOldOneOut ) {
   nat->replay();
   auto const configure = [ & ]( U16 ruleId, bool trapAll ) {
      nat.config->trapEntryIs( key, Orla::make< Pfe::NatProgrammerTrapEntry const >(
                                       7, NatDynamicTrapRule{ .ruleId = ruleId, .trapAll = trapAll } ) );
   };
   configure( 2, true );
   configure( 2, false );
   EXPECT_THAT( nat.traps->trapAcl().find( { "lab", 4, 2 } )->ruleBySequence(), IsEmpty() );
   configure( 3, true );
   EXPECT_FALSE( nat.traps->trapAcl().has( { "lab", 4, 2 } ) );
   EXPECT_TRUE( nat.traps->trapAcl().has( { "lab", 4, 3 } ) );
   nat.config->trapEntryDel( key );
   EXPECT_EQ( nat.traps->trapAcl().count(), 0U );
}

using TrapDeathTest = Trap;

TEST_F( TrapDeathTest, StopsAtARangeWithoutPorts ) {
   PortSpec const empty{ { { 2, 1 } } };
   EXPECT_DEATH( portsOf( empty, {} ), "^srcVect\\[ iSrc \\]\\.size\\(\\)\n" );
   EXPECT_DEATH( portsOf( {}, empty ), "^dstVect\\[ iDst \\]\\.size\\(\\)\n" );
}

}  // namespace
