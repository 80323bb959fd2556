// ScenarioReader: the lines of one scenario file, one after the other.
#pragma once

#include <cerrno>
#include <cstring>
#include <fstream>
#include <istream>
#include <optional>
#include <string>
#include <utility>

#include "agent/InputError.h"
#include "agent/ScenarioLine.h"

namespace Agent {

// The file, open for reading. Raises ScenarioError.
inline std::ifstream openedFile(const std::string& path) {
  std::ifstream in(path);
  if (!in) {
    throw ScenarioError(path, std::string("cannot be opened: ") + std::strerror(errno));
  }
  return in;
}

class ScenarioReader {
 public:
  // name: of the file, for messages. The stream outlives the reader.
  ScenarioReader(std::istream& in, std::string name) : in_(in), name_(std::move(name)) {}

  const std::string& name() const { return name_; }
  // Number of the line that was read last, from 1 on; 0 before the first.
  std::size_t lineNumber() const { return lineNumber_; }
  // The bytes read so far.
  std::uint64_t bytesRead() const { return bytesRead_; }

  // The next line that says something; nothing at the end. Raises ScenarioError.
  std::optional<ScenarioLine> next() {
    while (std::getline(in_, text_)) {
      ++lineNumber_;
      bytesRead_ += text_.size() + 1;
      std::optional<ScenarioLine> line;
      naming([&] { line = scenarioLine(text_); });
      if (line) {
        return line;
      }
    }
    if (in_.bad()) {
      throw ScenarioError(name_, std::string("cannot be read: ") + std::strerror(errno));
    }
    return std::nullopt;
  }

  // Runs f; what it objects to is an error of the line that was read last.
  template <class F>
  void naming(F&& f) const {
    try {
      f();
    } catch (const InputError& error) {
      throw ScenarioError(name_, lineNumber_, error);
    }
  }

 private:
  std::istream& in_;
  const std::string name_;
  std::string text_;
  std::size_t lineNumber_ = 0;
  std::uint64_t bytesRead_ = 0;
};

}  // namespace Agent
