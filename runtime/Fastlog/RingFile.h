// RingFile: the last few thousand trace messages of a process, in a file that outlives it.
//
// A message is the number of its descriptor (source, line, format; written to the file once) and its values. Writing
// one is a copy into shared memory: no system call, so messages can stand where lines of text would cost too much, and
// what a process that was killed wrote last is there.
//
//     header        magic, version, counts, sequence number of the next message
//     descriptors   descriptorCount slots of 256 bytes: line, source, format
//     ring          messageCount slots of 128 bytes: sequence, descriptor, values, checksum of all these
//
// A slot that was being overwritten when the process died fails its checksum and is left out. Formats hold one "%i" for
// each integer and one "%s" for each text, in the order of the values; texts are cut off where a slot ends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Fastlog {

class RingFile {
 public:
  static constexpr std::uint32_t messageCount = 4096;
  static constexpr std::uint32_t descriptorCount = 256;
  static constexpr std::size_t payloadMax = 108;

  // Makes the file; one that is there is kept under its name with ".1" behind it. "%d" in the name stands for the
  // process id. Raises InternalException when the file cannot be made.
  explicit RingFile(const std::string& name);
  RingFile(const RingFile&) = delete;
  RingFile& operator=(const RingFile&) = delete;
  ~RingFile();

  const std::string& path() const { return path_; }

  // The number of a new descriptor; descriptorCount when there is no room for more, whose messages are dropped.
  std::uint32_t descriptorIs(std::string_view source, std::uint32_t line, std::string_view format);
  // payload: the values as RingPayload makes them.
  void write(std::uint32_t descriptor, std::string_view payload);

  // The process's file; null: messages are dropped.
  static RingFile* defaultFile() { return default_.get(); }
  static void defaultFileIs(std::unique_ptr<RingFile> file);

 private:
  std::byte* base_ = nullptr;
  std::string path_;
  std::uint32_t descriptors_ = 0;
  std::uint64_t sequence_ = 0;

  static std::unique_ptr<RingFile> default_;
};

// What a ring file says.
struct RingFileContents {
  std::vector<std::string> messages;  // the oldest first: "sequence source:line text"
  std::vector<std::string> problems;  // what could not be read, and why
};
// Reads a ring file of a living or dead process. Never fails: a file that is none has problems and no messages.
RingFileContents readRingFile(const std::string& path);

}  // namespace Fastlog
