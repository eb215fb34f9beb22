// What a table calls when the write of an entry settles.
#pragma once

#include <Asic/EntryState.h>
#include <Vexa/Pool.h>
#include <Vexa/Types.h>

#include <type_traits>
#include <utility>

namespace [[gnu::visibility( "default" )]] Asic {

// Shared, immutable wrapper of a callable that takes an EntryState; copying is a count. Empty: nobody is told.
class WriteResponseFn {
 public:
   WriteResponseFn() = default;
   template< class Callable >
      requires std::is_invocable_v< Callable const &, EntryState >
   WriteResponseFn( Callable callable ) : WriteResponseFn( std::in_place_type< Callable >, std::move( callable ) ) {}
   // Makes the callable of the arguments, in the place where it stays.
   template< class Callable, class... Arguments >
   explicit WriteResponseFn( std::in_place_type_t< Callable >, Arguments &&... arguments )
      : response_( new Holder< Callable >( std::forward< Arguments >( arguments )... ) ) {}
   WriteResponseFn( WriteResponseFn const & other ) : response_( other.response_ ) {
      if ( response_ ) {
         ++response_->users;
      }
   }
   WriteResponseFn( WriteResponseFn && other ) noexcept : response_( std::exchange( other.response_, nullptr ) ) {}
   ~WriteResponseFn() {
      if ( response_ && --response_->users == 0 ) {
         delete response_;
      }
   }
   WriteResponseFn & operator=( WriteResponseFn other ) noexcept {
      std::swap( response_, other.response_ );
      return *this;
   }

   explicit operator bool() const { return response_ != nullptr; }
   void operator()( EntryState state ) const { response_->run( state ); }

 private:
   struct Response {
      Response() = default;
      Response( Response const & ) = delete;
      Response & operator=( Response const & ) = delete;
      virtual ~Response() = default;
      virtual void run( EntryState state ) const = 0;
      U32 users = 1;
   };

   template< class Callable > struct Holder final : Response, Vexa::Pooled< Holder< Callable > > {
      template< class... Arguments >
      explicit Holder( Arguments &&... arguments ) : callable{ std::forward< Arguments >( arguments )... } {}
      void run( EntryState state ) const override { callable( state ); }
      Callable callable;
   };

   Response * response_ = nullptr;
};

}  // namespace Asic
