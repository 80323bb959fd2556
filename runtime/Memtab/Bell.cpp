#include "runtime/Memtab/Bell.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace Memtab {
namespace {

constexpr uint64_t bellMagic = 0x314C'4C45'424D'4DF5;
constexpr size_t fileBytes = size_t{64} << 10;  // whole pages of any size in use
constexpr mode_t fileMode = 0660;               // readers, who may be others of the group, write their slots
constexpr int openFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr int triesMax = 100;
constexpr timespec betweenTries = {0, 5'000'000};  // whoever is replacing it may have lost the processor

bool isNamed(int directory, const char* name, int fd) {
  struct stat named {};
  struct stat open {};
  return fstatat(directory, name, &named, AT_SYMLINK_NOFOLLOW) == 0 && fstat(fd, &open) == 0 &&
         named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

}  // namespace

Bell::Bell(const std::string& stateDirectory, const Owners& owners)
    : path_(stateDirectory + "/" + fileName),
      directory_(openStateDirectory(stateDirectory, false, owners)),
      process_(getpid()) {
  static_assert(sizeof(Shared) <= fileBytes);
  for (int tries = 0; tries < triesMax; ++tries) {
    if ((openStanding(owners) || makeNew()) && map()) {
      return;
    }
    (void)nanosleep(&betweenTries, nullptr);
  }
  throw FileRefused(path_ + ": others keep replacing it");
}

Bell::~Bell() {
  if (isOurs()) {
    guard_.reset();
    munmap(shared_, fileBytes);
  }
}

bool Bell::isOurs() const { return getpid() == process_; }

// False: there is none, or it was none and is gone.
bool Bell::openStanding(const Owners& owners) {
  file_ = Descriptor(openat(directory_.get(), fileName, openFlags));
  struct stat facts {};
  if (!file_ && errno == ENOENT) {
    return false;
  }
  if (!file_ || fstat(file_.get(), &facts) != 0) {
    raiseError("doorbell cannot be opened", path_, errno);
  }
  if (facts.st_nlink == 0) {
    return false;
  }
  if ((facts.st_mode & S_IWOTH) == 0) {  // else the mode is told as it is
    facts.st_mode &= ~static_cast<mode_t>(S_IWGRP);
  }
  refuseUnsafe(facts, true, path_, owners);
  uint64_t magic = 0;
  if (facts.st_size == static_cast<off_t>(fileBytes) && pread(file_.get(), &magic, sizeof magic, 0) == sizeof magic &&
      magic == bellMagic) {
    return true;
  }
  // Of those who find it useless, one at a time removes it, and only what the name still stands for.
  if (lockAlone(file_.get(), 0, 1) && isNamed(directory_.get(), fileName, file_.get()) &&
      unlinkat(directory_.get(), fileName, 0) != 0) {
    raiseError("no doorbell, and it cannot be replaced", path_, errno);
  }
  return false;
}

// False: another was faster.
bool Bell::makeNew() {
  file_ = Descriptor(openat(directory_.get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, fileMode));
  const uint64_t magic = bellMagic;
  if (!file_ || fchmod(file_.get(), fileMode) != 0) {
    raiseError("no doorbell can be made", path_, errno);
  }
  if (const int error = posix_fallocate(file_.get(), 0, fileBytes); error != 0) {
    raiseError("no doorbell can be made", path_, error);
  }
  if (pwrite(file_.get(), &magic, sizeof magic, 0) != sizeof magic) {
    raiseError("no doorbell can be made", path_, errno);
  }
  const std::string unnamed = "/proc/self/fd/" + std::to_string(file_.get());
  if (linkat(AT_FDCWD, unnamed.c_str(), directory_.get(), fileName, AT_SYMLINK_FOLLOW) != 0 && errno != EEXIST) {
    raiseError("the doorbell cannot be named", path_, errno);
  }
  return isNamed(directory_.get(), fileName, file_.get());
}

bool Bell::map() {
  file_.keepFromChildren();
  constexpr int access = PROT_READ | PROT_WRITE;
  void* const at = mmap(nullptr, fileBytes, access, MAP_SHARED, file_.get(), 0);
  if (at == MAP_FAILED || madvise(at, fileBytes, MADV_DONTFORK) != 0) {
    raiseError("the doorbell cannot be mapped", path_, errno);
  }
  shared_ = static_cast<Shared*>(at);
  guard_.emplace(static_cast<const std::byte*>(at), fileBytes, access, file_.get());
  return true;
}

bool Bell::claim(unsigned n) const {
  const auto at = reinterpret_cast<const char*>(&slot(n)) - reinterpret_cast<const char*>(shared_);
  return lockAlone(file_.get(), at, sizeof(Slot));
}

Descriptor Bell::fifo(unsigned n) const {
  const std::string name = fifoName(n);
  if (mkfifoat(directory_.get(), name.c_str(), fileMode) == 0) {
    (void)fchmodat(directory_.get(), name.c_str(), fileMode, 0);
  }
  // Open for both, so that there is neither an end of file without writers nor a signal without readers.
  Descriptor fifo(openat(directory_.get(), name.c_str(), openFlags));
  struct stat facts {};
  if (!fifo || fstat(fifo.get(), &facts) != 0) {
    return {};
  }
  errno = EEXIST;
  return S_ISFIFO(facts.st_mode) ? std::move(fifo) : Descriptor();
}

bool Bell::isSound() const {
  struct stat named {};
  struct stat open {};
  return !guard_->isDamaged() && lstat(path_.c_str(), &named) == 0 && fstat(file_.get(), &open) == 0 &&
         named.st_dev == open.st_dev && named.st_ino == open.st_ino && shared_->magic.load() == bellMagic;
}

}  // namespace Memtab
