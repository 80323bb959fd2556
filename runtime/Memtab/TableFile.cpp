#include "runtime/Memtab/TableFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "runtime/Memtab/Layout.h"
#include "runtime/Memtab/Owner.h"

namespace Memtab {
namespace {

constexpr mode_t fileMode = 0640;
constexpr int openFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
constexpr int triesMax = 100;  // of opening what others replace at the same time

// The header page as it stands in the file; zeros behind its end.
std::array<uint64_t, headerBytes / sizeof(uint64_t)> headerOf(int fd) {
  std::array<uint64_t, headerBytes / sizeof(uint64_t)> words{};
  [[maybe_unused]] const ssize_t got = pread(fd, words.data(), headerBytes, 0);
  return words;
}

uint64_t wordIn(const std::array<uint64_t, headerBytes / sizeof(uint64_t)>& header, size_t offset) {
  return header[offset / sizeof(uint64_t)];
}

[[noreturn]] void raiseBusy(const std::string& path, int fd) {
  const auto header = headerOf(fd);
  const Owner holder{wordIn(header, ownerAt), wordIn(header, ownerStartAt)};
  throw TableBusy(path + ": another writer has it: " + holder.text());
}

// A table file by name, checked before it is opened (as opening some files has effects) and after.
Descriptor openSafe(const PlaceInDirectory& place, const std::string& path, int access, const Owners& owners) {
  struct stat facts {};
  if (fstatat(place.directory.get(), place.base.c_str(), &facts, AT_SYMLINK_NOFOLLOW) != 0) {
    raiseError("table cannot be examined", path, errno);
  }
  refuseUnsafe(facts, true, path, owners);
  Descriptor file(openat(place.directory.get(), place.base.c_str(), access | openFlags));
  if (!file || fstat(file.get(), &facts) != 0) {
    raiseError("table cannot be opened", path, errno);
  }
  if (facts.st_nlink != 0) {  // 0: removed between the two; whoever asked for it finds out
    refuseUnsafe(facts, true, path, owners);
  }
  return file;
}

// The numbers N of the files BASE.aside-N, ascending.
std::vector<unsigned> asideNumbers(int directory, const std::string& stem) {
  std::vector<unsigned> numbers;
  DIR* const entries = fdopendir(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (entries == nullptr) {
    return numbers;
  }
  while (const dirent* entry = readdir(entries)) {
    const std::string_view name = entry->d_name;
    unsigned number = 0;
    if (name.starts_with(stem)) {
      const auto [end, error] = std::from_chars(name.data() + stem.size(), name.data() + name.size(), number);
      if (error == std::errc() && end == name.data() + name.size()) {
        numbers.push_back(number);
      }
    }
  }
  closedir(entries);
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

}  // namespace

void TableFile::fileIs(Descriptor file) {
  file_ = std::make_shared<const Descriptor>(std::move(file));
  struct stat facts {};
  if (fstat(fd(), &facts) != 0) {
    raiseError("table cannot be examined", path_, errno);
  }
  device_ = facts.st_dev;
  inode_ = facts.st_ino;
}

bool TableFile::isReplaced() const {
  struct stat facts {};
  return lstat(path_.c_str(), &facts) != 0 || facts.st_dev != device_ || facts.st_ino != inode_;
}

size_t TableFile::bytes() const {
  struct stat facts {};
  return fstat(fd(), &facts) == 0 ? static_cast<size_t>(facts.st_size) : 0;
}

std::unique_ptr<FileView> TableFile::checkedView(uint64_t fingerprint, size_t collections, size_t bytesMax) const {
  struct stat facts {};
  if (fstat(fd(), &facts) != 0 || facts.st_size < static_cast<off_t>(headerBytes)) {
    throw IncompatibleTable("its " + std::to_string(facts.st_size) + " bytes are too few for a table");
  }
  const auto header = headerOf(fd());
  const uint64_t allocated = wordIn(header, allocatedAt);
  if (wordIn(header, magicAt) == regionMagic && wordIn(header, versionAt) == formatVersion) {
    if (allocated < headerBytes || allocated % headerBytes != 0 || allocated > regionBytesMax) {
      throw IncompatibleTable("it says that it has " + std::to_string(allocated) + " bytes");
    }
    if (allocated > static_cast<uint64_t>(facts.st_size)) {
      throw IncompatibleTable("it was truncated from " + std::to_string(allocated) + " to " +
                              std::to_string(facts.st_size) + " bytes");
    }
  }
  auto result = std::make_unique<FileView>(file_, path_, bytesMax);
  requireCompatible(result->view(), fingerprint, collections);
  return result;
}

WriterFile::WriterFile(const std::string& stateDirectory, const std::string& name, uint64_t fingerprint,
                       size_t collections)
    : TableFile(stateDirectory, name), place_(placeOf(stateDirectory, name, true, {0})), process_(getpid()) {
  if (!openStanding()) {
    makeUnnamed();
    return;
  }
  try {
    (void)checkedView(fingerprint, collections, 0);
  } catch (const IncompatibleTable& misfit) {
    setAside(misfit.what());
  }
}

// False: there is none.
bool WriterFile::openStanding() {
  for (int tries = 0; tries < triesMax; ++tries) {
    Descriptor file;
    try {
      file = openSafe(place_, path_, O_RDWR, {});
    } catch (const FileAbsent&) {
      return false;
    }
    if (!lockAlone(file.get(), 0, 0)) {
      if (errno != EAGAIN && errno != EACCES) {
        raiseError("table cannot be locked", path_, errno);
      }
      raiseBusy(path_, file.get());
    }
    file.keepFromChildren();
    fileIs(std::move(file));
    if (!isReplaced()) {
      return true;
    }
  }
  throw TableBusy(path_ + ": others keep replacing it");
}

void WriterFile::makeUnnamed() {
  Descriptor file(openat(place_.directory.get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, fileMode));
  if (!file || fchmod(file.get(), fileMode) != 0 || !lockAlone(file.get(), 0, 0)) {
    raiseError("no new table can be made", path_, errno);
  }
  file.keepFromChildren();
  fileIs(std::move(file));
  isNew_ = true;
}

void WriterFile::refuseChild() const {
  if (getpid() != process_) {
    throw Zol::InternalException(path_ + ": belongs to the process that opened it, not to its children");
  }
}

Region WriterFile::region(size_t bytesMax) {
  refuseChild();
  // All of the file, whatever its header says of the end: the take-over finds that out, and gives the rest back.
  const size_t bytes = isNew_ ? 0 : this->bytes() / headerBytes * headerBytes;
  return Region(std::make_unique<FileBacking>(file_, path_, bytes), bytesMax);
}

void WriterFile::publish() {
  refuseChild();
  const std::string unnamed = "/proc/self/fd/" + std::to_string(fd());
  if (linkat(AT_FDCWD, unnamed.c_str(), place_.directory.get(), place_.base.c_str(), AT_SYMLINK_FOLLOW) == 0) {
    isNew_ = false;
    return;
  }
  if (errno == EEXIST) {
    const Descriptor first(openat(place_.directory.get(), place_.base.c_str(), O_RDONLY | openFlags));
    raiseBusy(path_, first.get());
  }
  raiseError("the new table cannot be named", path_, errno);
}

void WriterFile::setAside(const std::string& reason) {
  refuseChild();
  asideReason_ = reason;
  if (!isNew_) {
    moveAside();
  }
  makeUnnamed();
}

void WriterFile::moveAside() {
  const int directory = place_.directory.get();
  const std::string stem = place_.base + ".aside-";
  const std::vector<unsigned> numbers = asideNumbers(directory, stem);
  const std::string aside = stem + std::to_string(numbers.empty() ? 1 : numbers.back() + 1);
  if (renameat2(directory, place_.base.c_str(), directory, aside.c_str(), RENAME_NOREPLACE) != 0) {
    raiseError("not a table of ours (" + asideReason_ + "), and it cannot be set aside", path_, errno);
  }
  for (size_t i = 0; i + asideMax <= numbers.size(); ++i) {
    (void)unlinkat(directory, (stem + std::to_string(numbers[i])).c_str(), 0);
  }
}

ReaderFile::ReaderFile(const std::string& stateDirectory, const std::string& name, uint64_t fingerprint,
                       size_t collections, Owners owners)
    : TableFile(stateDirectory, name) {
  owners.push_back(0);
  fileIs(openSafe(placeOf(stateDirectory, name, false, owners), path_, O_RDONLY, owners));
  try {
    view_ = checkedView(fingerprint, collections, Region::reserveDefault);
  } catch (const IncompatibleTable& misfit) {
    throw IncompatibleTable(path_ + ": " + misfit.what());
  }
}

bool ReaderFile::isOwned() const { return isLockedElsewhere(fd(), 0, 0); }

}  // namespace Memtab
