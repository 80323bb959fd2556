// What is wrong with input, said so that its writer finds the place.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Agent {

// A piece of one line that cannot be accepted. key is the path of the piece, as in "put.vias[2].labels", or "line" when
// the line as a whole is meant.
class InputError : public std::runtime_error {
 public:
  InputError(const std::string& key, const std::string& reason)
      : std::runtime_error(key + ": " + reason), key_(key), reason_(reason) {}

  const std::string& key() const { return key_; }
  const std::string& reason() const { return reason_; }

 private:
  std::string key_;
  std::string reason_;
};

// The same with its place, "file:line: key: reason"; or a file that cannot be read at all, "file: reason".
class ScenarioError : public std::runtime_error {
 public:
  ScenarioError(const std::string& file, const std::string& reason) : std::runtime_error(file + ": " + reason) {}
  ScenarioError(const std::string& file, std::size_t line, const InputError& error)
      : std::runtime_error(file + ":" + std::to_string(line) + ": " + error.what()) {}
};

// text fit for a message: at most maxBytes of it, cut between characters; control characters as \u escapes, so that no
// input can steer the reader's terminal. text is UTF-8.
std::string printable(std::string_view text, std::size_t maxBytes = 80);

// "1 entry", "2 entries". Without many an s is added to one.
std::string counted(std::uint64_t count, const std::string& one, const std::string& many = "");

// Raises InputError unless text is well-formed UTF-8: no overlong forms, no surrogates, at most U+10FFFF.
void requireUtf8(std::string_view text);

}  // namespace Agent
