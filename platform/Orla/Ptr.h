// Reference-counted pointer to an entity, or to anything that has newUser() and userGone().
#pragma once

#include <Vexa/Assert.h>

#include <compare>
#include <cstddef>
#include <type_traits>
#include <utility>

namespace [[gnu::visibility( "default" )]] Orla {

// Copying takes a reference, destruction gives it back, assignment takes the new one before it drops the old.
// Dereferencing null stops the agent.
template< class T > class Ptr {
 public:
   Ptr() = default;
   Ptr( std::nullptr_t ) {}
   explicit Ptr( T * object ) : object_( object ) { take(); }
   Ptr( Ptr const & other ) : object_( other.object_ ) { take(); }
   Ptr( Ptr && other ) noexcept : object_( std::exchange( other.object_, nullptr ) ) {}
   template< class U >
      requires std::is_convertible_v< U *, T * >
   Ptr( Ptr< U > const & other ) : object_( other.ptr() ) {
      take();
   }
   template< class U >
      requires std::is_convertible_v< U *, T * >
   Ptr( Ptr< U > && other ) noexcept : object_( other.release() ) {}
   ~Ptr() { drop(); }

   Ptr & operator=( Ptr const & other ) {
      Ptr( other ).swap( *this );
      return *this;
   }
   Ptr & operator=( Ptr && other ) noexcept {
      Ptr( std::move( other ) ).swap( *this );
      return *this;
   }

   // Takes over the reference that the creator of `object` holds.
   static Ptr adopt( T * object ) {
      Ptr result;
      result.object_ = object;
      return result;
   }

   T * ptr() const { return object_; }
   T * operator->() const {
      VEXA_ASSERT( object_ && "Orla::Ptr is null" );
      return object_;
   }
   T & operator*() const { return *operator->(); }
   explicit operator bool() const { return object_ != nullptr; }

   // Hands the reference to the caller.
   T * release() { return std::exchange( object_, nullptr ); }
   void swap( Ptr & other ) noexcept { std::swap( object_, other.object_ ); }

   friend bool operator==( Ptr const & a, Ptr const & b ) { return a.object_ == b.object_; }
   friend auto operator<=>( Ptr const & a, Ptr const & b ) { return std::compare_three_way{}( a.object_, b.object_ ); }

 private:
   void take() const {
      if ( object_ ) {
         object_->newUser();
      }
   }
   void drop() const {
      if ( object_ ) {
         object_->userGone();
      }
   }

   T * object_ = nullptr;
};

template< class T, class U > bool operator==( Ptr< T > const & a, Ptr< U > const & b ) { return a.ptr() == b.ptr(); }

// The framework's `...Is` constructors create through here.
template< class T, class... Arguments > Ptr< T > make( Arguments &&... arguments ) {
   return Ptr< T >::adopt( new T( std::forward< Arguments >( arguments )... ) );
}

}  // namespace Orla
