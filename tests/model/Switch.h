// A switch under test: the real programmer with its surroundings, what may happen to it, and what holds whatever
// happens. Next to nothing is modelled: rows are those of the agent's own list, the rest must agree with itself and, in
// the end, with a programmer that was handed the configuration just now. Packets are told without either.
#pragma once

#include "RandomRules.h"
#include "Rules.h"

#include <tests/support/Programmer.h>

#include "agent/configuration/Connection.h"
#include "agent/packets/PacketWalk.h"

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>

namespace Model {

class Switch {
 public:
   struct Chip {
      bool vrfLess = false;
      bool fullConeProgrammed = true;
      bool talkative = false;  // reports of overtaken operations may give up an id early, and write passing results
   };

   static constexpr U32 allIds = Pfe::NatId::max;

   explicit Switch( Chip const & chip, U32 freeIds = allIds );
   ~Switch();

   // --- What happens. Each is one change of an agent; check() belongs after some. ---

   // Not where another rule has one of its rows.
   void configure( AnyRule const & rule );
   void unconfigure( AnyKey const & key ) { Support::unconfigure( config(), key ); }
   void settle();
   void fragmentationIs( bool enabled );
   void startCleanup();
   void endCleanup();
   // Everything out and in again, without a clean-up.
   void deleteAndAddAll();
   void restart();
   void freeIdsAre( U32 last );  // and those behind it not; allIds: from the start
   // Turns until nothing is outstanding, checks, and retries what was refused.
   void rest();

   Support::Programmer & programmer() { return *running_; }
   Support::ScriptedHardware & hardware() { return *surroundings_.chip; }
   Pfe::NatProgrammerConfig & config() const { return *surroundings_.config; }
   std::map< AnyKey, AnyRule > configured() const { return Support::configured( config() ); }
   bool isCleaningUp() const { return running_->sm->cleanupInProgress(); }

   // Called at every change of a status, not while it runs already.
   std::function< void() > whenStatusChanges;

   // What is wrong is collected. At rest everything else is checked too.
   void check();
   // Everything heals: it must be what a fresh programmer makes of the configuration; then all goes, and nothing stays.
   void end();
   std::string takeFaults();

   // Who holds each NAT id; called between any two changes.
   void noteHolders();

   std::array< unsigned, std::variant_size_v< AnyRule > > exchangesChecked{};  // by the kind of rule

 private:
   class Watcher;
   // Rows of which anything is left.
   struct Rows {
      struct Rewrite {
         Asic::Row const * row;
         U32 natId;
         bool namesPorts;
      };
      std::map< Pfe::IngNatTableKey, Asic::Row const * > matches;
      std::unordered_map< Asic::EntryHandle const *, Pfe::IngNatTableKey > matchOf;
      std::unordered_map< Asic::EntryHandle const *, Rewrite > rewrites;
      std::map< Pfe::IngNatTableKey, U32 > natIdOf;  // by the holders
      std::set< U32 > ids;
      std::set< U32 > idsOfWholePackets;

      bool isSettled( Pfe::IngNatTableKey const & key ) const {
         auto const found = matches.find( key );
         return found != matches.end() && found->second->newest && found->second->state() == Asic::EntryState::settled;
      }
      bool isVisible( Pfe::IngNatTableKey const & key ) const {
         auto const found = matches.find( key );
         return found != matches.end() && found->second->newest;
      }
   };

   void start();
   void stop();
   bool turnUntilAtRest();
   std::vector< Pfe::IngNatTableKey > rowsOf( AnyRule const & rule ) const;
   // Whether the chip's code does it, and the tables not.
   bool isElsewhere( AnyRule const & rule ) const;
   bool isRejected( AnyRule const & rule ) const;
   static Rows rowsLeft( Support::Programmer const & programmer );
   void checkRow( Asic::Row const & row, Asic::Version * version, Rows const & rows );
   void checkIds( Rows const & rows );
   void checkMulticastHook( Rows const & rows );
   void checkAtRest( Rows const & rows );
   void noteTwins( AnyRule const & rule );
   void checkPacket( AnyRule const & rule, Agent::Packet::Part part );
   void checkAgainstFresh();
   void expect( bool holds, std::string const & what, auto const & of ) {
      if ( !holds ) {
         faults_ += what + ": " + Vexa::stringOf( of ) + '\n';
      }
   }

   Support::Surroundings surroundings_;
   Agent::Settings settings_;
   U32 freeIds_;
   std::unique_ptr< Support::Programmer > running_;
   std::unique_ptr< Watcher > watcher_;
   bool watcherRuns_ = true;  // not yet: until the first replay is over
   // Since all were handed over last, rows that have held an id, and what twins have been told to write: of what
   // several shared, the last writer decides.
   std::map< Pfe::NatMatchKey, std::set< Pfe::IngNatTableKey > > holders_;
   std::map< Pfe::IngNatTableKey, std::set< std::array< Netix::IpAddr, 4 > > > twinWrites_;
   std::set< Pfe::IngNatTableKey > multicastRows_;  // that were there at the last check
   std::string faults_;
};

}  // namespace Model
