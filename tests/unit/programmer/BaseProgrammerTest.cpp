// What the base programmer hands over, and what it makes of refusals and results, the same for every kind of rule.
#include <Pfe/NatBaseProgrammerSm.h>
#include <Pfe/NatNextHop.h>

#include <tests/support/BaseProgrammerKinds.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using PfeHelper::NatHwResult;
using Support::CalledProgrammer;
using testing::ElementsAre;
using testing::IsEmpty;
using Mode = Pfe::NatBaseProgrammerSm::Mode;

template< class Kind > struct BaseProgrammer : testing::Test {
   using Key = typename Kind::Key;
   using EntryPtr = typename Kind::EntryPtr;

   explicit BaseProgrammer( Mode mode = Mode::tables ) {
      sm->programmerModeIs( mode );
      sm->hasNotificationActiveIs( true );
      sm->replay();
      sm->calls.clear();
   }

   // The entry of that number; its number is its next hop's, which decides no rows.
   static EntryPtr entry( U32 number, std::size_t variant = 0 ) {
      typename Kind::Fields fields;
      fields.nextHop = Orla::make< Pfe::NatNextHopId >( number );
      if ( variant != 0 ) {
         Kind::variants()[ variant - 1 ]( fields );
      }
      return Kind::make( std::move( fields ) );
   }
   EntryPtr configure( int key, EntryPtr const & entry ) {
      Kind::configure( *config, Kind::key( key ), entry );
      return entry;
   }
   EntryPtr configure( int key, U32 number ) { return configure( key, entry( number ) ); }
   void unconfigure( int key ) { Kind::unconfigure( *config, Kind::key( key ) ); }

   void addStatus( int key, EntryPtr const & entry, NatHwResult result ) {
      Kind::addStatus( *sm, Kind::key( key ), entry, result );
   }
   void deleteStatus( int key, EntryPtr const & entry ) { Kind::deleteStatus( *sm, Kind::key( key ), entry ); }
   // The result of the key; -1: none.
   int result( int key ) const {
      auto const * const found = Kind::status( *status ).find( Kind::key( key ) );
      return found ? static_cast< int >( found->result ) : -1;
   }
   EntryPtr resultEntry( int key ) const { return Kind::status( *status ).find( Kind::key( key ) )->entry; }

   Pfe::NatProgrammerConfig::Ptr const config = Orla::make< Pfe::NatProgrammerConfig >();
   Pfe::NatProgrammerStatus::Ptr const status = Orla::make< Pfe::NatProgrammerStatus >();
   Orla::Ptr< CalledProgrammer > const sm = Orla::make< CalledProgrammer >( config, status );
};
TYPED_TEST_SUITE( BaseProgrammer, Support::AllKinds );

template< class Kind > struct InterfaceMode : BaseProgrammer< Kind > {
   InterfaceMode() : BaseProgrammer< Kind >( Mode::interfaces ) {}
};
TYPED_TEST_SUITE( InterfaceMode, Support::AllKinds );

// --- Handing over ----------------------------------------------------------------------------------------------------

TYPED_TEST( BaseProgrammer, HandsOverAddsUpdatesAndDeletes ) {
   auto & calls = this->sm->calls;
   auto const e1 = this->configure( 1, 11 );
   this->configure( 2, 21 );
   this->configure( 1, 12 );
   this->configure( 1, this->entry( 13 ) );
   this->unconfigure( 1 );
   this->unconfigure( 1 );
   this->configure( 1, e1 );
   this->configure( 1, e1 );
   EXPECT_THAT( calls, ElementsAre( "add 1 11", "add 2 21", "update 1 12", "update 1 13", "delete 1 13", "add 1 11",
                                    "update 1 11" ) );
}

TYPED_TEST( BaseProgrammer, TakesBackWhatItHandedOverWhenAFieldThatDecidesRowsChanges ) {
   auto & calls = this->sm->calls;
   for ( std::size_t variant = 1; variant <= TypeParam::variants().size(); ++variant ) {
      SCOPED_TRACE( variant );
      this->configure( 1, 1 );
      calls.clear();
      this->configure( 1, this->entry( 2, variant ) );
      EXPECT_THAT( calls, ElementsAre( "delete 1 1", "add 1 2" ) );
      this->configure( 1, this->entry( 3, variant ) );
      EXPECT_EQ( calls.back(), "update 1 3" );
      this->unconfigure( 1 );
   }
}

