// What the base programmer hands over, and what it makes of refusals and results. That it hands over what is
// configured, in whatever order it changes, is seen in the histories of the model.
#include <Pfe/NatBaseProgrammerSm.h>
#include <Pfe/NatNextHop.h>

#include <tests/support/Programmer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>

namespace {

using PfeHelper::NatHwResult;
using Support::AnyKey;
using Support::DynamicRule;
using Support::StaticRule;
using Support::TwiceRule;
using testing::ElementsAre;
using testing::IsEmpty;
using Mode = Pfe::NatBaseProgrammerSm::Mode;

// --- Rules by number -------------------------------------------------------------------------------------------------

// The number of a rule's key is an address; that of its entry is the next hop's, which decides no rows.
auto & numberOf( auto & key ) {
   if constexpr ( requires { key.conn; } ) {
      return key.conn.source.ip;
   } else if constexpr ( requires { key.key.source; } ) {
      return key.key.source.ip;
   } else {
      return key.key.ip;
   }
}

template< class Rule > Rule ruleOf( U32 key, U32 number, U32 vrfId = 0 ) {
   typename Rule::Fields fields;
   fields.vrfId = vrfId;  // which decides rows
   fields.nextHop = Orla::make< Pfe::NatNextHopId >( number );
   Rule rule{ {}, Orla::make< std::remove_reference_t< decltype( *Rule().entry ) > >( fields ) };
   numberOf( rule.key ) = Netix::IpAddr( key );
   return rule;
}

// Writes down "<operation> <key's number> <entry's number>", with " raised" behind it when it raised.
class CalledProgrammer final : public Pfe::NatBaseProgrammerSm {
 public:
   CalledProgrammer( Pfe::NatProgrammerConfig::PtrConst config, Pfe::NatProgrammerStatus::Ptr status )
      : NatBaseProgrammerSm( std::move( config ), std::move( status ) ) {}
   using StaticKey = Pfe::NatProgrammerStaticKey;
   using TwiceKey = Pfe::NatProgrammerTwiceKey;
   using DynamicKey = Pfe::NatProgrammerDynamicKey;
   using TrapKey = Pfe::NatProgrammerTrapKey;
   using Static = Pfe::NatProgrammerStaticEntry::PtrConst;
   using Twice = Pfe::NatProgrammerTwiceEntry::PtrConst;
   using Dynamic = Pfe::NatProgrammerDynamicEntry::PtrConst;
   using Trap = Pfe::NatProgrammerTrapEntry::PtrConst;

   Support::Lines calls;
   std::map< std::string, unsigned > raises;  // calls that raise for lack of an id, and how often
   std::function< void() > duringCall;        // the next one

   void setNatProfile( U16 vlan, U16 profile ) override {
      called( "setProfile " + std::to_string( vlan ) + ' ' + std::to_string( profile ) );
   }
   void clearNatProfile( U16 vlan ) override { called( "clearProfile " + std::to_string( vlan ) ); }
   void addStaticConnection( StaticKey const & key, Static const & entry ) override { called( "add", key, *entry ); }
   void updateStaticConnection( StaticKey const & k, Static const & entry ) override { called( "update", k, *entry ); }
   void deleteStaticConnection( StaticKey const & k, Static const & entry ) override { called( "delete", k, *entry ); }
   void addTwiceConnection( TwiceKey const & key, Twice const & entry ) override { called( "add", key, *entry ); }
   void updateTwiceConnection( TwiceKey const & key, Twice const & entry ) override { called( "update", key, *entry ); }
   void deleteTwiceConnection( TwiceKey const & key, Twice const & entry ) override { called( "delete", key, *entry ); }
   void addDynamicConnection( DynamicKey const & k, Dynamic const & entry ) override { called( "add", k, *entry ); }
   void updateDynamicConnection( DynamicKey const & k, Dynamic const & e ) override { called( "update", k, *e ); }
   void deleteDynamicConnection( DynamicKey const & k, Dynamic const & e ) override { called( "delete", k, *e ); }
   void addTrap( TrapKey const &, Trap const & entry ) override { called( "addTrap " + ruleIdOf( entry ) ); }
   void deleteTrap( TrapKey const &, Trap const & entry ) override { called( "deleteTrap " + ruleIdOf( entry ) ); }
   void replayReconcile() override { called( "reconcile" ); }
   Vexa::TypeData const & typeData() const override { return classType(); }

