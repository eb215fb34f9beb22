// JSON texts (RFC 8259), read for their values and for the places where the values stand.
#pragma once

#include <Vexa/Types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

// A parsed file: its values in one flat list, in the order of the text, each container before what it holds and each
// name before its value. The list takes at most four times the memory of the text.
//
// A generic tree of maps would take more time than everything else that the agent does with a large configuration,
// would drop a member that is given twice, and would not know where a value stood.
class JsonDocument {
 public:
   enum class Kind : U8 {
      null,
      boolean,
      number,       // whole and not negative, in 64 bits
      otherNumber,  // negative, a fraction, or too large: kept as text, for messages
      text,
      list,
      object,
      name,  // of the member whose value comes next; no value itself
   };
   static constexpr std::size_t mostLevels = 32;  // of containers in each other

 private:
   // `size`: in bytes; of a container: the place in the list behind all that it holds. `at`: in the text or, counted on
   // from there, among the copies; of a boolean: its value.
   class Node {
    public:
      static constexpr std::size_t largestSize = ( std::size_t{ 1 } << 29 ) - 1;

      Node( Kind kind, std::size_t size, std::size_t at )
         : kindAndSize_( static_cast< U32 >( size << 3 ) | static_cast< U32 >( kind ) ),
           at_( static_cast< U32 >( at ) ) {}
      Kind kind() const { return static_cast< Kind >( kindAndSize_ & 7 ); }
      U32 size() const { return kindAndSize_ >> 3; }
      U32 at() const { return at_; }

    private:
      U32 kindAndSize_;
      U32 at_;
   };

 public:
   // A value of the document, which must outlive it. Default-constructed: none.
   class Value {
    public:
      Value() = default;

      explicit operator bool() const { return document_ != nullptr; }
      Kind kind() const { return node().kind(); }
      // Of the member that this is the value of; empty for elements of lists.
      std::string_view name() const {
         auto const before = place_ == 0 ? node() : document_->nodes_[ place_ - 1 ];
         return before.kind() == Kind::name ? document_->textOf( before ) : std::string_view();
      }

      // Each for values of its kind only.
      bool flag() const { return node().at() != 0; }
      U64 number() const;
      std::string_view text() const { return document_->textOf( node() ); }

      // Calls function( child ) for every element, or for the value of every member, in order.
      template< class Function > void forEach( Function && function ) const {
         auto const & nodes = document_->nodes_;
         for ( auto child = place_ + 1; child < node().size();
               child = isContainer( child ) ? nodes[ child ].size() : child + 1 ) {
            child += nodes[ child ].kind() == Kind::name ? 1 : 0;
            function( Value( *document_, child ) );
         }
      }

      std::string const & file() const { return document_->file_; }
      // RFC 6901, long names cut short. Found by walking down from the root: for messages.
      std::string pointer() const;
      std::string quotedName() const;
      // The value as JSON, if it is long cut short; containers only by what they are.
      std::string excerpt() const;

    private:
      friend class JsonDocument;
      Value( JsonDocument const & document, U32 place ) : document_( &document ), place_( place ) {}
      Node const & node() const { return document_->nodes_[ place_ ]; }
      bool isContainer( U32 place ) const {
         auto const kind = document_->nodes_[ place ].kind();
         return kind == Kind::list || kind == Kind::object;
      }

      JsonDocument const * document_ = nullptr;
      U32 place_ = 0;
   };

   // `file` only names the text in messages; the text must outlive the document. Throws UnusableInput with line,
   // column, what stands there and what may, when the text is no JSON.
   JsonDocument( std::string file, std::string_view text );
   JsonDocument( JsonDocument const & ) = delete;
   JsonDocument & operator=( JsonDocument const & ) = delete;

   Value root() const { return { *this, 0 }; }

 private:
   class Reader;

   std::string_view textOf( Node const & node ) const {
      auto const at = node.at();
      return { at < text_.size() ? text_.data() + at : copies_.data() + ( at - text_.size() ), node.size() };
   }

   std::string file_;
   std::string_view text_;
   std::vector< Node > nodes_;
   std::string copies_;  // of texts that mean something else than they are written as
};

}  // namespace Agent
