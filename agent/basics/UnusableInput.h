// Input that the agent cannot use. It says why, programs nothing and changes nothing.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

namespace Agent {

// The text is one line per fault, each naming the file or option, the place in it, the value and what is allowed.
class UnusableInput : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// The faults of one file, told together so that all of them can be mended at once: the first ones each in a line, the
// others by their number.
class Faults {
 public:
   // `describe` yields the line, where one is wanted.
   template< class Describe > void add( Describe && describe ) {
      if ( count_++ < mostShown ) {
         text_ += text_.empty() ? "" : "\n";
         text_ += describe();
      }
   }

   bool any() const { return count_ > 0; }
   // Whether more are only counted.
   bool areOnlyCounted() const { return count_ >= mostShown; }

   // Throws UnusableInput when there are any; `others`: in words what those are that go by their number.
   void throwAll( std::string const & file, char const * others = "of this kind" ) const {
      if ( count_ > mostShown ) {
         throw UnusableInput( text_ + "\n" + file + ": " + std::to_string( count_ - mostShown ) + " more " + others );
      }
      if ( count_ > 0 ) {
         throw UnusableInput( text_ );
      }
   }

 private:
   static constexpr std::size_t mostShown = 20;

   std::size_t count_ = 0;
   std::string text_;
};

}  // namespace Agent
