/// @file
/// The base of everything that is held by reference and watched: state machines, configuration and status entities.
#pragma once

#include <Vexa/Types.h>

namespace Vexa {
struct TypeData;
}

namespace [[gnu::visibility( "default" )]] Orla {

/// An entity is created with one reference, which belongs to whoever created it (Ptr::adopt). Reference counts are not
/// atomic: all entities live on the agent's one activity thread.
class Entity {
 public:
   /// @{
   /// An entity is shared, never copied.
   Entity( Entity const & ) = delete;
   Entity & operator=( Entity const & ) = delete;
   /// @}

   /// Run by the last holder that goes; nobody else deletes an entity.
   virtual ~Entity();

   /// The last reference is gone. Deletes the entity unless a derived class keeps its memory.
   virtual void lastUserGone() const;

   /// The entity in whose name changes of this one are reported.
   virtual Entity const * publisher() const;

   /// The entry of the object's own class in the type registry; lives as long as the library.
   virtual Vexa::TypeData const & typeData() const = 0;

   /// Retires the reactors of a state machine (true): they stay in place but hand over nothing any more.
   virtual void vexaDoZombieReactors( bool zombie );

   /// Whether the reactors are retired.
   bool vexaZombie() const { return zombie_; }

   /// @{
   /// Whether reactors of this entity are called for changes of what they watch; false after construction.
   bool hasNotificationActive() const { return notificationActive_; }
   void hasNotificationActiveIs( bool active ) { notificationActive_ = active; }
   /// @}

   /// @{
   /// What Orla::Ptr counts with; with the last reference lastUserGone() is called.
   void newUser() const { ++referenceCount_; }
   void userGone() const {
      if ( --referenceCount_ == 0 ) {
         lastUserGone();
      }
   }
   U32 referenceCount() const { return referenceCount_; }
   /// @}

 protected:
   Entity() = default;  ///< With one reference, the creator's.

 private:
   mutable U32 referenceCount_ = 1;
   bool zombie_ = false;
   bool notificationActive_ = false;
};

}  // namespace Orla
