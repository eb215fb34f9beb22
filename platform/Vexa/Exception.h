// The framework's exceptions: bad values, bad text and misuse of a value's operations. A broken invariant is an
// assertion instead (Vexa/Assert.h).
#pragma once

#include <stdexcept>
#include <string>

namespace [[gnu::visibility( "default" )]] Vexa {

class Exception : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// A value outside the bounds of its type. The text names the type and the bound.
class RangeException : public Exception {
 public:
   using Exception::Exception;
};

// A text that does not spell a value of the wanted type.
class ParseException : public Exception {
 public:
   using Exception::Exception;
};

class VectorOutOfRangeException : public Exception {
 public:
   using Exception::Exception;
};

class EmptyVectorException : public Exception {
 public:
   using Exception::Exception;
};

class UnhashableTypeException : public Exception {
 public:
   using Exception::Exception;
};

// An alternative of a union was read while another one is held.
class BadUnionAccessException : public Exception {
 public:
   using Exception::Exception;
};

// Call from a catch block while an attribute is parsed: throws the current exception again, of the same kind, with the
// attribute's name in front of its text.
[[noreturn]] void rethrowFromDeserializeAttr( char const * attributeName );

}  // namespace Vexa