 private:
   static std::string ruleIdOf( Trap const & entry ) { return std::to_string( entry->rule().ruleId ); }

   void called( std::string const & operation, auto const & key, auto const & entry ) {
      auto const & number = dynamic_cast< Pfe::NatNextHopId const & >( *entry.nextHop() );
      called( operation + ' ' + std::to_string( numberOf( key ).value() ) + ' ' + std::to_string( number.id() ) );
   }
   void called( std::string const & call ) {
      if ( auto const action = std::exchange( duringCall, nullptr ) ) {
         action();
      }
      auto const raising = raises.find( call );
      if ( raising == raises.end() || raising->second == 0 ) {
         calls.push_back( call );
         return;
      }
      --raising->second;
      calls.push_back( call + " raised" );
      throw Vexa::RangeException( Pfe::NatId::rangeError );
   }
};

// Static rules stand for all: the memory of what was handed over is one template.
struct BaseProgrammer : testing::Test {
   explicit BaseProgrammer( Mode mode = Mode::tables ) {
      sm->programmerModeIs( mode );
      sm->hasNotificationActiveIs( true );
      sm->replay();
      sm->calls.clear();
   }

   template< class Rule = StaticRule > Rule configure( Rule const & rule ) {
      Support::configure( *config, rule );
      return rule;
   }
   StaticRule configure( U32 key, U32 number, U32 vrfId = 0 ) {
      return configure( ruleOf< StaticRule >( key, number, vrfId ) );
   }
   void unconfigure( U32 key ) { config->staticEntryDel( ruleOf< StaticRule >( key, 0 ).key ); }
   void addStatus( StaticRule const & rule, NatHwResult result ) {
      sm->addProgrammerStaticStatusEntry( rule.key, rule.entry, result );
   }
   void deleteStatus( StaticRule const & rule ) { sm->deleteProgrammerStaticStatusEntry( rule.key, rule.entry ); }
   // What results there are, and for which rules.
   using Outcomes = std::map< AnyKey, Support::Outcome >;
   Outcomes outcomes() const { return Support::outcomes( *status ); }

