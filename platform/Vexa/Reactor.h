// Reactors: how a state machine reacts to the collections that it watches.
#pragma once

#include <Orla/Ptr.h>
#include <Vexa/HashMap.h>
#include <Vexa/Optional.h>

#include <vector>

namespace [[gnu::visibility( "default" )]] Vexa {

// Hands each change of one key of the watched collection to the handler of its state machine, inside the change, while
// the machine's notifications are on and it is no zombie. The handler may drop the last reference to the machine, which
// goes when the handler is done. A member of the machine; goes off the collection at the end.
template< class Machine, class Collection, auto handler > class Reactor;

template< class Machine, class Key, class Value, U32 seedConstant, auto handler >
class Reactor< Machine, HashMap< Key, Value, seedConstant >, handler > final : public KeyWatcher< Key, Value > {
 public:
   using Collection = HashMap< Key, Value, seedConstant >;

   explicit Reactor( Machine & machine ) : machine_( machine ) {}
   ~Reactor() { watchedIs( nullptr ); }

   // Null watches nothing. Hands over nothing by itself.
   void watchedIs( Collection const * collection ) {
      if ( watched_ ) {
         watched_->watcherDel( *this );
      }
      watched_ = collection;
      if ( watched_ ) {
         watched_->watcherIs( *this );
      }
   }

   // Watches `collection` and hands over what that changes: each key of the collection watched before, in its order,
   // then each key that only the new one has. Notifications need not be on. Ends early when handlers leave the machine
   // to nobody or make it a zombie; the machine may be gone on return.
   void replacedBy( Collection const * collection ) {
      auto const steps = stepsFrom( watched_, collection );
      watchedIs( collection );
      walk( steps );
   }

   // Hands over each key of the watched collection as if it had just come; else like replacedBy().
   void handOverAll() { walk( stepsFrom( nullptr, watched_ ) ); }

   void onKey( Key const & key, Value const * previous, Value const * current ) override {
      if ( machine_.hasNotificationActive() && !machine_.vexaZombie() ) {
         Orla::Ptr< Machine > const guard( &machine_ );
         ( machine_.*handler )( key, previous, current );
      }
   }

 private:
   struct Step {
      Key key;
      Optional< Value > previous;
   };

   static std::vector< Step > stepsFrom( Collection const * replaced, Collection const * collection ) {
      std::vector< Step > steps;
      if ( replaced ) {
         replaced->forEach( [ & ]( Key const & key, Value const & value ) { steps.push_back( { key, value } ); } );
      }
      if ( collection ) {
         collection->forEach( [ & ]( Key const & key, Value const & ) {
            if ( !replaced || !replaced->has( key ) ) {
               steps.push_back( { key, {} } );
            }
         } );
      }
      return steps;
   }

   // Handlers may change what is watched, or replace it again: each step tells what is watched at its turn.
   void walk( std::vector< Step > const & steps ) {
      Orla::Ptr< Machine > const guard( &machine_ );
      for ( auto const & [ key, previous ] : steps ) {
         if ( machine_.referenceCount() == 1 || machine_.vexaZombie() ) {
            return;
         }
         auto const * const current = watched_ ? watched_->find( key ) : nullptr;
         if ( previous || current ) {
            ( machine_.*handler )( key, previous ? &*previous : nullptr, current );
         }
      }
   }

   Machine & machine_;
   Collection const * watched_ = nullptr;
};

}  // namespace Vexa
