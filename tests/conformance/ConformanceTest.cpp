// What the system relies on its platform for, checked on that platform itself: first promise by promise, then whole
// stories of rules. A port compiles this against its own interfaces, with a Port.cpp that lets its tables settle.
#include "Port.h"

#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <sstream>
#include <vector>

namespace {

using namespace Pfe;
using Asic::EntryState;
using Conformance::Port;
using Ip::Nat::NatTarget;
using PfeHelper::NatHwResult;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

// --- Values ----------------------------------------------------------------------------------------------------------

Netix::IpAndPort pair( char const * ip, U16 port ) { return { *Netix::IpAddr::fromText( ip ), port }; }

IngStaticNatTable::Key rowKey( U16 port ) {
   IngStaticNatTable::Key key;
   key.natIntf = "ethernet1";
   key.ipAndPortOld = pair( "10.0.0.1", port );
   key.ipAndPortNew = pair( "192.0.2.1", port );
   key.protocol = 6;
   return key;
}

NatMatchKey matchKey( U16 port ) {
   StaticNatMatchKey key;
   key.natIntf = "ethernet1";
   key.ipAndPortOld = pair( "10.0.0.1", port );
   return key;
}

EgrNatUcRewriteEntry rewrite( U16 port ) {
   EgrNatUcRewriteEntry entry;
   entry.srcPort = port;
   return entry;
}

TEST( Values, AreReadBackFromTheirTextAndHashAlike ) {
   for ( U16 port : { 0, 1, 65535 } ) {
      auto const key = matchKey( port );
      std::ostringstream text;
      text << key;
      auto const written = text.str();
      Vexa::CharRange range( written );
      NatMatchKey const read( range );
      EXPECT_EQ( read, key ) << written;
      EXPECT_EQ( read.hash( 7 ), key.hash( 7 ) );
      EXPECT_NE( read, matchKey( 2 ) );
   }
   EXPECT_THROW( NatId( NatId::max + 1 ), Vexa::RangeException );
}

TEST( Bitmap, YieldsEachClearBitOnceAndThenNone ) {
   auto const bitmap = Orla::make< Brix::HBitmap >( 0, 199, Brix::BitState::clear );
   bitmap->setBit( 0 );
   std::set< U64 > found;
   for ( auto bit = bitmap->findBitInClearState( Brix::IndexPreference::lowest ); bit != Brix::HBitmap::null();
         bit = bitmap->findBitInClearState( Brix::IndexPreference::lowest ) ) {
      ASSERT_TRUE( found.insert( bit ).second );
      bitmap->setBit( bit );
   }
   EXPECT_EQ( found.size(), 199U );
   EXPECT_FALSE( found.contains( 0 ) );
   bitmap->clearBit( 77 );
   EXPECT_EQ( bitmap->findBitInClearState( Brix::IndexPreference::lowest ), 77U );
}

// --- Tables ----------------------------------------------------------------------------------------------------------

class Tables : public testing::Test {
 protected:
   struct Report {
      U16 port;
      EntryState state;
      bool present;  // to look-ups, when it came
      bool operator==( Report const & ) const = default;
   };

   ~Tables() override { port.statics->clear(); }

   // A row that refers to `rewrite` and `twin` and writes down what it hears, but not that it waits.
   IngStaticNatEntry entry( U16 number, Asic::EntryHandle::PtrConst const & rewrite = nullptr,
                            Asic::EntryHandle::PtrConst const & twin = nullptr ) {
      IngStaticNatEntry result;
      if ( rewrite ) {
         result.egrHandleIs( rewrite, true );
      }
      result.fragHdl = twin;
      result.writeResponse = Asic::WriteResponseFn( [ this, number ]( EntryState state ) {
         if ( state != EntryState::pending ) {
            reports.push_back( { number, state, port.statics->entry( rowKey( number ) ) != nullptr } );
         }
      } );
      return result;
   }

