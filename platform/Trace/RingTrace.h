// The in-memory ring of recent messages: always on, so a message stores its raw parts and becomes text when it is read.
#pragma once

#include <Vexa/Value.h>

#include <array>
#include <cstddef>
#include <new>
#include <ostream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace [[gnu::visibility( "default" )]] Trace {

// The type by which a ring message names one of its values. Specialised beside a value type that has one; texts are
// "p".
template< class T > inline constexpr char const * ringType = nullptr;
template<> inline constexpr char const * ringType< char const * > = "p";

class RingTrace {
 public:
   static constexpr std::size_t capacity = 2048;
   static constexpr std::size_t bytesPerMessage = 88;

   RingTrace() = default;
   RingTrace( RingTrace const & ) = delete;
   RingTrace & operator=( RingTrace const & ) = delete;
   ~RingTrace();

   // The ring of the process. Never destroyed, so that it can be read to the very end.
   static RingTrace & defaultHandle();

   // Stores a message over the oldest one. Values are copied; texts must be literals, since only their address is kept.
   template< class... Parts > void message( Parts const &... parts ) {
      using Stored = std::tuple< StoredAs< Parts >... >;
      static_assert( sizeof( Stored ) <= bytesPerMessage && alignof( Stored ) <= alignof( std::max_align_t ) );
      Slot & slot = slots_[ written_++ % capacity ];
      slot.clear();
      new ( slot.parts.data() ) Stored( parts... );
      slot.kind = &kindOf< Stored >;
   }

   // The newest messages as text, oldest first, at most `count`.
   std::vector< std::string > lastLines( std::size_t count ) const;

   // The number of messages written since the start; those before the last `capacity` are gone.
   std::size_t written() const { return written_; }

 private:
   template< class Part >
   using StoredAs = std::conditional_t< std::is_array_v< Part >, char const *, std::remove_cvref_t< Part > >;

   struct Kind {
      void ( *write )( std::ostream & out, void const * parts );
      void ( *destroy )( void * parts );  // null when there is nothing to destroy
   };

   struct Slot {
      Kind const * kind = nullptr;
      alignas( std::max_align_t ) std::array< std::byte, bytesPerMessage > parts;

      // Empty before its values go: what they take with them may stop the agent, which reads the ring.
      void clear() {
         auto const * const gone = std::exchange( kind, nullptr );
         if ( gone && gone->destroy ) {
            gone->destroy( parts.data() );
         }
      }
   };

   // A key that has a short text for traces shows it here as well.
   template< class Part > static void writePart( std::ostream & out, Part const & part ) {
      if constexpr ( requires { part.stringValue(); } ) {
         out << part.stringValue();
      } else {
         Vexa::write( out, part );
      }
   }

   template< class Stored > static void writeParts( std::ostream & out, void const * parts ) {
      std::apply( [ & ]( auto const &... part ) { ( writePart( out, part ), ... ); },
                  *static_cast< Stored const * >( parts ) );
   }

   template< class Stored > static void destroyParts( void * parts ) { static_cast< Stored * >( parts )->~Stored(); }

   template< class Stored >
   static constexpr Kind kindOf{ &writeParts< Stored >,
                                 std::is_trivially_destructible_v< Stored > ? nullptr : &destroyParts< Stored > };

   std::array< Slot, capacity > slots_;
   std::size_t written_ = 0;
};

}  // namespace Trace
