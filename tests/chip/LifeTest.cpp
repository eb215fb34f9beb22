// What happens to the chip beside packets: starts, upgrades, failures, and writes under traffic.
#include "Kernel.h"

#include "chip/bpf/layout.h"

#include <bpf/bpf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/pkt_cls.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

namespace ChipTest {

namespace {

using Support::StaticRule;
using testing::HasSubstr;

std::string const pins = bpffs() + "/pfe-nat/test";

std::string refusalOf( Ebpf::Settings const & wanted ) {
   try {
      Ebpf::Chip const chip( wanted );
      return "none";
   } catch ( Ebpf::Refusal const & refusal ) {
      return refusal.what();
   }
}

U64 rowsIn( Ebpf::Chip const & chip ) {
   U64 rows = 0;
   for ( auto const & table : chip.status().tables ) {
      rows += table.rows;
   }
   return rows;
}

class ChipLife : public testing::Test {
 protected:
   void SetUp() override {
      if ( auto const why = whyNoKernel(); !why.empty() ) {
         GTEST_SKIP() << why;
      }
   }
   void TearDown() override {
      if ( whyNoKernel().empty() ) {
         Ebpf::remove( { "test", bpffs() } );
         EXPECT_FALSE( std::filesystem::exists( bpffs() + "/pfe-nat" ) );
      }
   }

   // Programs the rules on a chip, as an agent does that starts.
   std::unique_ptr< Support::Programmer > programmed( std::shared_ptr< Ebpf::Chip > const & chip,
                                                      std::vector< Support::AnyRule > const & rules ) {
      auto programmer = std::make_unique< Support::Programmer >();
      programmer->config->fragmentationEnabledIs( true );
      for ( auto const & rule : rules ) {
         Support::configure( *programmer->config, rule );
      }
      programmer->tables.hardware->chipIs( chip );
      ( *programmer )->replay();
      EXPECT_TRUE( programmer->settleToRest() );
      chip->sweep();
      return programmer;
   }

