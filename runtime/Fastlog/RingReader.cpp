#include "runtime/Fastlog/RingReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "runtime/Fastlog/RingFormat.h"
#include "runtime/Zol/Exception.h"

namespace Fastlog {
namespace {

constexpr int triesMax = 3;

// False: the bytes of the slot are no line.
bool parseSlot(const char* slot, RingLine& line) {
  SlotHead head;
  std::memcpy(&head, slot, sizeof head);
  const std::size_t body = std::size_t{head.sourceLength} + head.functionLength + head.textLength;
  if (body > bodyBytesMax || head.sequence == 0 || head.checksum != slotChecksum(slot, sizeof head + body)) {
    return false;
  }
  const char* at = slot + sizeof head;
  const auto take = [&at](std::size_t length) { return std::string(std::exchange(at, at + length), length); };
  line.sequence = head.sequence;
  line.nanoseconds = head.nanoseconds;
  line.level = head.level;
  line.line = head.line;
  line.source = take(head.sourceLength);
  line.function = take(head.functionLength);
  line.text = take(head.textLength);
  return true;
}

bool isUnused(const char* slot) {
  return std::all_of(slot, slot + sizeof(SlotHead), [](char byte) { return byte == 0; });
}

// Reads up to size bytes; the number that were read, or -1 and errno.
ssize_t readAt(int fd, char* to, std::size_t size, std::size_t at) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = pread(fd, to + done, size - done, static_cast<off_t>(at + done));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      return -1;
    }
    if (got == 0) {
      break;  // the file was shortened
    }
    done += static_cast<std::size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

RingReader::RingReader(std::string path)
    : path_(std::move(path)), fd_(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
  if (fd_ < 0) {
    fail(std::string("cannot be opened: ") + std::strerror(errno));
  }
  struct stat facts {};
  if (fstat(fd_, &facts) == 0 && S_ISREG(facts.st_mode)) {
    return;
  }
  close(fd_);
  fail(S_ISDIR(facts.st_mode) ? "is a directory" : "is not a regular file");
}

RingReader::~RingReader() { close(fd_); }

void RingReader::fail(const std::string& problem) const { throw Zol::InternalException(path_ + ": " + problem); }

RingContents RingReader::read() const {
  struct stat facts {};
  RingHeader header;
  if (fstat(fd_, &facts) != 0 || readAt(fd_, reinterpret_cast<char*>(&header), sizeof header, 0) < 0) {
    fail(std::string("cannot be read: ") + std::strerror(errno));
  }
  const auto size = static_cast<std::uint64_t>(facts.st_size);
  if (size == 0) {
    fail("is empty");
  }
  if (size < sizeof header.magic || header.magic != ringMagic) {
    fail("is not a trace file");
  }
  if (size >= sizeof header && header.version != ringVersion) {
    fail("is a trace file of version " + std::to_string(header.version) + "; this program reads version " +
         std::to_string(ringVersion));
  }
  const std::uint64_t slots = std::uint64_t{header.eventSlots} + header.detailSlots;
  if (size < sizeof header || header.eventSlots == 0 || header.detailSlots == 0 || size >> ringBytesMaxLog2 != 0 ||
      (1 + slots) * slotBytes != size) {
    fail("is damaged: its size of " + std::to_string(size) + " bytes does not agree with its header");
  }
  std::string bytes(size, '\0');
  if (readAt(fd_, bytes.data(), size, 0) < 0) {
    fail(std::string("cannot be read: ") + std::strerror(errno));
  }
  RingContents contents;
  for (std::size_t at = slotBytes; at < size; at += slotBytes) {
    char* const slot = bytes.data() + at;
    if (isUnused(slot)) {
      continue;
    }
    RingLine line;
    bool isLine = parseSlot(slot, line);
    for (int i = 0; i < triesMax && !isLine; ++i) {  // it may have been written meanwhile
      isLine = readAt(fd_, slot, slotBytes, at) == slotBytes && parseSlot(slot, line);
    }
    if (isLine) {
      contents.lines.push_back(std::move(line));
    } else {
      ++contents.damaged;
    }
  }
  std::stable_sort(contents.lines.begin(), contents.lines.end(),
                   [](const RingLine& a, const RingLine& b) { return a.sequence < b.sequence; });
  return contents;
}

bool RingReader::isReplaced() const {
  struct stat mine {};
  struct stat named {};
  return fstat(fd_, &mine) != 0 || stat(path_.c_str(), &named) != 0 || mine.st_ino != named.st_ino ||
         mine.st_dev != named.st_dev;
}

std::string textOf(const RingLine& line) {
  constexpr std::int64_t nanosecondsOfSecond = 1'000'000'000;
  std::int64_t fraction = line.nanoseconds % nanosecondsOfSecond;
  if (fraction < 0) {
    fraction += nanosecondsOfSecond;
  }
  const std::time_t seconds = (line.nanoseconds - fraction) / nanosecondsOfSecond;
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char time[64] = {};
  const std::size_t length = std::strftime(time, sizeof time, "%FT%T", &parts);
  std::snprintf(time + length, sizeof time - length, ".%06dZ ", static_cast<int>(fraction / 1000));
  std::string text = time + line.source + " " + std::to_string(line.level) + " ";
  if (!line.function.empty()) {
    text += line.function + ":" + std::to_string(line.line) + " ";
  }
  text += line.text;
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '?');
  return text;
}

}  // namespace Fastlog
