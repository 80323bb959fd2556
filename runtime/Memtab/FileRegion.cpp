#include "runtime/Memtab/FileRegion.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "runtime/Memtab/Layout.h"
#include "runtime/Memtab/NoSpaceWitness.h"

namespace Memtab {
namespace {

#ifndef MADV_COLLAPSE
constexpr int MADV_COLLAPSE = 25;  // in Linux since 6.1, in the C library later
#endif

NoSpaceWitness witness = nullptr;

size_t sizeOf(int fd) {
  struct stat facts {};
  return fstat(fd, &facts) == 0 && facts.st_size > 0 ? static_cast<size_t>(facts.st_size) : 0;
}

// Gives [from, to) of the file memory of its own. 0, or the error.
int allocate(int fd, size_t from, size_t to) {
  int error = EINTR;
  while (error == EINTR) {
    error = posix_fallocate(fd, static_cast<off_t>(from), static_cast<off_t>(to - from));
  }
  return error;
}

}  // namespace

void noSpaceWitnessIs(NoSpaceWitness newWitness) { witness = newWitness; }

FileBacking::FileBacking(std::shared_ptr<const Descriptor> file, std::string path, size_t bytes)
    : file_(std::move(file)), path_(std::move(path)), bytes_(bytes), process_(getpid()) {}

size_t FileBacking::attach(std::byte* base, size_t bytes) {
  if (bytes_ > bytes) {
    throw NoSpace(path_ + ": no addresses for its " + std::to_string(bytes_) + " bytes");
  }
  // Pieces that were given back are holes: they need memory again before anything is stored there.
  if (const int error = bytes_ == 0 ? 0 : allocate(file_->get(), 0, bytes_); error != 0) {
    throw NoSpace(path_ + ": no memory for its " + std::to_string(bytes_) + " bytes: " + std::strerror(error));
  }
  constexpr int writing = PROT_READ | PROT_WRITE;
  if (mmap(base, bytes, writing, MAP_SHARED | MAP_FIXED | MAP_NORESERVE, file_->get(), 0) == MAP_FAILED ||
      madvise(base, bytes, MADV_DONTFORK) != 0) {
    throw NoSpace(path_ + ": cannot be mapped: " + std::strerror(errno));
  }
  guard_.emplace(base, bytes, writing, file_->get());
  return bytes_;
}

bool FileBacking::isAttached() const { return getpid() == process_; }

bool FileBacking::extend(std::byte* base, size_t from, size_t to) {
  if (!isAttached()) {
    throw Zol::InternalException("a shared table belongs to the process that opened it, not to its children");
  }
  const size_t bytesBefore = sizeOf(file_->get());
  if (to >= hugeFrom) {
    takeHugePages(base, from < hugeFrom ? 0 : from / hugePageBytes * hugePageBytes, to);
  }
  const int error = allocate(file_->get(), from, to);
  if (error == 0) {
    return true;
  }
  (void)ftruncate(file_->get(), static_cast<off_t>(bytesBefore));
  if (witness != nullptr) {
    witness(path_, std::strerror(error));
  }
  throw NoSpace(path_ + ": cannot grow from " + std::to_string(from) + " to " + std::to_string(to) +
                " bytes: " + std::strerror(error));
}

// A wish, which costs the kernel less than the small pages would: with the last of them there, it makes a huge one of
// all. The file keeps it, so readers and successors have it, too. Where it is refused once, it will be again.
void FileBacking::takeHugePages(std::byte* base, size_t from, size_t to) {
  const auto pageBytes = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  for (size_t end = from + hugePageBytes; hasHugePages_ && end <= to; end += hugePageBytes) {
    hasHugePages_ = allocate(file_->get(), end - pageBytes, end) == 0 &&
                    madvise(base + end - hugePageBytes, hugePageBytes, MADV_COLLAPSE) == 0;
  }
}

// The size stays, so readers may go on touching it.
void FileBacking::giveBack(std::byte*, size_t from, size_t to) {
  (void)fallocate(file_->get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(from),
                  static_cast<off_t>(to - from));
}

FileView::FileView(std::shared_ptr<const Descriptor> file, const std::string& path, size_t bytesMax)
    : Extent(look), file_(std::move(file)), addresses_(bytesMax, sizeOf(file_->get())) {
  if (mmap(addresses_.base(), addresses_.size(), PROT_READ, MAP_SHARED | MAP_FIXED | MAP_NORESERVE, file_->get(), 0) ==
      MAP_FAILED) {
    throw NoSpace(path + ": cannot be mapped: " + std::strerror(errno));
  }
  guard_.emplace(addresses_.base(), addresses_.size(), PROT_READ, file_->get());
  damagedIs(guard_->damaged());
  refresh();
}

bool FileView::look(const Extent& extent, size_t end) {
  const auto& view = static_cast<const FileView&>(extent);
  if (end <= view.addresses_.size() && end <= view.allocated()) {
    view.refresh();
  }
  return end <= view.size();
}

uint64_t FileView::allocated() const {
  const auto* header = reinterpret_cast<const Word*>(addresses_.base());
  return header[allocatedAt / sizeof(Word)].load(std::memory_order_acquire);
}

// Both the writer's word and the file's size, whichever is less. What was once seen stays: the file never shrinks but
// by violence, which the guard is for.
void FileView::refresh() const {
  const size_t usable = std::min({allocated(), sizeOf(file_->get()), addresses_.size()});
  usable_.store(std::max({usable, size(), headerBytes}), std::memory_order_release);
}

}  // namespace Memtab
