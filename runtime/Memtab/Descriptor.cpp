#include "runtime/Memtab/Descriptor.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <vector>

namespace Memtab {
namespace {

// The descriptors of this process that its children must not have. Never destroyed, as a fork may come late.
struct Kept {
  std::mutex mutex;
  std::vector<int> fds;
};

Kept& kept() {
  static Kept* const kept = [] {
    pthread_atfork([] { Memtab::kept().mutex.lock(); }, [] { Memtab::kept().mutex.unlock(); },
                   [] {
                     for (const int fd : Memtab::kept().fds) {
                       close(fd);
                     }
                     Memtab::kept().fds.clear();
                     Memtab::kept().mutex.unlock();
                   });
    return new Kept;
  }();
  return *kept;
}

flock rangeOf(short type, long from, long length) {
  flock range{};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = from;
  range.l_len = length;
  return range;
}

}  // namespace

Descriptor::~Descriptor() {
  if (fd_ < 0) {
    return;
  }
  if (isOfThisProcess_) {
    const std::lock_guard guard(kept().mutex);
    const auto at = std::find(kept().fds.begin(), kept().fds.end(), fd_);
    if (at == kept().fds.end()) {
      return;  // this is a child; the number may be another file's by now
    }
    kept().fds.erase(at);
    close(fd_);
    return;
  }
  close(fd_);
}

void Descriptor::keepFromChildren() {
  if (fd_ >= 0 && !isOfThisProcess_) {
    const std::lock_guard guard(kept().mutex);
    kept().fds.push_back(fd_);
    isOfThisProcess_ = true;
  }
}

bool lockAlone(int fd, long from, long length) {
  flock range = rangeOf(F_WRLCK, from, length);
  return fcntl(fd, F_OFD_SETLK, &range) == 0;
}

bool isLockedElsewhere(int fd, long from, long length) {
  flock range = rangeOf(F_RDLCK, from, length);
  return fcntl(fd, F_OFD_GETLK, &range) != 0 || range.l_type != F_UNLCK;
}

}  // namespace Memtab
