// RingReader: reads the ring file of a living or dead process. The file is input from outside: every count, length and
// offset is checked against the file's size before it is used.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Fastlog {

struct RingLine {
  std::uint64_t sequence = 0;
  std::int64_t nanoseconds = 0;  // since 1970
  unsigned level = 0;
  std::uint32_t line = 0;  // in the source file; 0: unknown
  std::string source;
  std::string function;  // may be empty
  std::string text;
};

struct RingContents {
  std::vector<RingLine> lines;  // in the order of their sequence numbers
  std::size_t damaged = 0;      // slots that cannot be read
};

class RingReader {
 public:
  // Raises InternalException when the file cannot be opened: it is absent, forbidden, or not a trace file.
  explicit RingReader(std::string path);
  RingReader(const RingReader&) = delete;
  RingReader& operator=(const RingReader&) = delete;
  ~RingReader();

  // The lines as they are now, while a living process may write more.
  // Raises InternalException when the file cannot be read.
  RingContents read() const;
  // Whether another file has the name now, or none.
  bool isReplaced() const;

 private:
  [[noreturn]] void fail(const std::string& problem) const;

  const std::string path_;
  int fd_ = -1;
};

// TIME SOURCE LEVEL FUNCTION:LINE TEXT, the time in UTC; no FUNCTION:LINE for lines that have none. Control characters
// are replaced, so a damaged file cannot write to a terminal.
std::string textOf(const RingLine& line);

}  // namespace Fastlog
