// Random histories of interfaces that share static rules, in interface mode. RC_PARAMS works as for other histories.
#include "PfeNat/PfeNatProgrammerIntfModeSm.h"

#include <tests/support/Programmer.h>
#include <tests/support/SwTableText.h>

#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <map>
#include <random>
#include <set>
#include <utility>

namespace {

using Ip::Nat::NatTarget;
using Pfe::NatSwTableStaticKey;
using Support::StaticEntry;
using Support::StaticKey;

// --- The model -------------------------------------------------------------------------------------------------------

using Rules = std::map< StaticKey, StaticEntry >;
using Pairs = std::set< std::pair< std::string, std::string > >;

// Told from inside to outside, then back: what a packet meets on its way, and its reply.
std::set< NatSwTableStaticKey > keysFedBy( StaticKey const & key, StaticEntry const & entry ) {
   auto const & connection = entry->connection();
   bool const isSource = connection.target == NatTarget::source;
   Netix::IpAndPort const keyPair{ key.key.ip, key.key.port };
   auto const inside = isSource ? keyPair : connection.translated;
   auto const outside = isSource ? connection.translated : keyPair;
   bool const mcast = inside.ip.isMulticast() || outside.ip.isMulticast();
   NatSwTableStaticKey const out{ key.key.aclName, entry->vrfId(),      inside, outside, {},
                                  false,           connection.protocol, mcast };
   NatSwTableStaticKey const back{
      key.key.aclName,     entry->vrfId(), outside, inside, Bridging::VlanIdOrNone( entry->vlanId() ), true,
      connection.protocol, mcast };
   return !mcast ? std::set{ out, back } : std::set{ isSource ? out : back };
}

// Who feeds what follows from the rules that are configured; only what an entry was made from has a history.
struct Model {
   struct Written {
      StaticEntry madeFrom;
      bool fragment = false;
   };

   void write( StaticKey const & key, StaticEntry const & entry ) {
      rules[ key ] = entry;
      for ( auto const & swTableKey : keysFedBy( key, entry ) ) {
         written[ swTableKey ] = { entry, fragmentation && swTableKey.ipAndPortOld.port != 0 };
         ++changes;
      }
   }

   void remove( StaticKey const & key ) {
      auto const entry = rules.at( key );
      rules.erase( key );
      for ( auto const & swTableKey : keysFedBy( key, entry ) ) {
         written[ swTableKey ] = { entry, fragmentation && swTableKey.ipAndPortOld.port != 0 };
         if ( vlanIds( swTableKey ).empty() ) {
            written.erase( swTableKey );
         }
         ++changes;
      }
   }

   std::set< U16 > vlanIds( NatSwTableStaticKey const & swTableKey ) const {
      std::set< U16 > result;
      for ( auto const & [ key, entry ] : rules ) {
         if ( keysFedBy( key, entry ).contains( swTableKey ) ) {
            result.insert( entry->vlanId() );
         }
      }
      return result;
   }

   Support::Lines text() const {
      Support::Lines lines;
      for ( auto const & [ key, entry ] : written ) {
         lines.push_back( Support::swTableLine( key, vlanIds( key ), entry.fragment, *entry.madeFrom ) );
      }
      std::ranges::sort( lines );
      return lines;
   }

   Pairs pairs() const {
      Pairs result;
      for ( auto const & [ key, entry ] : rules ) {
         for ( auto const & swTableKey : keysFedBy( key, entry ) ) {
            result.emplace( Vexa::stringOf( key ), Support::swTableKeyText( swTableKey ) );
         }
      }
      return result;
   }

   Rules rules;
   std::map< NatSwTableStaticKey, Written > written;
   bool fragmentation = false;
   U64 changes = 0;
};

// --- The world -------------------------------------------------------------------------------------------------------

using EntryWatcher = Vexa::KeyWatcher< NatSwTableStaticKey, Pfe::NatSwTableStaticEntry::PtrConst >;

class World final : EntryWatcher {
 public:
   World() {
      swTableConfig_->staticEntry().watcherIs( *this );
      start();
   }
   ~World() { swTableConfig_->staticEntry().watcherDel( *this ); }

   void happens( U32 seed ) {
      std::minstd_rand random( seed + 1 );
      auto const below = [ & ]( U32 count ) { return static_cast< U32 >( random() % count ); };
      switch ( auto const event = below( 20 ) ) {
      case 0: fragmentationIs( !model_.fragmentation ); break;
      case 1: start(); break;
      default:
         if ( event < 11 || model_.rules.empty() ) {
            configure( anyKey( below ), anyEntry( below ) );
            break;
         }
         auto const [ key, entry ] = *std::next( model_.rules.begin(), below( U32( model_.rules.size() ) ) );
         event < 14 ? configure( key, anyEntry( below ) ) : event < 16 ? configure( key, entry ) : remove( key );
      }
   }

   void removeAll() {
      while ( !model_.rules.empty() ) {
         auto const key = model_.rules.begin()->first;
         remove( key );
      }
   }

