// The base of everything that is held by reference and watched: state machines, configuration and status entities.
#pragma once

#include <Vexa/Types.h>

namespace Vexa {
struct TypeData;
}

namespace [[gnu::visibility( "default" )]] Orla {

// An entity is created with one reference, which belongs to whoever created it (Ptr::adopt). Reference counts are not
// atomic: all entities live on the agent's one activity thread.
class Entity {
 public:
   Entity( Entity const & ) = delete;
   Entity & operator=( Entity const & ) = delete;

   virtual ~Entity();

   // The last reference is gone. Deletes the entity unless a derived class keeps its memory.
   virtual void lastUserGone() const;

   // The entity in whose name changes of this one are reported.
   virtual Entity const * publisher() const;

   virtual Vexa::TypeData const & typeData() const = 0;

   // Retires the reactors of a state machine (true): they stay in place but hand over nothing any more.
   virtual void vexaDoZombieReactors( bool zombie );

   bool vexaZombie() const { return zombie_; }

   // Whether reactors of this entity are called for changes of what they watch.
   bool hasNotificationActive() const { return notificationActive_; }
   void hasNotificationActiveIs( bool active ) { notificationActive_ = active; }

   void newUser() const { ++referenceCount_; }
   void userGone() const {
      if ( --referenceCount_ == 0 ) {
         lastUserGone();
      }
   }
   U32 referenceCount() const { return referenceCount_; }

 protected:
   Entity() = default;

 private:
   mutable U32 referenceCount_ = 1;
   bool zombie_ = false;
   bool notificationActive_ = false;
};

}  // namespace Orla