TYPED_TEST( BaseProgrammer, LeavesChangesToTheFirstReplay ) {
   auto const sm = Orla::make< CalledProgrammer >( this->config, this->status );
   sm->hasNotificationActiveIs( true );
   this->configure( 1, 1 );
   this->configure( 1, 2 );
   EXPECT_THAT( sm->calls, IsEmpty() );
   sm->replay();
   EXPECT_THAT( sm->calls, ElementsAre( "add 1 2", "reconcile" ) );
   sm->calls.clear();
   this->configure( 1, 3 );
   sm->replay();
   EXPECT_THAT( sm->calls, ElementsAre( "update 1 3", "update 1 3", "reconcile" ) );
   sm->calls.clear();
   sm->hasNotificationActiveIs( false );
   this->configure( 1, 4 );
   EXPECT_THAT( sm->calls, IsEmpty() );
   sm->replay();
   EXPECT_THAT( sm->calls, ElementsAre( "update 1 4", "reconcile" ) );
}

TYPED_TEST( BaseProgrammer, AHandlerCalledForAKeyLooksItUp ) {
   this->configure( 1, 1 );
   this->sm->calls.clear();
   TypeParam::handle( *this->sm, TypeParam::key( 1 ) );
   TypeParam::handle( *this->sm, TypeParam::key( 2 ) );
   EXPECT_THAT( this->sm->calls, ElementsAre( "update 1 1" ) );
}

// --- Refused adds, table mode ----------------------------------------------------------------------------------------

TYPED_TEST( BaseProgrammer, UndoesAnAddThatRaisedAndSaysFailed ) {
   this->sm->raises = { { "add 1 1", 1 } };
   auto const refused = this->configure( 1, 1 );
   EXPECT_THAT( this->sm->calls, ElementsAre( "add 1 1 raised", "delete 1 1" ) );
   EXPECT_EQ( this->result( 1 ), 2 );
   EXPECT_EQ( this->resultEntry( 1 ), refused );
   EXPECT_EQ( this->sm->refusedCount(), 1U );
   EXPECT_EQ( this->sm->rangeErrorCount(), 1U );

   // Only the base itself writes its status now.
   this->addStatus( 1, refused, NatHwResult::programmed );
   this->deleteStatus( 1, refused );
   this->sm->atRest();
   EXPECT_EQ( this->result( 1 ), 2 );
   EXPECT_THAT( this->sm->checkStaleStatus(), IsEmpty() );

   this->sm->calls.clear();
   auto const next = this->configure( 1, 2 );
   EXPECT_THAT( this->sm->calls, ElementsAre( "add 1 2" ) ) << "there is nothing to delete first";
   EXPECT_EQ( this->sm->refusedCount(), 0U );
   this->addStatus( 1, next, NatHwResult::programmed );
   EXPECT_EQ( this->result( 1 ), 1 );
}

TYPED_TEST( BaseProgrammer, UndoesAnUpdateThatRaisedEvenIfTheUndoRaises ) {
   this->configure( 1, 1 );
   this->sm->calls.clear();
   this->sm->raises = { { "update 1 2", 1 }, { "delete 1 2", 1 } };
   this->configure( 1, 2 );
   EXPECT_THAT( this->sm->calls, ElementsAre( "update 1 2 raised", "delete 1 2 raised" ) );
   EXPECT_EQ( this->result( 1 ), 2 );
   EXPECT_EQ( this->sm->rangeErrorCount(), 1U ) << "the undo's is dropped";
}

