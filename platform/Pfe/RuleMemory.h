// The base programmer's memory of one kind of rule: what it handed over, what was refused, whose status may be stale.
#pragma once

#include <Pfe/NatBaseProgrammerSm.h>
#include <Pfe/WaitingRules.h>
#include <Trace/Trace.h>
#include <Vexa/Exception.h>
#include <Vexa/HashMap.h>
#include <Vexa/KeysOf.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Pfe {

// Refusals of all kinds of rules, in one order.
struct Refusals {
   void countRangeError( std::string const & rule, Vexa::RangeException const & error ) {
      ++rangeErrors;
      TRACE( traceHandle(), 2, "range error, rule: ", rule, ", error: ", error.what() );
   }
   static Trace::Handle const & traceHandle() {
      static Trace::Handle const handle( "NatBaseProgrammerSm" );
      return handle;
   }

   U64 rangeErrors = 0;
   // Whether the pool cannot hold the rule now. Asked for only where ids are so few that it may be so.
   template< class Key, class EntryPtr > bool lacksIds( Key const & key, EntryPtr const & entry ) const {
      return demand && waiting.freeIds() < NatIdDemand::most && waiting.lacks( demand->matchKeysOf( key, entry ) );
   }
   template< class Key, class EntryPtr > void wait( U64 number, Key const & key, EntryPtr const & entry ) {
      if ( demand ) {
         auto const matchKeys = demand->matchKeysOf( key, entry );
         waiting.add( number, key, &matchKeys );
      } else {
         waiting.add( number, key, nullptr );
      }
   }

   U64 refused = 0;                              // numbers them
   WaitingRules waiting;                         // what the NAT id pool refused, by number
   std::shared_ptr< NatIdDemand const > demand;  // null: unknown
};