   Port port;
   std::vector< Report > reports;
};

TEST_F( Tables, KeepAReferencedRowAsLongAsItsHandleAndACommittedOneUntilItsRemoval ) {
   auto handle = port.statics->entryRef( rowKey( 1 ), entry( 1 ) );
   port.statics->entryCommit( rowKey( 2 ), entry( 2 ) );
   EXPECT_EQ( port.statics->entryRef( rowKey( 1 ), entry( 1 ) ), handle ) << "written again";
   EXPECT_THAT( reports, IsEmpty() ) << "nothing settles by itself";
   ASSERT_TRUE( port.settle() );
   EXPECT_EQ( handle->state(), EntryState::settled );
   EXPECT_EQ( port.statics->rowCount(), 2U );

   reports.clear();
   handle = nullptr;
   EXPECT_EQ( port.statics->entry( rowKey( 1 ) ), nullptr ) << "out of look-ups at once";
   port.statics->entryRemove( rowKey( 2 ) );
   EXPECT_EQ( port.statics->entry( rowKey( 2 ) ), nullptr ) << "out of look-ups at once";
   EXPECT_THAT( reports, IsEmpty() );
   ASSERT_TRUE( port.settle() );
   EXPECT_THAT( reports, testing::UnorderedElementsAre( Report{ 1, EntryState::settled, false },
                                                        Report{ 2, EntryState::settled, false } ) );
}

TEST_F( Tables, SettleARowNeverBeforeTheRowsThatItRefersTo ) {
   for ( U16 number = 1; number < 50; ++number ) {
      EgrNatUcRewriteKey const key{ NatId( number ), 5 };
      auto const comesFirst = Asic::WriteResponseFn( [ this, number ]( EntryState state ) {
         if ( state == EntryState::settled && port.statics->entry( rowKey( number ) ) ) {
            EXPECT_NE( port.statics->entryHandle( rowKey( number ) )->state(), EntryState::settled );
         }
      } );
      auto written = rewrite( number );
      auto twin = entry( 0 );
      written.writeResponse = twin.writeResponse = comesFirst;
      auto const handle = port.sources->entryRef( key, written );
      port.statics->entryCommit(
         rowKey( number ),
         entry( number, handle, port.statics->entryRef( rowKey( 1000 + number ), std::move( twin ) ) ) );
   }
   ASSERT_TRUE( port.settle() );
   EXPECT_EQ( reports.size(), 49U );
   EXPECT_THAT( reports, Each( testing::Field( &Report::state, EntryState::settled ) ) );
}

TEST_F( Tables, LeaveARewriteToItsRowUntilTheHardwareLetTheRowGo ) {
   EgrNatUcRewriteKey const key{ NatId( 1 ), 5 };
   port.statics->entryCommit( rowKey( 1 ), entry( 1, port.sources->entryRef( key, rewrite( 1 ) ) ) );
   ASSERT_TRUE( port.settle() );
   if ( !port.removalsAreRefused( true ) ) {
      GTEST_SKIP() << "the chip refuses no removal";
   }
   port.statics->entryRemove( rowKey( 1 ) );
   EXPECT_FALSE( port.settle() );
   EXPECT_NE( port.sources->entry( key ), nullptr );
   ASSERT_NE( port.statics->entryHandle( rowKey( 1 ) ), nullptr ) << "visible again";
   EXPECT_EQ( port.statics->entryHandle( rowKey( 1 ) )->state(), EntryState::failed );

   port.removalsAreRefused( false );
   ASSERT_TRUE( port.settle() ) << "a refused removal is tried again";
   EXPECT_EQ( port.sources->entry( key ), nullptr );
   EXPECT_EQ( reports.back(), ( Report{ 1, EntryState::settled, false } ) );
}

// Whether or not the chip refuses removals: it may fail before one, and responses come before the end.
TEST_F( Tables, KeepARewriteAsLongAsTheHardwareHoldsARowThatRefersToIt ) {
   EgrNatUcRewriteKey const first{ NatId( 1 ), 5 }, second{ NatId( 2 ), 5 };
   auto const has = [ & ]( auto const & key ) { return port.sources->entry( key ) != nullptr; };
   auto handle = port.sources->entryRef( second, rewrite( 2 ) );
   port.statics->entryCommit( rowKey( 1 ), entry( 1, port.sources->entryRef( first, rewrite( 1 ) ) ) );
   ASSERT_TRUE( port.settle() );

   bool hasInResponse = false;
   auto replacing = entry( 1, std::exchange( handle, nullptr ) );
   replacing.writeResponse = Asic::WriteResponseFn( [ & ]( EntryState ) { hasInResponse = has( second ); } );
   port.writesFail( true );
   port.statics->entryCommit( rowKey( 1 ), std::move( replacing ) );
   EXPECT_TRUE( has( first ) ) << "the hardware holds the row as it was";
   ASSERT_TRUE( port.settle() );
   EXPECT_TRUE( has( first ) ) << "and after the failure still";
   port.writesFail( false );
   port.retryFailed();
   ASSERT_TRUE( port.settle() );
   EXPECT_FALSE( has( first ) );

   hasInResponse = false;
   port.statics->entryRemove( rowKey( 1 ) );
   EXPECT_TRUE( has( second ) ) << "the row is in the hardware until its removal settles";
   ASSERT_TRUE( port.settle() );
   EXPECT_TRUE( hasInResponse );
   EXPECT_FALSE( has( second ) );
}

// What reports with its key absent is taken for the removal, by which the NAT id comes back: so a write that a removal
// overtook says nothing.
TEST_F( Tables, ReportTheNewestWriteLastAndARemovalOnce ) {
   std::vector< int > told;
   for ( int const version : { 1, 2, 3 } ) {
      IngStaticNatEntry written;
      written.writeResponse = Asic::WriteResponseFn( [ &told, version ]( EntryState ) { told.push_back( version ); } );
      port.statics->entryCommit( rowKey( 1 ), std::move( written ) );
   }
   ASSERT_TRUE( port.settle() );
   ASSERT_THAT( told, Not( IsEmpty() ) );
   EXPECT_EQ( told.back(), 3 );

   port.statics->entryCommit( rowKey( 2 ), entry( 2 ) );
   port.statics->entryCommit( rowKey( 2 ), entry( 2 ) );
   port.statics->entryRemove( rowKey( 2 ) );
   ASSERT_TRUE( port.settle() );
   EXPECT_THAT( reports, ElementsAre( Report{ 2, EntryState::settled, false } ) );
}

TEST_F( Tables, FailARowWhoseRewriteFailedButNotForItsTwinAndSendThemAgain ) {
   EgrNatUcRewriteKey const key{ NatId( 1 ), 5 };
   port.writesFail( true );
   auto const handle = port.sources->entryRef( key, rewrite( 1 ) );
   auto const twin = port.statics->entryRef( rowKey( 3 ), IngStaticNatEntry() );
   ASSERT_TRUE( port.settle() );
   port.writesFail( false );
   port.statics->entryCommit( rowKey( 2 ), entry( 2, nullptr, twin ) );
   ASSERT_TRUE( port.settle() );
   EXPECT_THAT( reports, ElementsAre( Report{ 2, EntryState::settled, true } ) );
   reports.clear();
   port.statics->entryCommit( rowKey( 1 ), entry( 1, handle ) );
   ASSERT_TRUE( port.settle() );
   EXPECT_THAT( reports, ElementsAre( Report{ 1, EntryState::failed, true } ) );
   port.retryFailed();
   ASSERT_TRUE( port.settle() );
   EXPECT_EQ( reports.back(), ( Report{ 1, EntryState::settled, true } ) );
}

TEST_F( Tables, LetAResponseAskForMore ) {
   bool asked = false;
   IngStaticNatEntry first;
   first.writeResponse = Asic::WriteResponseFn( [ & ]( EntryState state ) {
      if ( state == EntryState::settled && !std::exchange( asked, true ) ) {
         port.statics->entryCommit( rowKey( 2 ), entry( 2 ) );
         port.statics->entryRemove( rowKey( 1 ) );
      }
   } );
   port.statics->entryCommit( rowKey( 1 ), std::move( first ) );
   ASSERT_TRUE( port.settle() );
   EXPECT_EQ( port.statics->entry( rowKey( 1 ) ), nullptr );
   EXPECT_THAT( reports, ElementsAre( Report{ 2, EntryState::settled, true } ) );
}

// --- Stories ---------------------------------------------------------------------------------------------------------

// An agent: what outlives its programmer is handed on to the next one.
class Story : public testing::Test {
 protected:
   Story() { start(); }
   ~Story() override { end(); }