TYPED_TEST( BaseProgrammer, ARefusedRuleThatGoesTakesItsResultAlongAndCallsNothing ) {
   this->sm->raises = { { "add 1 1", 1 } };
   this->configure( 1, 1 );
   this->sm->calls.clear();
   this->unconfigure( 1 );
   EXPECT_THAT( this->sm->calls, IsEmpty() );
   EXPECT_EQ( this->result( 1 ), -1 );
   EXPECT_EQ( this->sm->refusedCount(), 0U );
   EXPECT_EQ( this->sm->retryRefused(), 0U );
}

TYPED_TEST( BaseProgrammer, CatchesADeleteThatRaisesAndStillAdds ) {
   this->configure( 1, 1 );
   this->sm->calls.clear();
   this->sm->raises = { { "delete 1 1", 2 } };
   this->configure( 1, this->entry( 2, 1 ) );
   EXPECT_THAT( this->sm->calls, ElementsAre( "delete 1 1 raised", "add 1 2" ) );
   EXPECT_EQ( this->sm->refusedCount(), 0U );
   EXPECT_EQ( this->sm->rangeErrorCount(), 1U );
}

TYPED_TEST( BaseProgrammer, ARaisedAddAfterADeleteIsRefusedToo ) {
   this->configure( 1, 1 );
   this->sm->calls.clear();
   this->sm->raises = { { "add 1 2", 1 } };
   this->configure( 1, this->entry( 2, 1 ) );
   EXPECT_THAT( this->sm->calls, ElementsAre( "delete 1 1", "add 1 2 raised", "delete 1 2" ) );
   EXPECT_EQ( this->result( 1 ), 2 );
   EXPECT_EQ( this->sm->refusedCount(), 1U );
}

// --- Retries ---------------------------------------------------------------------------------------------------------

TYPED_TEST( BaseProgrammer, RetriesInTheOrderOfRefusalUntilOneRaisesAgain ) {
   this->sm->raises = { { "add 1 1", 1 }, { "add 2 2", 2 }, { "add 3 3", 1 } };
   for ( int const key : { 3, 2, 1 } ) {
      this->configure( key, static_cast< U32 >( key ) );
   }
   this->sm->calls.clear();
   EXPECT_EQ( this->sm->retryRefused(), 2U );
   EXPECT_THAT( this->sm->calls, ElementsAre( "add 3 3", "add 2 2 raised", "delete 2 2" ) );
   this->sm->calls.clear();
   EXPECT_EQ( this->sm->retryRefused(), 2U );
   EXPECT_THAT( this->sm->calls, ElementsAre( "add 1 1", "add 2 2" ) ) << "what raised again went to the end";
   EXPECT_EQ( this->sm->refusedCount(), 0U );
   EXPECT_EQ( this->sm->retryRefused(), 0U );
}

TYPED_TEST( BaseProgrammer, ARuleRefusedForAnotherReasonWaitsForANewEntryOrAReplay ) {
   this->sm->raises = { { "add 1 1", 2 }, { "add 2 2", 1 } };
   this->sm->otherReasons = { "add 1 1" };
   this->configure( 1, 1 );
   this->configure( 2, 2 );
   this->sm->calls.clear();
   EXPECT_EQ( this->sm->retryRefused(), 1U );
   EXPECT_THAT( this->sm->calls, ElementsAre( "add 2 2" ) );
   this->sm->calls.clear();
   this->sm->replay();
   EXPECT_THAT( this->sm->calls,
                testing::UnorderedElementsAre( "add 1 1 raised", "delete 1 1", "update 2 2", "reconcile" ) );
   EXPECT_EQ( this->result( 1 ), 2 );
   this->sm->calls.clear();
   this->sm->replay();
   EXPECT_THAT( this->sm->calls, testing::UnorderedElementsAre( "add 1 1", "update 2 2", "reconcile" ) );
}

TYPED_TEST( BaseProgrammer, ARetriedAddThatDoesNothingLeavesNoResult ) {
   this->sm->raises = { { "add 1 1", 1 } };
   this->configure( 1, 1 );
   EXPECT_EQ( this->sm->retryRefused(), 1U );
   EXPECT_EQ( this->result( 1 ), -1 );
}

