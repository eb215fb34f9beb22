// No operation looks at other connections than its own: what one connection costs is the same among few and among many.
// Costs are counted, never timed: edges of the control flow that the two libraries take (they are compiled for it, see
// PFENAT_COUNT_EDGES), so that a look-up, a copy or a walk anywhere counts; writes and removals that reach the chip;
// and allocations.
#include "PfeNat/PfeNatProgrammerIntfModeSm.h"

#include <tests/support/Programmer.h>

#include <gtest/gtest.h>
#include <sanitizer/allocator_interface.h>

#include <functional>

namespace {

struct Cost {
   U64 edges = 0;
   U64 allocations = 0;
   U64 requests = 0;  // that reach the chip
};
Cost cost;

void allocated( void const volatile *, std::size_t ) { ++cost.allocations; }
void freed( void const volatile * ) {}

}  // namespace

// Called by the libraries at each edge.
extern "C" [[gnu::visibility( "default" )]] void __sanitizer_cov_trace_pc_guard_init( U32 *, U32 * ) {}
extern "C" [[gnu::visibility( "default" )]] void __sanitizer_cov_trace_pc_guard( U32 * ) { ++cost.edges; }

namespace {

using Support::AnyRule;

constexpr U64 steps = 100;

class CountingHardware final : public Asic::Chip {
 public:
   void carryOut( std::span< Asic::ChipRequest const > requests, std::span< Asic::EntryState > outcomes ) override {
      cost.requests += requests.size();
      std::ranges::fill( outcomes, Asic::EntryState::settled );
   }
};

// All on one address inside and one outside, so that every connection shares its twins with every other.
std::string inside( U32 i ) { return "10.0.0.1:" + std::to_string( 1024 + i ); }
std::string outside( U32 i ) { return "192.0.2.1:" + std::to_string( 1024 + i ); }

AnyRule ownStaticRule( U32 i ) {
   return Support::StaticRule{ Support::staticKey( inside( i ) ), Support::staticEntry( outside( i ) ) };
}

// An access list of its own translates each elsewhere: all that goes out shares one NAT id.
AnyRule sharedStaticRule( U32 i ) {
   auto const acl = "acl" + std::to_string( 10000 + i );
   return Support::StaticRule{ Support::staticKey( inside( 0 ), "ethernet1", acl.c_str() ),
                               Support::staticEntry( outside( i ) ) };
}

AnyRule twiceRule( U32 i ) {
   return Support::twiceRule( inside( i ) + " > 10.9.0.9:83", outside( i ) + " > 198.51.100.7:81" );
}

AnyRule naptRule( U32 i ) { return Support::dynamicRule( inside( i ) + " > 198.51.100.7:81", outside( i ) ); }

// These have no twins, and each needs addresses of its own.
AnyRule addrOnlyRule( U32 i ) {
   auto const end = std::to_string( i / 250 ) + '.' + std::to_string( 1 + i % 250 );
   return Support::dynamicRule( "10.0." + end + ":1 > 198.51.100.7:81", "192.1." + end,
                                { .intfQualifier = 5, .connection = { .addrOnly = true } } );
}

AnyRule ruleOnVlan( U32 i ) {
   return Support::StaticRule{
      Support::staticKey( inside( 0 ), "vlan" + std::to_string( i + 1 ) ),
      Support::staticEntry( outside( 0 ), { .vlanId = static_cast< U16 >( i + 1 ), .intfQualifier = 5 } ) };
}

struct Kind {
   char const * name;
   AnyRule ( *rule )( U32 i );
};
void PrintTo( Kind const & kind, std::ostream * stream ) { *stream << kind.name; }

// Of `steps` connections that go, each in a turn of its own, and come back, among `live` ones.
struct Costs {
   Cost del;
   Cost add;
};

// Of rules out of the middle, so that neither the first nor the last in any order has a part in all of this.
Costs costsAmong( U32 live, Pfe::NatProgrammerConfig & config, AnyRule ( *ruleOf )( U32 i ),
                  std::function< void() > const & settle ) {
   auto const costOfEach = [ & ]( std::function< void( AnyRule const & ) > const & change ) {
      Cost sum;
      for ( U64 i = 0; i < steps; ++i ) {
         auto const rule = ruleOf( static_cast< U32 >( live / 3 + i ) );
         cost = {};
         change( rule );
         settle();
         sum.edges += cost.edges;
         sum.allocations += cost.allocations;
         sum.requests += cost.requests;
      }
      return sum;
   };
   auto const once = [ & ] {
      auto const del =
         costOfEach( [ & ]( AnyRule const & rule ) { Support::unconfigure( config, Support::keyOf( rule ) ); } );
      auto const add = costOfEach( [ & ]( AnyRule const & rule ) { Support::configure( config, rule ); } );
      return Costs{ del, add };
   };
   once();  // fills the free lists
   return once();
}

Costs costsAmong( U32 live, Kind const & kind ) {
   Support::Programmer programmer;
   programmer.tables.hardware->chipIs( std::make_shared< CountingHardware >() );
   auto & config = *programmer.config;
   config.fragmentationEnabledIs( true );
   programmer->replay();
   for ( U32 i = 0; i < live; ++i ) {
      Support::configure( config, kind.rule( i ) );
   }
   EXPECT_TRUE( programmer.settleToRest() );

   return costsAmong( live, config, kind.rule, [ & ] { programmer.settle(); } );
}

// In interface mode one rule on each of `live` VLANs; writes are to no chip.
Costs costsOfOneRuleOn( U32 live ) {
   auto const config = Orla::make< Pfe::NatProgrammerConfig >();
   auto const sm = Pfe::natProgrammerIntfModeSmFactory( config, Orla::make< Pfe::NatProgrammerStatus >(),
                                                        Orla::make< Pfe::NatSwTableConfig >(), nullptr );
   for ( U32 i = 0; i < live; ++i ) {
      Support::configure( *config, ruleOnVlan( i ) );
   }
   return costsAmong( live, *config, ruleOnVlan, [] {} );
}

void expectSame( Cost const & few, Cost const & many, char const * operation ) {
   SCOPED_TRACE( operation );
   EXPECT_GT( few.edges, 100 * steps ) << "the libraries are not compiled to count";
   EXPECT_LT( many.edges, few.edges * 105 / 100 );  // fuller tables probe a little longer
   EXPECT_LE( many.allocations, few.allocations );
   EXPECT_EQ( many.requests, few.requests );
}

class CostPerConnection : public testing::TestWithParam< Kind > {
 protected:
   static void SetUpTestSuite() { ASSERT_TRUE( __sanitizer_install_malloc_and_free_hooks( allocated, freed ) ); }
};

TEST_P( CostPerConnection, IsTheSameAmongFewAndAmongMany ) {
   auto const few = costsAmong( 1'000, GetParam() );
   auto const many = costsAmong( 30'000, GetParam() );
   expectSame( few.del, many.del, "delete" );
   expectSame( few.add, many.add, "add" );
}

INSTANTIATE_TEST_SUITE_P( Kinds, CostPerConnection,
                          testing::Values( Kind{ "static", ownStaticRule }, Kind{ "sharedStatic", sharedStaticRule },
                                           Kind{ "twice", twiceRule }, Kind{ "napt", naptRule },
                                           Kind{ "addressOnly", addrOnlyRule } ),
                          testing::PrintToStringParamName() );

TEST_F( CostPerConnection, OfOneRuleIsTheSameOnFewAndOnAllVlans ) {
   auto const few = costsOfOneRuleOn( 200 );
   auto const many = costsOfOneRuleOn( Bridging::VlanId::max );
   expectSame( few.del, many.del, "delete" );
   expectSame( few.add, many.add, "add" );
}

}  // namespace
