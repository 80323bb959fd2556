#include "runtime/Memtab/BusGuard.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "runtime/Zol/Exception.h"

namespace Memtab {
namespace {

// The handler reads these at any moment, so begin and end are such that every mixture of old and new is empty.
struct Range {
  std::atomic<bool> isTaken{false};
  std::atomic<uintptr_t> begin{0};
  std::atomic<uintptr_t> end{0};
  std::atomic<int> protection{0};
  std::atomic<int> file{-1};
  std::atomic<bool> damaged{false};
};

std::array<Range, BusGuard::guardsMax> ranges;  // pages of it that were never used take no memory
std::atomic<unsigned> rangesUsed{0};            // those behind were never taken
struct sigaction previous;
uintptr_t pageBytes;

static_assert(std::atomic<uintptr_t>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

// The address of the first page that the range's file does not have; the greatest one when that is unknown.
uintptr_t endOfFile(const Range& range) {
  struct stat facts {};
  if (fstat(range.file.load(std::memory_order_relaxed), &facts) != 0) {
    return ~uintptr_t{0};
  }
  const auto size = static_cast<uintptr_t>(facts.st_size);
  return range.begin.load(std::memory_order_relaxed) + (size + pageBytes - 1) / pageBytes * pageBytes;
}

bool isZeroed(const Range& range, uintptr_t from, uintptr_t to) {
  return mmap(reinterpret_cast<void*>(from), to - from, range.protection.load(std::memory_order_relaxed),
              MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE, -1, 0) != MAP_FAILED;
}

bool isMended(uintptr_t at) {
  for (unsigned n = 0; n < rangesUsed.load(std::memory_order_acquire); ++n) {
    Range& range = ranges[n];
    if (at >= range.begin.load(std::memory_order_acquire) && at < range.end.load(std::memory_order_acquire)) {
      range.damaged.store(true, std::memory_order_release);
      const uintptr_t page = at & ~(pageBytes - 1);
      const uintptr_t fileEnd = endOfFile(range);
      return (page >= fileEnd && isZeroed(range, fileEnd, range.end.load(std::memory_order_relaxed))) ||
             isZeroed(range, page, page + pageBytes);
    }
  }
  return false;
}

void passOn(int signal, siginfo_t* info, void* context) {
  if ((previous.sa_flags & SA_SIGINFO) != 0) {
    previous.sa_sigaction(signal, info, context);
  } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
    previous.sa_handler(signal);
  } else {
    // The fault happens again, or the signal comes again, and this time there is no handler.
    ::signal(SIGBUS, SIG_DFL);
    if (info->si_code <= 0) {
      (void)raise(SIGBUS);
    }
  }
}

// Makes async-signal-safe calls only; mmap() and fstat() are such in all but the standard's list: plain system calls.
void handleBus(int signal, siginfo_t* info, void* context) {
  const int interruptedErrno = errno;
  const bool isFault = info->si_code > 0;
  if (!isFault || !isMended(reinterpret_cast<uintptr_t>(info->si_addr))) {
    passOn(signal, info, context);
  }
  errno = interruptedErrno;
}

bool install() {
  pageBytes = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  struct sigaction action = {};
  action.sa_sigaction = handleBus;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  return sigaction(SIGBUS, &action, &previous) == 0;
}

}  // namespace

BusGuard::BusGuard(const std::byte* base, size_t bytes, int protection, int file) : slot_(0), damaged_(nullptr) {
  static const bool isInstalled = install();
  if (!isInstalled) {
    throw Zol::InternalException("no handler for SIGBUS");
  }
  for (Range& range : ranges) {
    if (!range.isTaken.exchange(true)) {
      slot_ = static_cast<unsigned>(&range - ranges.data());
      for (unsigned used = rangesUsed; used <= slot_ && !rangesUsed.compare_exchange_weak(used, slot_ + 1);) {
      }
      damaged_ = &range.damaged;
      range.damaged = false;
      range.protection = protection;
      range.file = file;
      range.begin = reinterpret_cast<uintptr_t>(base);
      range.end = reinterpret_cast<uintptr_t>(base) + bytes;
      return;
    }
  }
  throw Zol::InternalException("more than " + std::to_string(guardsMax) + " files are mapped");
}

BusGuard::~BusGuard() {
  Range& range = ranges[slot_];
  range.end = 0;
  range.begin = 0;
  range.isTaken = false;
}

}  // namespace Memtab