TYPED_TEST( BaseProgrammer, AReplayRetriesAfterItHasReconciled ) {
   this->sm->raises = { { "add 1 1", 2 } };
   this->configure( 1, 1 );
   this->sm->calls.clear();
   this->sm->replay();
   EXPECT_THAT( this->sm->calls, ElementsAre( "add 1 1 raised", "delete 1 1", "reconcile", "add 1 1" ) );
}

// --- Refused adds, interface mode ------------------------------------------------------------------------------------

TYPED_TEST( InterfaceMode, ARaisedAddIsNeitherUndoneNorRemembered ) {
   this->sm->raises = { { "add 1 1", 1 }, { "add 1 4", 1 } };
   this->configure( 1, 1 );
   EXPECT_EQ( this->result( 1 ), -1 );
   EXPECT_EQ( this->sm->refusedCount(), 0U );
   EXPECT_EQ( this->sm->rangeErrorCount(), 1U );
   this->configure( 1, 2 );
   this->configure( 1, 3 );
   this->configure( 1, this->entry( 4, 1 ) );
   this->configure( 1, this->entry( 5, 1 ) );
   EXPECT_THAT( this->sm->calls,
                ElementsAre( "add 1 1 raised", "add 1 2", "update 1 3", "delete 1 3", "add 1 4 raised", "add 1 5" ) );
}

TYPED_TEST( InterfaceMode, ARaisedUpdateStaysRemembered ) {
   this->configure( 1, 1 );
   this->sm->calls.clear();
   this->sm->raises = { { "update 1 2", 1 } };
   this->configure( 1, 2 );
   this->unconfigure( 1 );
   EXPECT_THAT( this->sm->calls, ElementsAre( "update 1 2 raised", "delete 1 2" ) );
}

// --- Status ----------------------------------------------------------------------------------------------------------

TYPED_TEST( BaseProgrammer, ResultsOfAnotherEntryThanTheOneHandedOverAreIgnored ) {
   auto const older = this->configure( 1, 1 );
   this->addStatus( 1, older, NatHwResult::programmed );
   auto const newer = this->configure( 1, 2 );
   this->addStatus( 1, older, NatHwResult::failed );
   EXPECT_EQ( this->result( 1 ), 1 );
   EXPECT_EQ( this->resultEntry( 1 ), older );
   EXPECT_EQ( this->sm->checkStaleStatus().size(), 1U );

   // The older one's removal takes its own result, but not the newer one's.
   this->deleteStatus( 1, older );
   EXPECT_EQ( this->result( 1 ), -1 );
   this->addStatus( 1, newer, NatHwResult::rejectedMulticast );
   this->deleteStatus( 1, older );
   EXPECT_EQ( this->result( 1 ), 5 );
   EXPECT_EQ( this->resultEntry( 1 ), newer );
   this->deleteStatus( 1, newer );
   EXPECT_EQ( this->result( 1 ), -1 );
}

TYPED_TEST( BaseProgrammer, WithNothingHandedOverWritersAlwaysAct ) {
   this->addStatus( 1, this->entry( 1 ), NatHwResult::failed );
   EXPECT_EQ( this->result( 1 ), 2 );
   this->addStatus( 1, this->entry( 2 ), NatHwResult::programmed );
   EXPECT_EQ( this->result( 1 ), 1 );
   this->deleteStatus( 1, this->entry( 3 ) );
   EXPECT_EQ( this->result( 1 ), -1 );
}

TYPED_TEST( BaseProgrammer, AnEntryIsRememberedBeforeItsOperationIsCalled ) {
   for ( U32 const number : { 1u, 2u } ) {
      auto const entry = this->entry( number );
      this->sm->duringCalls = [ & ] { this->addStatus( 1, entry, NatHwResult::rejectedMulticast ); };
      this->configure( 1, entry );
      EXPECT_EQ( this->resultEntry( 1 ), entry );
   }
}

