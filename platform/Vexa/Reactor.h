// Reactors: how a state machine reacts to the collections that it watches.
#pragma once

#include <Vexa/HashMap.h>

namespace [[gnu::visibility( "default" )]] Vexa {

// Hands each change of one key of the watched collection to the handler of its state machine, inside the change, while
// the machine's notifications are on and it is no zombie. A member of the machine; goes off the collection at the end.
template< class Machine, class Collection, auto handler > class Reactor;

template< class Machine, class Key, class Value, U32 seedConstant, auto handler >
class Reactor< Machine, HashMap< Key, Value, seedConstant >, handler > final : public KeyWatcher< Key, Value > {
 public:
   using Collection = HashMap< Key, Value, seedConstant >;

   explicit Reactor( Machine & machine ) : machine_( machine ) {}
   ~Reactor() { watchedIs( nullptr ); }

   // Null watches nothing.
   void watchedIs( Collection const * collection ) {
      if ( watched_ ) {
         watched_->watcherDel( *this );
      }
      watched_ = collection;
      if ( watched_ ) {
         watched_->watcherIs( *this );
      }
   }

   void onKey( Key const & key, Value const * previous, Value const * current ) override {
      if ( machine_.hasNotificationActive() && !machine_.vexaZombie() ) {
         ( machine_.*handler )( key, previous, current );
      }
   }

 private:
   Machine & machine_;
   Collection const * watched_ = nullptr;
};

}  // namespace Vexa
