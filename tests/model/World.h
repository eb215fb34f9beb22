// One switch: the real programmer, the plain model of it, and the things that happen to both.
#pragma once

#include "TableModel.h"

#include <array>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace Model {

// What the base programmer hands over is compared with what it must hand over, call by call, and told to the model of
// the tables. Nothing here throws: what is wrong is collected.
class World {
 public:
   World( U32 freeIds, Chip const & chip, bool talkativeHardware );
   ~World();

   // --- What happens. Each is one change of an agent; check() belongs after each. ---

   void configure( AnyRule const & rule );
   void unconfigure( AnyKey const & key );
   void settle();
   void retryFailed() { running_->tables.hardware->retryFailed(); }
   void fragmentationIs( bool enabled );
   void startCleanup();
   void endCleanup();
   void replay();
   // Hands everything over once more, without reconciling.
   void addAll();
   // Without a clean-up: addAll() follows.
   void deleteAll();
   // Only at rest.
   void retryRefused();
   void restart();
   void freeIdsAre( U32 last );
   // Turns until nothing is outstanding, and says so to the programmer. False when that takes too long.
   bool rest();

   Support::ScriptedHardware & hardware() { return *surroundings_.chip; }
   Pfe::NatProgrammerConfig const & config() const { return *surroundings_.config; }
   std::map< AnyKey, AnyRule > configured() const { return Support::configured( config() ); }
   bool isCleaningUp() const { return cleaningUp_; }
   bool isDeletingAll() const { return deletingAll_; }
   bool isRefused( AnyKey const & key ) const;

   // Runs inside every change of a result, and may change rules; empty: nobody watches.
   std::function< void() > whenResultChanges;

   // Whether another configured rule than the one under `key` has a row of `rule`.
   bool collides( AnyRule const & rule ) const;

   // Compares everything that holds after any step; at rest everything else too. With talkative hardware the results at
   // rest alone: reports of overtaken operations may give up an id early, and write results that the next one mends.
   void check();
   // Whether every rule that the chip can do is in the hardware as configured. Only at rest.
   bool isAllProgrammed() const;
   // Whether rows and results are those of a programmer that was handed the configuration just now. Only at rest.
   void checkAgainstFresh();
   // Nothing of any rule is left anywhere.
   void checkEmpty();
   Lines takeFaults() { return std::exchange( faults_, {} ); }

   // How many exchanges of packets were checked, by the kind of rule as AnyRule counts them.
   std::array< unsigned, std::variant_size_v< AnyRule > > exchangesChecked{};

   static unsigned programmersAlive;

 private:
   class Observed;
   class ResultWatcher;

   struct Refused {
      AnyRule rule;
      bool byPool;  // and so retried when ids are free
   };

   // Told by the observed programmer.
   void adding( AnyRule const & rule, bool isUpdate );
   void accepted();
   void refused( bool byPool );
   void deleting( AnyRule const & rule );
   void sweeping();
   void resultChanged();

   std::vector< Direction > directionsOf( AnyRule const & rule ) const { return Model::directionsOf( rule, chip_ ); }
   bool haveSameRows( AnyRule const & a, AnyRule const & b ) const;
   bool isConfigured( AnyRule const & rule ) const;
   bool isRejected( AnyRule const & rule ) const;
   void start();
   void retryOver();
   void handsOverEverything( std::function< void() > const & action );
   // What settled since is known: ids are free again.
   Snapshot catchUp();
   void checkEverything();
   void checkHandOvers();
   void checkStatus( Snapshot const & seen );
   void checkPackets( Snapshot const & seen );
   void checkExchange( AnyRule const & rule, Agent::Packet::Part part );
   void expect( bool holds, std::string const & text, AnyKey const & key );
   void fault( std::string const & text ) { faults_.push_back( text ); }

   Support::Surroundings surroundings_;
   std::unique_ptr< Support::Programmer > running_;
   std::unique_ptr< ResultWatcher > watcher_;
   ExpectedTables tables_;
   U32 freeIds_;
   Chip const chip_;

   // The base programmer's memory.
   std::map< AnyKey, AnyRule > handedOver_;
   std::deque< Refused > refused_;
   std::set< AnyKey > programmed_;  // handed over, and neither dropped by a clean-up nor refused
   std::map< AnyKey, unsigned > handOvers_;

   // What runs; of its own inside each change of a result.
   struct Running {
      std::optional< AnyRule > inFlight;  // being added, and whether it must raise
      bool mustRaise = false;
      bool inUpdate = false;
      std::optional< AnyRule > undoing;
      bool deletingAll = false;
      bool retrying = false;
      std::optional< AnyKey > refusedAgain;  // ends the retries
   };
   Running now_;
   bool cleaningUp_ = false;
   bool deletingAll_ = false;
   bool settling_ = false;
   bool refusedMeanwhile_ = false;  // since the retries began

   std::set< IngressKey > mcastRows_;  // that held something when last looked at
   Lines faults_;
};

}  // namespace Model
