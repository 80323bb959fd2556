// The seeds of random tests. Two variables rule all of them:
//   TEST_SEEDS=N  every random test runs the seeds 1 to N instead of its usual number.
//   TEST_SEED=S   every random test runs seed S alone. A failure prints the command line that repeats it.
#pragma once

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace Support {

// The value of a variable, or `otherwise` if it is not set.
inline unsigned positiveNumberIn(const char* variable, unsigned otherwise) {
  const char* const text = std::getenv(variable);
  if (text == nullptr) {
    return otherwise;
  }
  char* end = nullptr;
  const unsigned long number = std::strtoul(text, &end, 10);
  if (end == text || *end != '\0' || number == 0 || number > 0xFFFFFFFE) {
    throw std::invalid_argument(std::string(variable) + "=" + text + ": must be a positive integer");
  }
  return static_cast<unsigned>(number);
}

// Prints the command line that repeats the current seed when the process aborts: gtest prints no trace then.
class PrintOnAbort {
 public:
  explicit PrintOnAbort(const std::string& command) {
    line() = command + "\n";
    struct sigaction action {};
    action.sa_handler = [](int) { [[maybe_unused]] const auto n = write(STDERR_FILENO, line().data(), line().size()); };
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGABRT, &action, &before_);
  }
  ~PrintOnAbort() { sigaction(SIGABRT, &before_, nullptr); }
  PrintOnAbort(const PrintOnAbort&) = delete;
  PrintOnAbort& operator=(const PrintOnAbort&) = delete;

 private:
  static std::string& line() {
    static std::string text;
    return text;
  }
  struct sigaction before_ {};
};

// Runs body(seed) for each seed until one fails. Returns true if at least the usual number ran. Check totals over all
// seeds only then.
template <class Body>
bool forEachSeed(unsigned usual, Body&& body) {
  const unsigned only = std::getenv("TEST_SEED") != nullptr ? positiveNumberIn("TEST_SEED", 1) : 0;
  const unsigned last = only != 0 ? only : positiveNumberIn("TEST_SEEDS", usual);
  const auto* const test = testing::UnitTest::GetInstance()->current_test_info();
  const std::string rest =
      std::string(" ") + program_invocation_name + " --gtest_filter=" + test->test_suite_name() + "." + test->name();
  for (unsigned seed = only != 0 ? only : 1; seed <= last && !testing::Test::HasFailure(); ++seed) {
    const std::string command = "repeat with: TEST_SEED=" + std::to_string(seed) + rest;
    SCOPED_TRACE(command);
    const PrintOnAbort onAbort(command);
    try {
      body(seed);
    } catch (const std::exception& error) {
      ADD_FAILURE() << "exception: " << error.what();
    }
  }
  return only == 0 && last >= usual;
}

}  // namespace Support