   void start() {
      port = std::make_unique< Port >();
      status = Orla::make< NatProgrammerStatus >();
      programmer = natSwTableProgrammerSmFactory( config, status, Orla::make< Ip::Nat::HwCapabilities >(), ids );
      programmer->egrSourceNatUcRewriteTableIs( port->sources );
      programmer->egrDestinationNatUcRewriteTableIs( port->destinations );
      programmer->ingStaticNatTableIs( port->statics );
      programmer->ingTwiceNatTableIs( port->twices );
      programmer->ingDynamicSnaptTableIs( port->snapt );
      programmer->ingDynamicDnaptTableIs( port->dnapt );
      programmer->ingDynamicSnatAddrOnlyTableIs( port->snat );
      programmer->ingDynamicDnatAddrOnlyTableIs( port->dnat );
      programmer->programmerModeIs( NatBaseProgrammerSm::Mode::tables );
      programmer->natIdPoolIs( ids );
      programmer->initializedIs( true );
      programmer->replay();
      EXPECT_TRUE( rest() );
   }

   void end() {
      for ( Asic::SwTableBase * const table : std::initializer_list< Asic::SwTableBase * >{
               port->statics.ptr(), port->twices.ptr(), port->snapt.ptr(), port->dnapt.ptr(), port->snat.ptr(),
               port->dnat.ptr(), port->sources.ptr(), port->destinations.ptr() } ) {
         table->clear();
      }
      programmer = nullptr;
      port = nullptr;
   }