   void check() const {
      RC_ASSERT( changes_ == model_.changes );
      RC_ASSERT( Support::swTableText( *swTableConfig_ ) == model_.text() );
      checkDependencies();
   }

 private:
   template< class Below > static StaticKey anyKey( Below const & below ) {
      static constexpr char const * pairs[] = { "10.0.0.1:80", "10.0.0.1", "192.0.2.1:80", "10.0.0.2:80", "239.0.0.1" };
      static constexpr char const * intfs[] = { "ethernet1", "ethernet2", "vlan10", "port-channel1" };
      return Support::staticKey( pairs[ below( 5 ) ], intfs[ below( 4 ) ], below( 4 ) == 0 ? "lab" : "" );
   }

   template< class Below > static StaticEntry anyEntry( Below const & below ) {
      static constexpr char const * pairs[] = { "192.0.2.1:80", "192.0.2.1", "10.0.0.1:80", "239.1.0.1" };
      static constexpr U16 vlanIds[] = { 1, 10, 20, 4094 };
      return Support::staticEntry( pairs[ below( 4 ) ],
                                   { .vrfId = below( 5 ) == 0 ? 7U : 0U,
                                     .vlanId = vlanIds[ below( 4 ) ],
                                     .intfQualifier = static_cast< U16 >( below( 2 ) ),
                                     .connection = { .target = static_cast< NatTarget >( below( 2 ) ),
                                                     .protocol = static_cast< U8 >( below( 5 ) == 0 ? 17 : 6 ) } } );
   }

   void configure( StaticKey const & key, StaticEntry const & entry ) {
      auto const known = model_.rules.find( key );
      if ( known != model_.rules.end() && !known->second->derivesSameRows( *entry ) ) {
         model_.remove( key );
      }
      model_.write( key, entry );
      config_->staticEntryIs( key, entry );
   }

   void remove( StaticKey const & key ) {
      model_.remove( key );
      config_->staticEntryDel( key );
   }

   // Hands everything over again, in the configuration's order.
   void replayModel() {
      config_->staticEntry().forEach( [ & ]( auto const & key, auto const & entry ) { model_.write( key, entry ); } );
   }

   void fragmentationIs( bool enabled ) {
      model_.fragmentation = enabled;
      config_->fragmentationEnabledIs( enabled );
      replayModel();
      sm_->replay();
   }

   // Another programmer finds the entries that the last one left.
   void start() {
      replayModel();
      sm_ = nullptr;
      sm_ = Pfe::natProgrammerIntfModeSmFactory( config_, Orla::make< Pfe::NatProgrammerStatus >(), swTableConfig_,
                                                 Orla::make< Pfe::NatSwTableStatus >() );
   }

   void checkDependencies() const {
      auto const & map = *sm_->staticConfigMap();
      Pairs feeding, dependingOn;
      for ( auto const & [ key, fed ] : map.progKeyToSwTableKeysMap() ) {
         RC_ASSERT( fed->entrys() != 0U );
         RC_ASSERT( fed->progEntry() == model_.rules.at( key ) );
         fed->entry().forEach( [ & ]( NatSwTableStaticKey const & swTableKey ) {
            feeding.emplace( Vexa::stringOf( key ), Support::swTableKeyText( swTableKey ) );
         } );
      }
      for ( auto const & [ swTableKey, feeders ] : map.swTableKeyToProgKeysMap() ) {
         RC_ASSERT( feeders->entrys() != 0U );
         feeders->entry().forEach( [ & ]( StaticKey const & key ) {
            dependingOn.emplace( Vexa::stringOf( key ), Support::swTableKeyText( swTableKey ) );
         } );
      }
      RC_ASSERT( feeding == model_.pairs() );
      RC_ASSERT( dependingOn == feeding );
   }

   void onKey( NatSwTableStaticKey const &, Pfe::NatSwTableStaticEntry::PtrConst const *,
               Pfe::NatSwTableStaticEntry::PtrConst const * ) override {
      ++changes_;
   }

   Model model_;
   Pfe::NatProgrammerConfig::Ptr config_ = Orla::make< Pfe::NatProgrammerConfig >();
   Pfe::NatSwTableConfig::Ptr swTableConfig_ = Orla::make< Pfe::NatSwTableConfig >();
   Pfe::NatProgrammerIntfModeSm::Ptr sm_;
   U64 changes_ = 0;
};

RC_GTEST_PROP( InterfaceHistory, SharesEntriesExactlyAmongTheRulesThatFeedThem, () ) {
   auto const steps = *rc::gen::resize(
      200, rc::gen::container< std::vector< U32 > >( rc::gen::noShrink( rc::gen::inRange< U32 >( 0, 1'000'000 ) ) ) );
   World world;
   for ( auto const step : steps ) {
      world.happens( step );
      world.check();
   }
   world.removeAll();
   world.check();
}

}  // namespace
