// JSON texts (RFC 8259), read for their values and for the places where the values stand.
#pragma once

#include <Vexa/Types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

// A parsed file: its values in one flat list, in the order of the text, each container before what it holds.
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
   };

 private:
   struct Node {
      Kind kind = Kind::null;
      U32 end = 0;  // of the node behind everything that belongs to this one
      U32 nameAt = 0;
      U32 nameLength = 0;
      U64 value = 0;  // of a text: its place and its length, 32 bits each
   };

 public:
   // A value of the document, which must outlive it. Default-constructed: none.
   class Value {
    public:
      Value() = default;

      explicit operator bool() const { return document_ != nullptr; }
      Kind kind() const { return node().kind; }
      // Of the member that this is the value of; empty for elements of lists.
      std::string_view name() const { return document_->textAt( node().nameAt, node().nameLength ); }

      // Each for values of its kind only.
      bool flag() const { return node().value != 0; }
      U64 number() const { return node().value; }
      std::string_view text() const {
         return document_->textAt( static_cast< U32 >( node().value >> 32 ), static_cast< U32 >( node().value ) );
      }

      // Calls function( child ) for every element, or for the value of every member, in order.
      template< class Function > void forEach( Function && function ) const {
         for ( auto child = place_ + 1; child < node().end; child = document_->nodes_[ child ].end ) {
            function( Value( *document_, child ) );
         }
      }

      std::string const & file() const { return document_->file_; }
      // RFC 6901. Found by walking down from the root: for messages.
      std::string pointer() const;
      std::string quotedName() const;
      // The value as JSON, long texts cut short; containers only by what they are.
      std::string excerpt() const;

    private:
      friend class JsonDocument;
      Value( JsonDocument const & document, U32 place ) : document_( &document ), place_( place ) {}
      Node const & node() const { return document_->nodes_[ place_ ]; }

      JsonDocument const * document_ = nullptr;
      U32 place_ = 0;
   };

   // `file` only names the text in messages; the text must outlive the document. Throws UnusableInput with line and
   // column when the text is no JSON.
   JsonDocument( std::string file, std::string_view text );
   JsonDocument( JsonDocument const & ) = delete;
   JsonDocument & operator=( JsonDocument const & ) = delete;

   Value root() const { return { *this, 0 }; }

 private:
   class Builder;
   class Reader;
   class ExplainingReader;

   std::string_view textAt( U32 at, U32 length ) const {
      return { at < text_.size() ? text_.data() + at : copies_.data() + ( at - text_.size() ), length };
   }

   std::string file_;
   std::string_view text_;
   std::vector< Node > nodes_;
   std::string copies_;  // of texts that mean something else than they are written as; their places are behind text_
};

}  // namespace Agent
