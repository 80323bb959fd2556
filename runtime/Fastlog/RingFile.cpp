#include "runtime/Fastlog/RingFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "runtime/Fastlog/RingFormat.h"
#include "runtime/Fastlog/TraceRegistry.h"
#include "runtime/Zol/Exception.h"

namespace Fastlog {
namespace {

constexpr std::size_t sourceBytesMax = 32;
constexpr std::size_t functionBytesMax = 64;
static_assert(RingFile::bytesDefault % slotBytes == 0);

std::string withProcessId(std::string name) {
  const std::size_t at = name.find("%d");
  return at == std::string::npos ? name : name.replace(at, 2, std::to_string(getpid()));
}

[[noreturn]] void refuse(const std::string& path, const std::string& problem) {
  throw Zol::InternalException("trace file " + path + ": " + problem + "; trace lines are dropped");
}

// Whether a trace file, or an empty file, has this name. Raises InternalException for any other file.
bool isTraceFileThere(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    if (errno != ENOENT) {
      refuse(path, std::string("cannot be opened: ") + std::strerror(errno));
    }
    return false;
  }
  struct stat facts {};
  std::uint64_t magic = 0;
  const bool isRegular = fstat(fd, &facts) == 0 && S_ISREG(facts.st_mode);
  const bool isOurs =
      isRegular && (facts.st_size == 0 || (pread(fd, &magic, sizeof magic, 0) == sizeof magic && magic == ringMagic));
  close(fd);
  if (!isOurs) {
    refuse(path, isRegular ? "another kind of file has this name" : "is not a regular file");
  }
  return true;
}

void makeRoom(const std::string& path, const std::string& previous, bool keepsPrevious) {
  if (!isTraceFileThere(path)) {
    return;
  }
  if (keepsPrevious) {
    isTraceFileThere(previous);
  }
  if ((keepsPrevious ? std::rename(path.c_str(), previous.c_str()) : unlink(path.c_str())) != 0) {
    refuse(path, std::string("cannot be ") + (keepsPrevious ? "renamed to " + previous : "deleted") + ": " +
                     std::strerror(errno));
  }
}

int createFile(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640);
  if (fd < 0) {
    refuse(path, std::string("cannot be created: ") + std::strerror(errno));
  }
  return fd;
}

// Two trace files take a sixteenth of a small file system at most, so that a restart leaves tables their space.
std::size_t defaultSize(int fd) {
  constexpr std::size_t bytesMin = slotBytes * 65;
  struct statvfs facts {};
  if (fstatvfs(fd, &facts) != 0 || facts.f_blocks == 0) {
    return RingFile::bytesDefault;
  }
  return std::clamp<std::size_t>(facts.f_blocks * facts.f_frsize / 32, bytesMin, RingFile::bytesDefault);
}

// Returns 0, or the error.
int allocate(int fd, const RingHeader& header, std::size_t bytes) {
  const int error = posix_fallocate(fd, 0, static_cast<off_t>(bytes));
  return error == 0 && pwrite(fd, &header, sizeof header, 0) != sizeof header ? errno : error;
}

// Appends a text without control characters.
char* append(char* to, std::string_view text) {
  return std::transform(text.begin(), text.end(), to,
                        [](unsigned char c) { return static_cast<char>(c < 0x20 || c == 0x7F ? '?' : c); });
}

}  // namespace

std::unique_ptr<RingFile> RingFile::default_;

void RingFile::defaultFileIs(std::unique_ptr<RingFile> file) {
  default_ = std::move(file);
  TraceRegistry::instance().recordedLevelIs(default_ != nullptr ? eventLevelMax : 0);
}

void RingFile::note(std::string_view source, unsigned level, std::string_view text) {
  if (default_ != nullptr) {
    default_->write({source, std::min(level, eventLevelMax), "", 0, "", text});
  }
}

RingFile::RingFile(const std::string& name, std::optional<std::size_t> bytes, const std::string& previousName,
                   std::uint64_t linesBefore, unsigned bytesMaxLog2, Threading, bool keepsPrevious)
    : path_(withProcessId(name)), sequence_(linesBefore) {
  if (bytes && (*bytes < 5 * slotBytes || *bytes >> std::min(bytesMaxLog2, ringBytesMaxLog2) != 0)) {
    refuse(path_, "a size of " + std::to_string(*bytes) + " bytes is not allowed");
  }
  makeRoom(path_, previousName.empty() ? path_ + ".1" : previousName, keepsPrevious);
  fd_ = createFile(path_);
  const std::size_t slots = (bytes ? *bytes : defaultSize(fd_)) / slotBytes - 1;
  events_ = {1, slots / 4};
  details_ = {1 + events_.slots, slots - events_.slots};
  RingHeader header;
  header.eventSlots = static_cast<std::uint32_t>(events_.slots);
  header.detailSlots = static_cast<std::uint32_t>(details_.slots);
  const std::size_t size = (1 + slots) * slotBytes;
  if (const int error = allocate(fd_, header, size); error != 0) {
    close(fd_);
    unlink(path_.c_str());
    refuse(path_, "cannot allocate " + std::to_string(size) + " bytes: " + std::strerror(error));
  }
}

RingFile::~RingFile() {
  if (fd_ >= 0) {
    close(fd_);
  }
}

void RingFile::write(const TraceLine& line) {
  if (fd_ < 0) {
    return;
  }
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const std::string_view source = line.handle.substr(0, sourceBytesMax);
  const std::string_view function = line.function.substr(0, functionBytesMax);
  const std::size_t textMax = bodyBytesMax - source.size() - function.size();
  constexpr std::string_view cutMark = "...";
  const bool isCut = line.text.size() > textMax;
  char slot[slotBytes];
  char* end = append(append(slot + sizeof(SlotHead), source), function);
  end = append(end, line.text.substr(0, isCut ? textMax - cutMark.size() : textMax));
  if (isCut) {
    end = append(end, cutMark);
  }
  SlotHead head;
  head.line = static_cast<std::uint32_t>(line.line);
  head.sequence = ++sequence_;
  head.nanoseconds = now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
  head.textLength = static_cast<std::uint16_t>(std::min(line.text.size(), textMax));
  head.level = static_cast<std::uint8_t>(line.level);
  head.sourceLength = static_cast<std::uint8_t>(source.size());
  head.functionLength = static_cast<std::uint8_t>(function.size());
  const auto used = static_cast<std::size_t>(end - slot);
  std::memcpy(slot, &head, sizeof head);
  head.checksum = slotChecksum(slot, used);
  std::memcpy(slot, &head.checksum, sizeof head.checksum);
  Area& area = line.level <= eventLevelMax ? events_ : details_;
  const std::size_t at = (area.firstSlot + area.written++ % area.slots) * slotBytes;
  if (pwrite(fd_, slot, used, static_cast<off_t>(at)) != static_cast<ssize_t>(used)) {
    const std::string reason = std::strerror(errno);
    close(std::exchange(fd_, -1));
    TraceRegistry::instance().write(
        {"Fastlog", 0, "", 0, "",
         "trace file " + path_ + ": cannot be written: " + reason + "; trace lines are dropped"});
  }
}

}  // namespace Fastlog