   bool rest() {
      if ( !port->settle() ) {
         return false;
      }
      programmer->atRest();
      return true;
   }

   static NatProgrammerStaticKey keyOf( U16 number ) {
      return { *Netix::IntfId::fromName( "ethernet1" ), { {}, *Netix::IpAddr::fromText( "10.0.0.1" ), number } };
   }

   void configure( U16 number, char const * outside = "192.0.2.1" ) {
      NatProgrammerStaticEntry::Fields fields;
      fields.intfQualifier = 5;
      fields.connection = { .translated = pair( outside, number ), .target = NatTarget::source, .protocol = 6 };
      config->staticEntryIs( keyOf( number ), Orla::make< NatProgrammerStaticEntry >( fields ) );
   }

   // One of each other kind.
   void configureOthers() {
      NatProgrammerTwiceEntry::Fields twice;
      twice.intfQualifier = 5;
      auto const from = pair( "10.0.0.2", 80 ), to = pair( "10.9.0.9", 81 );
      twice.connection = { from, to, pair( "192.0.2.2", 82 ), pair( "198.51.100.9", 83 ) };
      config->twiceEntryIs( { *Netix::IntfId::fromName( "ethernet1" ), { from, to } },
                            Orla::make< NatProgrammerTwiceEntry >( twice ) );
      for ( bool const addrOnly : { false, true } ) {
         NatProgrammerDynamicEntry::Fields learned;
         learned.intfQualifier = 5;
         learned.connection = { .target = NatTarget::source, .addrOnly = addrOnly };
         learned.global = pair( addrOnly ? "192.0.2.4" : "192.0.2.3", 90 );
         config->dynamicEntryIs( { *Netix::IntfId::fromName( "ethernet1" ),
                                   { pair( addrOnly ? "10.0.0.4" : "10.0.0.3", 90 ), pair( "203.0.113.1", 91 ), 6 } },
                                 Orla::make< NatProgrammerDynamicEntry >( learned ) );
      }
   }

   std::vector< NatHwResult > results() const {
      std::vector< NatHwResult > all;
      auto const take = [ & ]( auto const &, auto const & outcome ) { all.push_back( outcome.result ); };
      status->staticStatus().forEach( take );
      status->twiceStatus().forEach( take );
      status->dynamicStatus().forEach( take );
      return all;
   }

