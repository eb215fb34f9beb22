// The kinds of rules behind one set of names, and a programmer that writes down what it is called for.
#pragma once

#include <tests/support/Programmer.h>

#include <Pfe/NatBaseProgrammerSm.h>
#include <Pfe/NatNextHop.h>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Support {

// The operations of one kind of rules on configuration, programmer and status.
template< class KeyType, class EntryType, auto entryIs, auto entryDel, auto handler, auto statusAdd, auto statusDel,
          auto allStatus >
struct KindOperations {
   using Key = KeyType;
   using Entry = EntryType;
   using EntryPtr = typename Entry::PtrConst;
   using Fields = typename Entry::Fields;
   using Config = Pfe::NatProgrammerConfig;
   using Sm = Pfe::NatBaseProgrammerSm;

   static EntryPtr make( Fields fields ) { return Orla::make< Entry const >( std::move( fields ) ); }
   static void configure( Config & config, Key const & key, EntryPtr const & entry ) {
      ( config.*entryIs )( key, entry );
   }
   static void unconfigure( Config & config, Key const & key ) { ( config.*entryDel )( key ); }
   static void handle( Sm & sm, Key const & key ) { ( sm.*handler )( key ); }
   static void addStatus( Sm & sm, Key const & key, EntryPtr const & entry, PfeHelper::NatHwResult result ) {
      ( sm.*statusAdd )( key, entry, result );
   }
   static void deleteStatus( Sm & sm, Key const & key, EntryPtr const & entry ) { ( sm.*statusDel )( key, entry ); }
   static auto const & status( Pfe::NatProgrammerStatus const & status ) { return ( status.*allStatus )(); }
   using AllStatus =
      std::remove_cvref_t< decltype( ( std::declval< Pfe::NatProgrammerStatus const & >().*allStatus )() ) >;
   using Status = typename AllStatus::Value;
   using StatusWatcher = typename AllStatus::Watcher;
};

// Beside the operations each kind has `variants()`, each of which changes one field that decides rows, and keys by
// number.
struct StaticKind
   : KindOperations<
        Pfe::NatProgrammerStaticKey, Pfe::NatProgrammerStaticEntry, &Pfe::NatProgrammerConfig::staticEntryIs,
        &Pfe::NatProgrammerConfig::staticEntryDel, &Pfe::NatBaseProgrammerSm::handleProgrammerStaticConfig,
        &Pfe::NatBaseProgrammerSm::addProgrammerStaticStatusEntry,
        &Pfe::NatBaseProgrammerSm::deleteProgrammerStaticStatusEntry, &Pfe::NatProgrammerStatus::staticStatus > {
   static std::vector< void ( * )( Fields & ) > variants() {
      return { []( Fields & f ) { f.vrfId = 1; },
               []( Fields & f ) { f.vlanId = 1; },
               []( Fields & f ) { f.intfQualifier = 1; },
               []( Fields & f ) { f.connection.target = Ip::Nat::NatTarget::destination; },
               []( Fields & f ) { f.connection.protocol = 6; },
               []( Fields & f ) { f.connection.translated.ip = Netix::IpAddr( 1 ); },
               []( Fields & f ) { f.connection.translated.port = 1; } };
   }
   static Key key( int number ) {
      return { Netix::IntfId(), { "", Netix::IpAddr( static_cast< U32 >( number ) ), 0 } };
   }
   static int numberOf( Key const & key ) { return static_cast< int >( key.key.ip.value() ); }
};

struct TwiceKind
   : KindOperations< Pfe::NatProgrammerTwiceKey, Pfe::NatProgrammerTwiceEntry, &Pfe::NatProgrammerConfig::twiceEntryIs,
                     &Pfe::NatProgrammerConfig::twiceEntryDel, &Pfe::NatBaseProgrammerSm::handleProgrammerTwiceConfig,
                     &Pfe::NatBaseProgrammerSm::addProgrammerTwiceStatusEntry,
                     &Pfe::NatBaseProgrammerSm::deleteProgrammerTwiceStatusEntry,
                     &Pfe::NatProgrammerStatus::twiceStatus > {
   static std::vector< void ( * )( Fields & ) > variants() {
      return { []( Fields & f ) { f.vrfId = 1; },
               []( Fields & f ) { f.vlanId = 1; },
               []( Fields & f ) { f.intfQualifier = 1; },
               []( Fields & f ) { f.connection.source.port = 1; },
               []( Fields & f ) { f.connection.destination.port = 1; },
               []( Fields & f ) { f.connection.translatedSource.port = 1; },
               []( Fields & f ) { f.connection.translatedDestination.port = 1; } };
   }
   static Key key( int number ) {
      Key key;
      key.key.source.ip = Netix::IpAddr( static_cast< U32 >( number ) );
      return key;
   }
   static int numberOf( Key const & key ) { return static_cast< int >( key.key.source.ip.value() ); }
};

