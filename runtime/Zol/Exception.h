// The kinds of trouble that are reported by exception. Each has its own answer:
//
//   RangeException     a value outside its type's range; raised where the value is made, names the bound
//   ParseException     a text that is not the form it should be; names the piece that does not match
//   InternalException  a collaborator that must be there is missing
//
// A broken invariant of our own is none of these: it stops the process (Assert.h).
#pragma once

#include <stdexcept>
#include <string>

namespace Zol {

class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class RangeException : public Exception {
 public:
  using Exception::Exception;
};

class ParseException : public Exception {
 public:
  using Exception::Exception;
};

class InternalException : public Exception {
 public:
  using Exception::Exception;
};

}  // namespace Zol