   std::set< std::string > idTexts() const {
      std::set< std::string > texts;
      ids->matchKeyToNatId().forEach( [ & ]( NatMatchKey const & key, NatId id ) {
         std::ostringstream text;
         text << id << ' ' << key;
         texts.insert( text.str() );
      } );
      return texts;
   }

   std::size_t rows() const {
      return port->statics->rowCount() + port->twices->rowCount() + port->snapt->rowCount() + port->dnapt->rowCount() +
             port->snat->rowCount() + port->dnat->rowCount() + port->sources->rowCount() +
             port->destinations->rowCount();
   }

   NatProgrammerConfig::Ptr config = Orla::make< NatProgrammerConfig >();
   NatIdInfo::Ptr ids = Orla::make< NatIdInfo >();
   NatProgrammerStatus::Ptr status;
   std::unique_ptr< Port > port;
   NatSwTableProgrammerSm::Ptr programmer;
};

TEST_F( Story, EveryKindIsProgrammedChangedAndGone ) {
   config->fragmentationEnabledIs( true );
   programmer->replay();
   configure( 1 );
   configure( 2 );
   configureOthers();
   ASSERT_TRUE( rest() );
   EXPECT_EQ( results(), std::vector( 5, NatHwResult::programmed ) );
   configure( 2, "192.0.2.77" );
   config->staticEntryDel( keyOf( 1 ) );
   ASSERT_TRUE( rest() );
   EXPECT_EQ( results(), std::vector( 4, NatHwResult::programmed ) );

   programmer->deleteAllConnections();
   ASSERT_TRUE( rest() );
   EXPECT_EQ( rows(), 0U );
   EXPECT_EQ( ids->matchKeyToNatId().count(), 0U );
   EXPECT_THAT( results(), IsEmpty() );
   programmer->addAllConnections();
   ASSERT_TRUE( rest() );
   EXPECT_EQ( results(), std::vector( 4, NatHwResult::programmed ) );
}

TEST_F( Story, ARestartKeepsTheIdsOfWhatStaysAndSweepsTheOthers ) {
   configure( 1 );
   configure( 2 );
   configureOthers();
   ASSERT_TRUE( rest() );
   auto const before = idTexts();
   end();
   config->staticEntryDel( keyOf( 1 ) );
   start();
   auto const after = idTexts();
   EXPECT_EQ( after.size() + 2, before.size() );
   EXPECT_TRUE( std::ranges::includes( before, after ) );
   EXPECT_EQ( results(), std::vector( 4, NatHwResult::programmed ) );
}

TEST_F( Story, ARefusedRemovalKeepsRowsAndIdsUntilItIsLetThrough ) {
   configure( 1 );
   configureOthers();
   ASSERT_TRUE( rest() );
   auto const before = idTexts();
   if ( !port->removalsAreRefused( true ) ) {
      GTEST_SKIP() << "the chip refuses no removal";
   }
   programmer->deleteAllConnections();
   EXPECT_FALSE( rest() );
   EXPECT_EQ( idTexts(), before );
   EXPECT_THAT( results(), Not( testing::Contains( NatHwResult::programmed ) ) );
   port->removalsAreRefused( false );
   ASSERT_TRUE( rest() );
   EXPECT_EQ( rows(), 0U );
   EXPECT_THAT( idTexts(), IsEmpty() );
}

TEST_F( Story, ARuleThatComesAndGoesWithinATurnLeavesWhatTheLastChangeSays ) {
   for ( U16 number = 1; number < 20; ++number ) {
      configure( number );
      configure( number, "192.0.2.77" );
      config->staticEntryDel( keyOf( number ) );
      if ( number % 2 != 0 ) {
         configure( number, "192.0.2.78" );
      }
   }
   ASSERT_TRUE( rest() );
   EXPECT_EQ( results(), std::vector( 10, NatHwResult::programmed ) );
   EXPECT_EQ( port->statics->rowCount(), 20U );
   EXPECT_EQ( ids->matchKeyToNatId().count(), 20U );
}

}  // namespace
