// What standard output and standard error are connected to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace Agent {

// Opens /dev/null in the place of each of the three standard descriptors that is closed, so that no file that is opened
// later is taken for one of them.
void openStandardDescriptors();

// Whether people look at standard output in colour: it is a terminal, and NO_COLOR is unset or empty.
bool isOutputColoured();

// What fits on standard output: as COLUMNS and LINES in the environment say, else as the terminal does; all, where
// there is none.
struct OutputSize {
  std::size_t columns = std::numeric_limits<std::size_t>::max();
  std::size_t lines = std::numeric_limits<std::size_t>::max();
};
OutputSize outputSize();

// How many characters a terminal shows of UTF-8.
std::size_t widthOf(const std::string& text);
// The text in lines of at most so many characters, parted at blanks. Words are not broken: a longer one stands alone.
std::vector<std::string> folded(const std::string& text, std::size_t width);

// Whether the process that read standard output has gone away.
bool isOutputReaderGone();

// Writes the rest of standard output. Returns a message with the reason if that fails; empty: all is written, or the
// process that reads it has gone away.
std::string outputTrouble();

// How far the reading of a long file is, on standard error if that is a terminal. Cleared when destroyed.
class Progress {
 public:
  // size in bytes; a short file has no progress.
  Progress(std::string name, std::uint64_t size);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress();

  void doneIs(std::uint64_t bytes);

 private:
  static constexpr std::uint64_t sizeMin = 4U << 20;

  const std::string name_;
  const std::uint64_t size_;
  const bool isShown_;
  std::uint64_t percent_ = 0;
};

}  // namespace Agent