   Ebpf::Settings settings_ = settings( ports( {}, {} ) );
};

Support::AnyRule const fewRules[] = {
   StaticRule{ Support::staticKey( "10.0.0.1:80" ),
               Support::staticEntry(
                  "192.0.2.1:8080", { .connection = { .protocol = 6 }, .filters = { { 1, { .sourcePort = 80 } } } } ) },
   Support::twiceRule( "10.0.0.2:80 > 10.9.0.1:81", "192.0.2.2:80 > 203.0.113.1:81" ),
   Support::dynamicRule( "10.0.0.3:4000 > 203.0.113.9:443", "192.0.2.3:5000" ),
   StaticRule{ Support::staticKey( "239.0.0.1" ),
               Support::staticEntry( "239.1.0.1", { .connection = { .target = Ip::Nat::NatTarget::destination } } ) } };

std::vector< Support::AnyRule > const rules( std::begin( fewRules ), std::end( fewRules ) );

}  // namespace

TEST_F( ChipLife, WhatIsMissingIsNamedAndNothingIsLeftBehind ) {
   struct Case {
      char const * missing;
      void ( *change )( Ebpf::Settings & );
   };
   Case const cases[] = {
      { "mount -t bpf bpf /proc", []( auto & s ) { s.place.bpffs = "/proc"; } },
      { "p99: no such device", []( auto & s ) { s.ports[ 0 ].device = "p99"; } },
      { "p1.4095: no such device", []( auto & s ) { s.ports[ 0 ].device = "p1.4095"; } },
      { "is that of another port", []( auto & s ) { s.ports[ 0 ].device = "p2"; } },
      { "p1: several ports have tags",
        []( auto & s ) {
           s.ports[ 0 ].device = "p1.20";
           s.ports[ 1 ].device = "p1.30";
        } },
      { "/run/netns/absent: no network namespace", []( auto & s ) { s.networkNamespace = "absent"; } },
      { "MiB; fewer rows", []( auto & s ) { s.rows = 500'000'000; } },
      { "too long a name", []( auto & s ) { s.store = std::string( 300, 'x' ); } },
      { "not the name of a chip", []( auto & s ) { s.place.name = "a/b"; } } };
   for ( auto const & [ missing, change ] : cases ) {
      auto wanted = settings_;
      change( wanted );
      EXPECT_THAT( refusalOf( wanted ), HasSubstr( missing ) );
      EXPECT_FALSE( std::filesystem::exists( pins ) ) << missing;
   }
   auto const child = fork();
   if ( child == 0 ) {
      bool const isNamed = setuid( 65534 ) == 0 &&
                           refusalOf( settings_ ).find( "CAP_NET_ADMIN, CAP_PERFMON, CAP_BPF" ) != std::string::npos;
      _exit( isNamed ? 0 : 1 );
   }
   int status = 0;
   EXPECT_EQ( waitpid( child, &status, 0 ), child );
   EXPECT_EQ( status, 0 ) << "capabilities are not named";
}

TEST_F( ChipLife, AStartFindsWhatIsRightAndReplacesTheRest ) {
   auto const start = [ & ] { return std::make_shared< Ebpf::Chip >( settings_ ); };
   auto chip = start();
   EXPECT_EQ( chip->found(), Ebpf::Found::nothing );
   programmed( chip, rules );
   auto const rows = rowsIn( *chip );
   EXPECT_GT( rows, 20U );

   chip.reset();
   chip = start();
   EXPECT_EQ( chip->found(), Ebpf::Found::itself );
   programmed( chip, rules );
   EXPECT_EQ( chip->rowsWritten(), 0U ) << "an unchanged configuration writes nothing";
   EXPECT_EQ( rowsIn( *chip ), rows );

   // Rules that were taken out meanwhile are swept.
   chip.reset();
   chip = start();
   programmed( chip, {} );
   EXPECT_EQ( rowsIn( *chip ), 0U );
   programmed( chip, rules );

   struct Case {
      Ebpf::Found found;
      std::function< void() > change;
   };
   Case const cases[] = { { Ebpf::Found::otherStore, [ & ] { settings_.store = "another"; } },
                          { Ebpf::Found::otherLayout, [ & ] { settings_.rows = 100; } },
                          { Ebpf::Found::unfinished, [ & ] { std::filesystem::remove( pins + "/maps/marker" ); } } };
   for ( auto const & [ found, change ] : cases ) {
      chip.reset();
      change();
      chip = start();
      EXPECT_EQ( chip->found(), found );
      EXPECT_EQ( rowsIn( *chip ), 0U );
      programmed( chip, rules );
      EXPECT_EQ( rowsIn( *chip ), rows );
   }
}

TEST_F( ChipLife, AttachmentsAreRepairedAndProgramsReplacedUnderTheirLinks ) {
   auto const linkOf = []( std::string const & pin ) {
      auto const link = bpf_obj_get( ( pins + "/links/" + pin ).c_str() );
      bpf_link_info info{};
      U32 size = sizeof info;
      EXPECT_EQ( bpf_obj_get_info_by_fd( link, &info, &size ), 0 );
      close( link );
      return info;
   };
   auto chip = std::make_shared< Ebpf::Chip >( settings_ );
   std::string pin;
   for ( auto const & entry : std::filesystem::directory_iterator( pins + "/links" ) ) {
      auto const name = entry.path().filename().string();
      pin = name.ends_with( "-p1-leaving" ) ? name : pin;
   }
   EXPECT_EQ( chip->status().attachments.size(), 12U );
   EXPECT_EQ( chip->repairAttachments(), 0U );

   auto const link = bpf_obj_get( ( pins + "/links/" + pin ).c_str() );
   EXPECT_EQ( bpf_link_detach( link ), 0 );
   close( link );
   EXPECT_EQ( std::ranges::count( chip->status().attachments, false, &Ebpf::Status::Attachment::isAlive ), 1 );
   EXPECT_EQ( chip->repairAttachments(), 1U );

   EXPECT_EQ( std::system( "ip link delete p8 && ip link add p8 type veth peer name q8 && ip link set p8 up" ), 0 );
   EXPECT_EQ( chip->repairAttachments(), 3U );
   EXPECT_EQ( chip->status().attachments.size(), 12U );

   auto const before = linkOf( pin );
   auto const marker = bpf_obj_get( ( pins + "/maps/marker" ).c_str() );
   ChipMarker held{};
   U32 const first = 0;
   EXPECT_EQ( bpf_map_lookup_elem( marker, &first, &held ), 0 );
   ++held.programs;
   EXPECT_EQ( bpf_map_update_elem( marker, &first, &held, BPF_ANY ), 0 );
   close( marker );
   chip.reset();
   chip = std::make_shared< Ebpf::Chip >( settings_ );
   EXPECT_EQ( chip->found(), Ebpf::Found::itself );
   auto const after = linkOf( pin );
   EXPECT_EQ( before.id, after.id );
   EXPECT_NE( before.prog_id, after.prog_id );
}

TEST_F( ChipLife, ATableWithoutRoomSaysFull ) {
   settings_.rows = 6;  // four twins, which come first, and the rows of one rule
   Support::TraceLines lines( 1 );
   auto const chip = std::make_shared< Ebpf::Chip >( settings_ );
   StaticRule const both[] = { { Support::staticKey( "10.0.0.1:80" ), Support::staticEntry( "192.0.2.1:8080" ) },
                               { Support::staticKey( "10.0.0.2:80" ), Support::staticEntry( "192.0.2.2:8080" ) } };
   auto const programmer = programmed( chip, { both[ 0 ], both[ 1 ] } );
   std::vector< PfeHelper::NatHwResult > results;
   for ( auto const & rule : both ) {
      results.push_back( programmer->result( rule.key ).value() );
   }
   EXPECT_THAT( results,
                testing::UnorderedElementsAre( PfeHelper::NatHwResult::programmed, PfeHelper::NatHwResult::failed ) );
   EXPECT_THAT( lines.take(), testing::Contains( HasSubstr( "in ingStaticNatTable: the table is full (7)" ) ) );
}

// What a reader sees that is overtaken: its own key with the row of another one.
TEST_F( ChipLife, ARowThatIsNotOfItsKeyTranslatesNothing ) {
   auto const chip = std::make_shared< Ebpf::Chip >( settings_ );
   char const * const sources[] = { "10.0.0.1:4000", "10.0.0.2:4000" };
   auto const programmer =
      programmed( chip, { Support::dynamicRule( "10.0.0.1:4000 > 203.0.113.9:443", "192.0.2.1:1000" ),
                          Support::dynamicRule( "10.0.0.2:4000 > 203.0.113.9:443", "192.0.2.2:1000" ) } );
   auto const verdicts = [ & ] {
      std::vector< int > found;
      for ( auto const * const source : sources ) {
         found.push_back( run( "chipLeaving", "p1",
                               frameOf( { .protocol = 6,
                                          .source = Support::pair( source ),
                                          .destination = Support::pair( "203.0.113.9:443" ) } ) )
                             .verdict );
      }
      return found;
   };
   EXPECT_THAT( verdicts(), testing::Each( TC_ACT_UNSPEC ) );
   auto const rows = bpf_obj_get( ( pins + "/maps/snaptRows" ).c_str() );
   std::vector< ChipNaptKey > keys;
   ChipNaptKey key{};
   for ( bool more = bpf_map_get_next_key( rows, nullptr, &key ) == 0; more;
         more = bpf_map_get_next_key( rows, &key, &key ) == 0 ) {
      if ( !key.fragment ) {
         keys.push_back( key );
      }
   }
   ASSERT_EQ( keys.size(), 2U );
   ChipRow other{};
   EXPECT_EQ( bpf_map_lookup_elem( rows, &keys[ 0 ], &other ), 0 );
   EXPECT_EQ( bpf_map_update_elem( rows, &keys[ 1 ], &other, BPF_ANY ), 0 );
   close( rows );
   EXPECT_THAT( verdicts(), testing::UnorderedElementsAre( TC_ACT_UNSPEC, TC_ACT_SHOT ) );
}

// A kernel's element is given to another key while a reader looks at it, and an id to another flow.
TEST_F( ChipLife, PacketsMeetOldOrNewRowsWhileThesAreReplaced ) {
   auto const chip = std::make_shared< Ebpf::Chip >( settings_ );
   auto const flow = [ & ]( unsigned host, char const * global ) {
      return Support::dynamicRule( "10.0.0." + std::to_string( host ) + ":4000 > 203.0.113.9:443", global );
   };
   auto programmer = programmed( chip, { flow( 1, "192.0.2.1:1000" ) } );
   std::atomic< bool > isOver = false;
   std::atomic< U64 > wrong = 0, seen = 0;
   std::thread traffic( [ & ] {
      auto const frame = []( char const * source ) {
         return frameOf(
            { .protocol = 6, .source = Support::pair( source ), .destination = Support::pair( "203.0.113.9:443" ) } );
      };
      Bytes const stays = frame( "10.0.0.1:4000" ), comes = frame( "10.0.0.2:4000" );
      Bytes const ofStays[] = { frame( "192.0.2.1:1000" ), frame( "192.0.2.2:2000" ) };
      Bytes const ofComes[] = { comes, frame( "192.0.2.3:3000" ), frame( "192.0.2.4:4000" ) };
      while ( !isOver ) {
         wrong += std::ranges::find( ofStays, run( "chipLeaving", "p1", stays ).frame ) == std::end( ofStays );
         auto const result = run( "chipLeaving", "p1", comes );
         wrong += result.verdict == TC_ACT_UNSPEC && std::ranges::find( ofComes, result.frame ) == std::end( ofComes );
         seen += 2;
      }
   } );
   for ( unsigned round = 0; round < 20'000 || seen < 20'000; ++round ) {
      bool const odd = round & 1;
      Support::update( *programmer->sm, flow( 1, odd ? "192.0.2.1:1000" : "192.0.2.2:2000" ) );
      auto const guest = flow( 2, odd ? "192.0.2.3:3000" : "192.0.2.4:4000" );
      Support::add( *programmer->sm, guest );
      programmer->settle();
      Support::del( *programmer->sm, guest );
      programmer->settle();
   }
   isOver = true;
   traffic.join();
   EXPECT_EQ( wrong, 0U ) << "of " << seen;
}

}  // namespace ChipTest