TYPED_TEST( BaseProgrammer, AtRestOnlyResultsOfWhatIsHandedOverRemain ) {
   auto const kept = this->configure( 1, 1 );
   auto const older = this->configure( 2, 2 );
   auto const gone = this->configure( 3, 3 );
   this->addStatus( 1, kept, NatHwResult::programmed );
   this->addStatus( 2, older, NatHwResult::programmed );
   this->addStatus( 3, gone, NatHwResult::programmed );
   this->configure( 2, 4 );
   this->unconfigure( 3 );
   EXPECT_EQ( this->sm->checkStaleStatus().size(), 2U );
   this->sm->atRest();
   EXPECT_EQ( this->result( 1 ), 1 );
   EXPECT_EQ( this->result( 2 ), -1 );
   EXPECT_EQ( this->result( 3 ), -1 );
   EXPECT_THAT( this->sm->checkStaleStatus(), IsEmpty() );
}

// --- Whoever watches the status changes rules ------------------------------------------------------------------------

TYPED_TEST( BaseProgrammer, AResultThatIsDroppedAtRestMayBringNewRules ) {
   auto const gone = this->configure( 1, 1 );
   this->addStatus( 1, gone, NatHwResult::programmed );
   this->unconfigure( 1 );
   this->addStatus( 1, gone, NatHwResult::failed );
   struct Watcher final : TypeParam::StatusWatcher {
      explicit Watcher( std::function< void() > action ) : action_( std::move( action ) ) {}
      void onKey( typename TypeParam::Key const &, typename TypeParam::Status const *,
                  typename TypeParam::Status const * current ) override {
         if ( !current ) {
            action_();
         }
      }
      std::function< void() > action_;
   };
   Watcher watcher( [ & ] {
      for ( int key = 2; key < 100; ++key ) {
         this->addStatus( key, this->configure( key, 2 ), NatHwResult::programmed );
         this->configure( key, 3 );
      }
   } );
   TypeParam::status( *this->status ).watcherIs( watcher );
   this->sm->atRest();
   TypeParam::status( *this->status ).watcherDel( watcher );
   EXPECT_EQ( this->result( 1 ), -1 );
   EXPECT_EQ( this->sm->checkStaleStatus().size(), 98U );
   this->sm->atRest();
   EXPECT_THAT( this->sm->checkStaleStatus(), IsEmpty() );
}

TYPED_TEST( BaseProgrammer, ARuleThatChangesAgainWhileItIsTakenBackIsHandedOverAsItIsThen ) {
   for ( bool const goes : { false, true } ) {
      SCOPED_TRACE( goes );
      this->configure( 1, 1 );
      this->sm->calls.clear();
      this->sm->duringCalls = [ & ] {
         this->sm->duringCalls = nullptr;
         goes ? this->unconfigure( 1 ) : void( this->configure( 1, this->entry( 3, 2 ) ) );
      };
      this->configure( 1, this->entry( 2, 1 ) );
      if ( goes ) {
         EXPECT_THAT( this->sm->calls, ElementsAre( "delete 1 1", "delete 1 1" ) );
      } else {
         EXPECT_THAT( this->sm->calls, ElementsAre( "delete 1 1", "add 1 3", "delete 1 1" ) );
      }
      this->unconfigure( 1 );
   }
}

TYPED_TEST( BaseProgrammer, RulesMayGoWhileTheyAreReplayed ) {
   constexpr int rules = 20;
   for ( int key = 0; key < rules; ++key ) {
      this->configure( key, 1 );
   }
   this->sm->calls.clear();
   int gone = 0;
   auto const takeOneAway = [ & ] {
      auto again = std::exchange( this->sm->duringCalls, nullptr );
      this->unconfigure( gone++ );
      this->sm->duringCalls = std::move( again );
   };
   this->sm->duringCalls = takeOneAway;
   this->sm->replay();
   this->sm->duringCalls = nullptr;
   EXPECT_GE( gone, rules / 2 );
   std::set< std::string > deleted;
   for ( auto const & call : this->sm->calls ) {
      auto const key = call.substr( call.find( ' ' ) + 1 );
      if ( call.starts_with( "delete" ) ) {
         deleted.insert( key );
      }
   }
   EXPECT_EQ( deleted.size(), static_cast< std::size_t >( std::min( gone, rules ) ) );
}

}  // namespace