// `Kind` gives Key, Entry, two hash constants, and as pointers to members: what is configured, the operations (add,
// update, del), and of the status all of it, set and drop.
template< class Kind > class RuleMemory {
 public:
   using Key = typename Kind::Key;
   using EntryPtr = typename Kind::Entry::PtrConst;
   using StatusEntry = NatProgrammerStatusEntry< typename Kind::Entry >;
   using Mode = NatBaseProgrammerSm::Mode;

   RuleMemory( NatBaseProgrammerSm & programmer, Refusals & refusals )
      : programmer_( programmer ), refusals_( refusals ) {}

   std::size_t refusedCount() const { return refused_.count(); }

   void handleConfigured( Key const & key ) { handle( key, configured( key ) ); }

   // Whoever watches the status may change rules meanwhile: each is looked up at its turn.
   void handleAll() {
      for ( auto const & key : Vexa::keysOf( ( *programmer_.natProgrammerConfig().*Kind::configured )() ) ) {
         handleConfigured( key );
      }
   }

   // Hands over what `key` is configured as; null: it is not configured any more.
   void handle( Key const & key, EntryPtr const & configured ) {
      if ( refused_.count() != 0 && unmark( key ) ) {
         tryAgain( key, configured );
         return;
      }
      if ( !configured ) {
         forget( key );
         return;
      }
      auto const [ known, isNew ] = remembered_.refOrEmplace( key );
      if ( isNew ) {
         known = configured;
         run( Change::add, key, configured );
         return;
      }
      auto const previous = known;
      if ( configured != previous ) {
         mayBeStale( key );
      }
      if ( previous->derivesSameRows( *configured ) ) {
         known = configured;
         run( Change::update, key, configured );
         return;
      }
      takeBack( key, previous );
      if ( isStillToHandOver( key, configured ) ) {
         remembered_.is( key, configured );
         run( Change::add, key, configured );
      }
   }

   // Hands a refused key over again; false when it is refused again.
   bool retry( Key const & key ) {
      handleConfigured( key );
      return !refused_.has( key );
   }

   void statusAdd( Key const & key, EntryPtr const & entry, PfeHelper::NatHwResult result ) {
      if ( isRefused( key ) ) {
         return;
      }
      auto const * const known = remembered_.find( key );
      if ( !known || *known == entry ) {
         statusIs( key, entry, result );
      }
   }

   void statusDel( Key const & key, EntryPtr const & entry ) {
      if ( isRefused( key ) ) {
         return;
      }
      auto const * const known = remembered_.find( key );
      if ( known && *known != entry ) {
         auto const * const status = allStatus().find( key );
         if ( status && status->entry == *known ) {
            return;
         }
      }
      dropStatus( key );
   }

   // Whoever watches the status may change rules meanwhile; these have their turn at the next rest.
   void dropStaleStatus() {
      auto changed = std::exchange( changed_, {} );
      for ( auto const & key : changed ) {
         if ( hasStaleStatus( key ) ) {
            dropStatus( key );
         }
      }
      changed.clear();
      if ( changed_.empty() ) {
         changed_ = std::move( changed );  // its memory serves again
      }
   }

   void nameStaleStatus( std::vector< std::string > & names ) const {
      for ( auto const & [ key, status ] : allStatus() ) {
         if ( isStale( key, status ) ) {
            names.push_back( Vexa::stringOf( key ) );
         }
      }
   }

 private:
   enum class Change : U8 { add, update };

   EntryPtr configured( Key const & key ) const {
      return ( *programmer_.natProgrammerConfig().*Kind::configured )().valueOr( key );
   }
   auto const & allStatus() const { return ( *programmer_.natProgrammerStatus().*Kind::status )(); }
   void statusIs( Key const & key, EntryPtr const & entry, PfeHelper::NatHwResult result ) {
      ( *programmer_.natProgrammerStatus().*Kind::statusIs )( key, { result, entry } );
   }
   void dropStatus( Key const & key ) { ( *programmer_.natProgrammerStatus().*Kind::statusDel )( key ); }

   bool isRefused( Key const & key ) const { return refused_.count() != 0 && refused_.has( key ); }

   bool isStale( Key const & key, StatusEntry const & status ) const {
      auto const * const known = remembered_.find( key );
      return !isRefused( key ) && ( !known || *known != status.entry );
   }

   bool hasStaleStatus( Key const & key ) const {
      auto const * const status = allStatus().find( key );
      return status && isStale( key, *status );
   }

   // Notes the key for the next rest. Where rest is long in coming, keys whose status is true are let go: the notes
   // stay in proportion to the rules.
   void mayBeStale( Key const & key ) {
      changed_.push_back( key );
      if ( changed_.size() > 2 * keptChanged_ + remembered_.count() + 1024 ) {
         std::erase_if( changed_, [ & ]( Key const & each ) { return !hasStaleStatus( each ); } );
         std::ranges::sort( changed_ );
         auto const repeated = std::ranges::unique( changed_ );
         changed_.erase( repeated.begin(), repeated.end() );
         keptChanged_ = changed_.size();
      }
   }

   // What is taken back or undone is forgotten first, so that whoever watches the status may change the rule inside:
   // such a change finds nothing to take back, and is handed over by itself. False when that has happened.
   bool isStillToHandOver( Key const & key, EntryPtr const & entry ) const {
      return !remembered_.has( key ) && !isRefused( key ) && configured( key ) == entry;
   }

   // Removes the mark of a refused key; false when it has none.
   bool unmark( Key const & key ) {
      auto const * const number = refused_.find( key );
      if ( !number ) {
         return false;
      }
      refusals_.waiting.del( *number );
      refused_.del( key );
      return true;
   }

   // Hands over a key whose mark was just removed. Its result 2 goes with the mark, unless it is refused again: an add
   // that does nothing must not leave it.
   void tryAgain( Key const & key, EntryPtr const & configured ) {
      if ( configured ) {
         mayBeStale( key );
         remembered_.is( key, configured );
         run( Change::add, key, configured );
      }
      auto const * const status = allStatus().find( key );
      if ( status && status->result == PfeHelper::NatHwResult::failed && !isRefused( key ) ) {
         dropStatus( key );
      }
   }

   void forget( Key const & key ) {
      if ( auto const * const known = remembered_.find( key ) ) {
         EntryPtr const previous = *known;
         mayBeStale( key );
         takeBack( key, previous );
      }
   }

   // Hands over an entry that is remembered already. An add that the id pool cannot hold is refused without being
   // tried: what it took by then would be out of the pool, and on disk, until its undo has settled.
   void run( Change change, Key const & key, EntryPtr const & entry ) {
      try {
         if ( change == Change::update ) {
            ( programmer_.*Kind::update )( key, entry );
         } else if ( programmer_.programmerMode() == Mode::tables && refusals_.lacksIds( key, entry ) ) {
            TRACE( Refusals::traceHandle(), 2, "not tried for want of NAT ids, rule: ", Vexa::stringOf( key ) );
            mayBeStale( key );
            remembered_.del( key );
            mark( ++refusals_.refused, key, entry, true );
         } else {
            ( programmer_.*Kind::add )( key, entry );
         }
      } catch ( Vexa::RangeException const & error ) {
         refusals_.countRangeError( Vexa::stringOf( key ), error );
         if ( programmer_.programmerMode() == Mode::tables ) {
            refuse( key, entry, error );
         } else if ( change == Change::add && remembered_.valueOr( key ) == entry ) {
            remembered_.del( key );
         }
      }
   }

   void takeBack( Key const & key, EntryPtr const & entry ) {
      remembered_.del( key );
      try {
         ( programmer_.*Kind::del )( key, entry );
      } catch ( Vexa::RangeException const & error ) {
         refusals_.countRangeError( Vexa::stringOf( key ), error );
      }
   }

   // Undoes what a raised add or update left, and marks the key.
   void refuse( Key const & key, EntryPtr const & entry, Vexa::RangeException const & error ) {
      auto const number = ++refusals_.refused;  // its place, whatever is refused while it is undone
      mayBeStale( key );
      remembered_.del( key );
      try {
         ( programmer_.*Kind::del )( key, entry );
      } catch ( Vexa::RangeException const & ) {
         // Raised for the same reason; there is nothing to undo from there on.
      }
      if ( isStillToHandOver( key, entry ) ) {
         mark( number, key, entry, error.what() == std::string_view( NatId::rangeError ) );
      }
   }

   // From here on the status says failed.
   void mark( U64 number, Key const & key, EntryPtr const & entry, bool byPool ) {
      refused_.is( key, number );
      if ( byPool ) {
         refusals_.wait( number, key, entry );
      }
      statusIs( key, entry, PfeHelper::NatHwResult::failed );
   }

   NatBaseProgrammerSm & programmer_;
   Refusals & refusals_;
   Vexa::HashMap< Key, EntryPtr, Kind::rememberedConstant > remembered_;
   Vexa::HashMap< Key, U64, Kind::refusedConstant > refused_;  // with the number of the refusal
   std::vector< Key > changed_;                                // since the last rest, with a status that may be stale
   std::size_t keptChanged_ = 0;                               // of them when they were last looked through
};

}  // namespace Pfe
