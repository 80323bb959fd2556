// Assertions that hold in every build. A false condition is a fault of this program: its text goes to standard error
// and the process stops before wrong state can reach a shared table. Data from outside is never checked this way.
#pragma once

#include "runtime/Zol/Exception.h"

namespace Zol {

// Raised instead of stopping the process while an AssertionTrap stands. Its what() is the condition text alone.
class AssertionException : public Exception {
 public:
  using Exception::Exception;
};

// Lets a test look at an assertion without dying of it. Not for production code: what an assertion interrupts is
// left half-done. Traps nest; scheduler thread only.
class AssertionTrap {
 public:
  AssertionTrap();
  ~AssertionTrap();
  AssertionTrap(const AssertionTrap&) = delete;
  AssertionTrap& operator=(const AssertionTrap&) = delete;
};

// Writes "file:line: assertion failed: condition" to standard error and aborts.
[[noreturn]] void assertionFailed(const char* condition, const char* file, int line);

}  // namespace Zol

// The condition's own text is the message.
#define ZOL_ASSERT(condition) \
  (static_cast<bool>(condition) ? static_cast<void>(0) : Zol::assertionFailed(#condition, __FILE__, __LINE__))

// For a message that operators and documents know by its exact wording.
#define ZOL_ASSERT_TEXT(condition, text) \
  (static_cast<bool>(condition) ? static_cast<void>(0) : Zol::assertionFailed(text, __FILE__, __LINE__))