   Pfe::NatProgrammerConfig::Ptr const config = Orla::make< Pfe::NatProgrammerConfig >();
   Pfe::NatProgrammerStatus::Ptr const status = Orla::make< Pfe::NatProgrammerStatus >();
   Pfe::NatVlanProfileConfig::Ptr const profiles = Orla::make< Pfe::NatVlanProfileConfig >();
   Orla::Ptr< CalledProgrammer > sm = Orla::make< CalledProgrammer >( config, status );
};

struct BaseInInterfaceMode : BaseProgrammer {
   BaseInInterfaceMode() : BaseProgrammer( Mode::interfaces ) {}
};

// --- Handing over ----------------------------------------------------------------------------------------------------

TEST_F( BaseProgrammer, HandsOverAddsUpdatesAndDeletes ) {
   auto const first = configure( 1, 11 );
   configure( 2, 21 );
   configure( 1, 12 );
   configure( 1, 13, 5 );
   unconfigure( 1 );
   unconfigure( 1 );
   configure( first );
   configure( first );
   EXPECT_THAT( sm->calls, ElementsAre( "add 1 11", "add 2 21", "update 1 12", "delete 1 12", "add 1 13", "delete 1 13",
                                        "add 1 11", "update 1 11" ) );
}

TEST_F( BaseProgrammer, LeavesChangesToTheFirstReplay ) {
   auto const sm = Orla::make< CalledProgrammer >( config, status );
   sm->hasNotificationActiveIs( true );
   configure( 1, 1 );
   configure( 1, 2 );
   EXPECT_THAT( sm->calls, IsEmpty() );
   sm->replay();
   sm->hasNotificationActiveIs( false );
   configure( 1, 3 );
   EXPECT_THAT( std::exchange( sm->calls, {} ), ElementsAre( "add 1 2", "reconcile" ) );
   sm->replay();
   EXPECT_THAT( sm->calls, ElementsAre( "update 1 3", "reconcile" ) );
}

// --- What raises -----------------------------------------------------------------------------------------------------

TEST_F( BaseProgrammer, UndoesWhatRaisedAndSaysFailed ) {
   struct {
      std::map< std::string, unsigned > raises;
      U32 vrfId;
      Support::Lines calls;
      bool refused;
   } const rows[] = {
      { { { "update 1 2", 1 } }, 0, { "update 1 2 raised", "delete 1 2" }, true },
      { { { "update 1 2", 1 }, { "delete 1 2", 1 } }, 0, { "update 1 2 raised", "delete 1 2 raised" }, true },
      { { { "add 1 2", 1 } }, 7, { "delete 1 1", "add 1 2 raised", "delete 1 2" }, true },
      { { { "delete 1 1", 1 } }, 7, { "delete 1 1 raised", "add 1 2" }, false },
   };
   std::size_t errors = 0;
   for ( auto const & row : rows ) {
      SCOPED_TRACE( row.calls.front() );
      configure( 1, 1 );
      sm->calls.clear();
      sm->raises = row.raises;
      auto const changed = configure( 1, 2, row.vrfId );
      EXPECT_EQ( sm->calls, row.calls );
      EXPECT_EQ( sm->rangeErrorCount(), ++errors ) << "the undo's is dropped";
      EXPECT_EQ( sm->refusedCount(), row.refused );
      if ( row.refused ) {
         // Only the base itself writes its status now.
         addStatus( changed, NatHwResult::programmed );
         deleteStatus( changed );
         sm->atRest();
         EXPECT_EQ( outcomes().at( changed.key ), ( Support::Outcome{ NatHwResult::failed, changed } ) );
      }
      sm->calls.clear();
      sm->raises.clear();
      unconfigure( 1 );
      EXPECT_EQ( sm->calls.size(), row.refused ? 0U : 1U );
      EXPECT_EQ( sm->retryRefused() + outcomes().size(), 0U );
   }
}

TEST_F( BaseInInterfaceMode, NeitherUndoesNorRemembersAnAddThatRaised ) {
   sm->raises = { { "add 1 1", 1 }, { "update 1 3", 1 }, { "add 1 4", 1 } };
   configure( 1, 1 );
   EXPECT_EQ( outcomes().size() + sm->refusedCount(), 0U );
   EXPECT_EQ( sm->rangeErrorCount(), 1U );
   configure( 1, 2 );
   configure( 1, 3 );
   configure( 1, 4, 7 );
   configure( 1, 5, 7 );
   EXPECT_THAT( sm->calls, ElementsAre( "add 1 1 raised", "add 1 2", "update 1 3 raised", "delete 1 3",
                                        "add 1 4 raised", "add 1 5" ) );
}

// --- Status ----------------------------------------------------------------------------------------------------------

TEST_F( BaseProgrammer, ResultsOfAnotherEntryThanTheOneHandedOverAreIgnored ) {
   auto const older = configure( 1, 1 );
   AnyKey const key = older.key;
   addStatus( older, NatHwResult::programmed );
   auto const newer = configure( 1, 2 );
   addStatus( older, NatHwResult::failed );
   EXPECT_EQ( outcomes(), ( Outcomes{ { key, { NatHwResult::programmed, older } } } ) );
   EXPECT_EQ( sm->checkStaleStatus().size(), 1U );

   // The older one's removal takes its own result, but not the newer one's.
   deleteStatus( older );
   EXPECT_EQ( outcomes(), Outcomes() );
   addStatus( newer, NatHwResult::rejectedMulticast );
   deleteStatus( older );
   EXPECT_EQ( outcomes(), ( Outcomes{ { key, { NatHwResult::rejectedMulticast, newer } } } ) );
   deleteStatus( newer );
   EXPECT_EQ( outcomes(), Outcomes() );
}

TEST_F( BaseProgrammer, AtRestOnlyResultsOfWhatIsHandedOverRemain ) {
   auto const kept = configure( 1, 1 );
   for ( auto const & rule : { kept, configure( 2, 2 ), configure( 3, 3 ) } ) {
      addStatus( rule, NatHwResult::programmed );
   }
   configure( 2, 4 );
   unconfigure( 3 );
   EXPECT_EQ( sm->checkStaleStatus().size(), 2U );
   sm->atRest();
   EXPECT_EQ( outcomes().size(), 1U );
   EXPECT_TRUE( outcomes().contains( kept.key ) );
}

// --- Whoever is told changes rules -----------------------------------------------------------------------------------

TEST_F( BaseProgrammer, ARuleThatChangesAgainWhileItIsTakenBackIsHandedOverAsItIsThen ) {
   for ( bool const goes : { false, true } ) {
      configure( 1, 1 );
      sm->calls.clear();
      sm->duringCall = [ & ] { goes ? unconfigure( 1 ) : void( configure( 1, 3, 8 ) ); };
      configure( 1, 2, 7 );
      EXPECT_EQ( sm->calls, goes ? ( Support::Lines{ "delete 1 1" } ) : ( Support::Lines{ "add 1 3", "delete 1 1" } ) );
      unconfigure( 1 );
   }
}

TEST_F( BaseProgrammer, RulesMayComeAndGoWhileTheyAreReplayed ) {
   constexpr U32 rules = 20;
   for ( U32 key = 0; key < rules; ++key ) {
      configure( key, 1 );
   }
   sm->calls.clear();
   U32 gone = 0;
   std::function< void() > const change = [ & ] {
      for ( U32 key = 0; key < 100; ++key ) {
         configure( 1000 * ( gone + 1 ) + key, 1 );
      }
      unconfigure( gone++ );
      sm->duringCall = gone < rules / 2 ? change : nullptr;
   };
   sm->duringCall = change;
   sm->replay();
   EXPECT_EQ( gone, rules / 2 );
   std::set< std::string > deleted;
   for ( auto const & call : sm->calls ) {
      if ( call.starts_with( "delete" ) ) {
         deleted.insert( call );
      }
   }
   EXPECT_EQ( deleted.size(), gone );
}

// --- Everything once more, traps, profiles ---------------------------------------------------------------------------

struct Replay : BaseProgrammer {
   void configureTrap( U16 ruleId ) {
      config->trapEntryIs( trapKey, Orla::make< Pfe::NatProgrammerTrapEntry const >(
                                       0U, Ip::Nat::NatDynamicTrapRule{ .ruleId = ruleId } ) );
   }
   Pfe::NatProgrammerTrapKey const trapKey{ Netix::IntfId(), { "lab", 4 } };
};

TEST_F( Replay, GoesThroughStaticTwiceDynamicTrapsAndProfilesThenReconcilesThenRetries ) {
   configureTrap( 9 );
   configure( ruleOf< DynamicRule >( 3, 3 ) );
   configure( ruleOf< TwiceRule >( 2, 2 ) );
   sm->raises = { { "add 1 1", 2 } };
   Support::TraceLines trace( 2 );
   configure( ruleOf< StaticRule >( 1, 1 ) );
   EXPECT_THAT( trace.take(),
                ElementsAre( "2 range error, rule: " + Vexa::stringOf( ruleOf< StaticRule >( 1, 1 ).key ) +
                             ", error: Pfe::NatId::value < Pfe::NatId::min or > Pfe::NatId::max not allowed" ) );
   profiles->vlanProfileIs( 10, 7 );
   sm->natVlanProfileConfigIs( profiles );
   sm->calls.clear();
   sm->replay();
   EXPECT_THAT( sm->calls, ElementsAre( "add 1 1 raised", "delete 1 1", "update 2 2", "update 3 3", "addTrap 9",
                                        "setProfile 10 7", "reconcile", "add 1 1" ) );
   sm = nullptr;
   configure( ruleOf< StaticRule >( 1, 1 ) );  // nobody is told
}

// A rule asks for the ids of its key's number and of the thousandfold.
struct KeyAndThousandfold final : Pfe::NatIdDemand {
   static Pfe::NatMatchKey keyOf( U32 number ) { return Pfe::StaticNatMatchKey{ .vrfId = number }; }
   MatchKeys matchKeysOf( Pfe::NatProgrammerStaticKey const & key,
                          Pfe::NatProgrammerStaticEntry::PtrConst const & ) const override {
      MatchKeys keys;
      keys.push( keyOf( key.key.ip.value() ) );
      keys.push( keyOf( key.key.ip.value() * 1000 ) );
      return keys;
   }
   MatchKeys matchKeysOf( Pfe::NatProgrammerTwiceKey const &,
                          Pfe::NatProgrammerTwiceEntry::PtrConst const & ) const override {
      return {};
   }
   MatchKeys matchKeysOf( Pfe::NatProgrammerDynamicKey const &,
                          Pfe::NatProgrammerDynamicEntry::PtrConst const & ) const override {
      return {};
   }
};

TEST_F( Replay, RetriesKeepOneOrderForAllKindsAndStopWhileNoIdIsFree ) {
   sm->raises = { { "add 1 1", 1 }, { "add 2 2", 1 }, { "add 3 3", 1 } };
   configure( ruleOf< DynamicRule >( 3, 3 ) );
   configure( ruleOf< StaticRule >( 1, 1 ) );
   configure( ruleOf< TwiceRule >( 2, 2 ) );
   auto const pool = Orla::make< Pfe::NatIdInfo >();
   for ( U32 id = 1; id <= Pfe::NatId::max; ++id ) {
      pool->matchKeyToNatIdIs( Pfe::StaticNatMatchKey{ .vrfId = id }, Pfe::NatId( id ) );
   }
   sm->natIdPoolIs( pool );
   sm->calls.clear();
   EXPECT_EQ( sm->retryRefused(), 0U );
   EXPECT_THAT( sm->calls, IsEmpty() );
   pool->matchKeyToNatIdDel( Pfe::StaticNatMatchKey{ .vrfId = 1 } );
   EXPECT_EQ( sm->retryRefused(), 3U );
   EXPECT_THAT( sm->calls, ElementsAre( "add 3 3", "add 1 1", "add 2 2" ) );

   // One id is free: who needs two waits, who needs none that has no id yet does not. What comes or goes counts at
   // once.
   sm->natIdDemandIs( std::make_shared< KeyAndThousandfold >() );
   sm->calls.clear();
   configure( 70'000, 1 );
   configure( 80'000, 1 );
   configure( 2, 9, 5 );
   EXPECT_THAT( sm->calls, ElementsAre( "add 2 9" ) );
   EXPECT_EQ( sm->refusedCount(), 2U );
   EXPECT_EQ( sm->retryRefused(), 0U );
   pool->matchKeyToNatIdDel( Pfe::StaticNatMatchKey{ .vrfId = 7 } );
   pool->matchKeyToNatIdDel( Pfe::StaticNatMatchKey{ .vrfId = 8 } );
   pool->matchKeyToNatIdIs( KeyAndThousandfold::keyOf( 70'001 ), Pfe::NatId( 7 ) );
   pool->matchKeyToNatIdIs( KeyAndThousandfold::keyOf( 70'002 ), Pfe::NatId( 8 ) );
   EXPECT_EQ( sm->retryRefused(), 0U );
   pool->matchKeyToNatIdIs( KeyAndThousandfold::keyOf( 70'000 ), Pfe::NatId( 1 ) );
   pool->matchKeyToNatIdDel( KeyAndThousandfold::keyOf( 70'001 ) );
   EXPECT_EQ( sm->retryRefused(), 1U );
   pool->matchKeyToNatIdDel( KeyAndThousandfold::keyOf( 70'002 ) );
   EXPECT_EQ( sm->retryRefused(), 1U );
   EXPECT_THAT( sm->calls, ElementsAre( "add 2 9", "add 70000 1", "add 80000 1" ) );
   sm = nullptr;
}

TEST_F( Replay, TrapsOfTheSameNameAreAddedOverAndOthersTakenBackFirstWhateverRaises ) {
   sm->raises = { { "addTrap 1", 1 }, { "deleteTrap 2", 1 } };
   for ( U16 const ruleId : { 1, 1, 1, 2, 3 } ) {
      configureTrap( ruleId );
   }
   config->trapEntryDel( trapKey );
   config->trapEntryDel( trapKey );
   EXPECT_THAT( sm->calls, ElementsAre( "addTrap 1 raised", "addTrap 1", "addTrap 1", "deleteTrap 1", "addTrap 2",
                                        "deleteTrap 2 raised", "addTrap 3", "deleteTrap 3" ) );
   EXPECT_EQ( sm->rangeErrorCount(), 2U );
   EXPECT_EQ( sm->refusedCount(), 0U );
}

TEST_F( Replay, ProfilesComeFromTheirOwnConfigurationOnly ) {
   profiles->vlanProfileIs( 10, 7 );
   sm->natVlanProfileConfigIs( profiles );
   EXPECT_THAT( sm->calls, IsEmpty() );
   profiles->vlanProfileIs( 11, 0 );
   profiles->vlanProfileIs( 10, 8 );
   profiles->vlanProfileDel( 11 );
   profiles->vlanProfileDel( 12 );
   EXPECT_THAT( std::exchange( sm->calls, {} ),
                ElementsAre( "setProfile 11 0", "setProfile 10 8", "clearProfile 11" ) );
   sm->natVlanProfileConfigIs( nullptr );
   profiles->vlanProfileIs( 10, 9 );
   sm->replay();
   EXPECT_THAT( sm->calls, ElementsAre( "reconcile" ) );
}

}  // namespace
