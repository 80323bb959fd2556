// RingFile: the last few thousand trace lines of a process, in a file of fixed size that outlives the process.
//
// Writing a line is one system call. The file's blocks are allocated when it is created, so a full file system does not
// stop it, and the line of a process that is killed directly afterwards can be read. RingFormat.h has the bytes,
// RingReader.h the reader. One thread writes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/Fastlog/TraceLine.h"

namespace Fastlog {

// How many threads may write to a ring file.
enum class Threading { one = 0 };

class RingFile {
 public:
  static constexpr std::size_t bytesDefault = 512 * (1 + 4096);

  // Creates the file. The process id takes the place of "%d" in the name.
  //
  //   bytes           size of the file, rounded down to whole slots; nothing: bytesDefault, less on a small file system
  //   previousName    new name of the trace file that has this name now; empty: the name and ".1"
  //   linesBefore     the first line gets the next number
  //   bytesMaxLog2    largest size, as a power of two
  //   keepsPrevious   false: the trace file that has this name now is deleted
  //
  // Raises InternalException when the file cannot be created. A file of another kind is never renamed, deleted or
  // overwritten.
  explicit RingFile(const std::string& name, std::optional<std::size_t> bytes = std::nullopt,
                    const std::string& previousName = "", std::uint64_t linesBefore = 0, unsigned bytesMaxLog2 = 24,
                    Threading threading = Threading::one, bool keepsPrevious = true);
  RingFile(const RingFile&) = delete;
  RingFile& operator=(const RingFile&) = delete;
  ~RingFile();

  const std::string& path() const { return path_; }

  // Control characters become "?". A text that is too long for a slot is cut and ends in "...". The first failure is
  // reported as a trace line of level 0 and ends the writing.
  void write(const TraceLine& line);

  // The process's file; null: lines are dropped. While there is one it takes all events, and the details of the levels
  // that are set.
  static RingFile* defaultFile() { return default_.get(); }
  static void defaultFileIs(std::unique_ptr<RingFile> file);
  // Writes a line to the process's file alone. For programs that have a log of their own.
  static void note(std::string_view source, unsigned level, std::string_view text);

 private:
  // The slots of one kind.
  struct Area {
    std::size_t firstSlot;
    std::size_t slots;
    std::uint64_t written = 0;
  };

  const std::string path_;
  int fd_ = -1;
  Area events_;
  Area details_;
  std::uint64_t sequence_;

  static std::unique_ptr<RingFile> default_;
};

}  // namespace Fastlog