struct DynamicKind
   : KindOperations<
        Pfe::NatProgrammerDynamicKey, Pfe::NatProgrammerDynamicEntry, &Pfe::NatProgrammerConfig::dynamicEntryIs,
        &Pfe::NatProgrammerConfig::dynamicEntryDel, &Pfe::NatBaseProgrammerSm::handleProgrammerDynamicConfig,
        &Pfe::NatBaseProgrammerSm::addProgrammerDynamicStatusEntry,
        &Pfe::NatBaseProgrammerSm::deleteProgrammerDynamicStatusEntry, &Pfe::NatProgrammerStatus::dynamicStatus > {
   static std::vector< void ( * )( Fields & ) > variants() {
      return { []( Fields & f ) { f.vrfId = 1; },
               []( Fields & f ) { f.intfQualifier = 1; },
               []( Fields & f ) { f.connection.target = Ip::Nat::NatTarget::destination; },
               []( Fields & f ) { f.connection.addrOnly = true; },
               []( Fields & f ) { f.connection.fullCone = true; },
               []( Fields & f ) { f.global.port = 1; } };
   }
   static Key key( int number ) {
      Key key;
      key.conn.source.ip = Netix::IpAddr( static_cast< U32 >( number ) );
      return key;
   }
   static int numberOf( Key const & key ) { return static_cast< int >( key.conn.source.ip.value() ); }
};

using AllKinds = testing::Types< StaticKind, TwiceKind, DynamicKind >;

// Writes down "<operation> <key's number> <next hop's id>", with " raised" behind it when it raised.
class CalledProgrammer final : public Pfe::NatBaseProgrammerSm {
 public:
   using Sm = Pfe::NatBaseProgrammerSm;

   CalledProgrammer( Pfe::NatProgrammerConfig::Ptr config, Pfe::NatProgrammerStatus::Ptr status )
      : NatBaseProgrammerSm( std::move( config ), std::move( status ) ) {}

   Lines calls;
   // Calls that raise, and how often; for lack of an id unless they are among `otherReasons`.
   std::map< std::string, unsigned > raises;
   std::set< std::string > otherReasons;
   std::function< void() > duringCalls;

   void setNatProfile( U16 vlan, U16 profile ) override {
      called( "setProfile " + std::to_string( vlan ) + ' ' + std::to_string( profile ) );
   }
   void clearNatProfile( U16 vlan ) override { called( "clearProfile " + std::to_string( vlan ) ); }
   void addStaticConnection( StaticKind::Key const & key, StaticKind::EntryPtr const & entry ) override {
      called< StaticKind >( "add", key, entry );
   }
   void updateStaticConnection( StaticKind::Key const & key, StaticKind::EntryPtr const & entry ) override {
      called< StaticKind >( "update", key, entry );
   }
   void deleteStaticConnection( StaticKind::Key const & key, StaticKind::EntryPtr const & entry ) override {
      called< StaticKind >( "delete", key, entry );
   }
   void addTwiceConnection( TwiceKind::Key const & key, TwiceKind::EntryPtr const & entry ) override {
      called< TwiceKind >( "add", key, entry );
   }
   void updateTwiceConnection( TwiceKind::Key const & key, TwiceKind::EntryPtr const & entry ) override {
      called< TwiceKind >( "update", key, entry );
   }
   void deleteTwiceConnection( TwiceKind::Key const & key, TwiceKind::EntryPtr const & entry ) override {
      called< TwiceKind >( "delete", key, entry );
   }
   void addDynamicConnection( DynamicKind::Key const & key, DynamicKind::EntryPtr const & entry ) override {
      called< DynamicKind >( "add", key, entry );
   }
   void updateDynamicConnection( DynamicKind::Key const & key, DynamicKind::EntryPtr const & entry ) override {
      called< DynamicKind >( "update", key, entry );
   }
   void deleteDynamicConnection( DynamicKind::Key const & key, DynamicKind::EntryPtr const & entry ) override {
      called< DynamicKind >( "delete", key, entry );
   }
   void addTrap( Pfe::NatProgrammerTrapKey const & key, Pfe::NatProgrammerTrapEntry::PtrConst const & entry ) override {
      called( "addTrap " + trapText( key, *entry ) );
   }
   void deleteTrap( Pfe::NatProgrammerTrapKey const & key,
                    Pfe::NatProgrammerTrapEntry::PtrConst const & entry ) override {
      called( "deleteTrap " + trapText( key, *entry ) );
   }
   void replayReconcile() override { called( "reconcile" ); }

   Vexa::TypeData const & typeData() const override { return classType(); }

 private:
   static std::string trapText( Pfe::NatProgrammerTrapKey const & key, Pfe::NatProgrammerTrapEntry const & entry ) {
      return std::to_string( key.key.poolId ) + " rule " + std::to_string( entry.rule().ruleId );
   }

   template< class Kind >
   void called( std::string const & operation, typename Kind::Key const & key, typename Kind::EntryPtr const & entry ) {
      auto const & number = dynamic_cast< Pfe::NatNextHopId const & >( *entry->nextHop() );
      called( operation + ' ' + std::to_string( Kind::numberOf( key ) ) + ' ' + std::to_string( number.id() ) );
   }

   void called( std::string const & call ) {
      if ( duringCalls ) {
         duringCalls();
      }
      auto const raising = raises.find( call );
      if ( raising == raises.end() || raising->second == 0 ) {
         calls.push_back( call );
         return;
      }
      --raising->second;
      calls.push_back( call + " raised" );
      throw Vexa::RangeException( otherReasons.contains( call ) ? "VrfId::value > 0x00ffffff not allowed"
                                                                : Pfe::NatId::rangeError );
   }
};

}  // namespace Support
