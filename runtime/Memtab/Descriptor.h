// Descriptor: an open file, closed with its owner.
//
// One that carries a lock must not live on in a child process: the lock is the open file's, so a child that merely
// exists would hold it after its parent's death. fork() closes such descriptors in the child; exec() closes all.
#pragma once

#include <utility>

namespace Memtab {

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept
      : fd_(std::exchange(other.fd_, -1)), isOfThisProcess_(std::exchange(other.isOfThisProcess_, false)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    std::swap(isOfThisProcess_, other.isOfThisProcess_);
    return *this;
  }
  ~Descriptor();

  // From now on children do not get it; in a child it is nothing.
  void keepFromChildren();

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
  bool isOfThisProcess_ = false;
};

// Locks bytes [from, from + length) of the open file behind fd against all others, as long as that is open.
// length 0: all bytes from there on. False: somebody else has a lock there.
bool lockAlone(int fd, long from, long length);
// Whether somebody else has. In doubt, yes.
bool isLockedElsewhere(int fd, long from, long length);

}  // namespace Memtab
