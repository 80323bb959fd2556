#include "runtime/Memtab/Doorbell.h"

#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstring>
#include <utility>

#include "runtime/Memtab/DirectoryOwner.h"

namespace Memtab {
namespace {

uint64_t inodeOf(const Descriptor& file) {
  struct stat facts {};
  return fstat(file.get(), &facts) == 0 ? facts.st_ino : 0;
}

void drain(const Descriptor& fifo) {
  std::array<char, 256> bytes;
  while (read(fifo.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size())) {
  }
}

}  // namespace

DoorbellRinger::DoorbellRinger(std::string stateDirectory)
    : stateDirectory_(std::move(stateDirectory)), bell_(std::make_unique<Bell>(stateDirectory_, Owners{0})) {}

void DoorbellRinger::mend() {
  if (!bell_->isSound()) {
    reopen();
    ring();  // whoever fell asleep there first has missed what was published into the spoilt one
  }
}

void DoorbellRinger::reopen() {
  bell_ = std::make_unique<Bell>(stateDirectory_, Owners{0});
  fifos_ = {};
}

// A sleeper that cannot be reached stays marked, for the next ring to try.
void DoorbellRinger::wakeSleepers() {
  const bool isSuspect = bell_->isDamaged() || bell_->sleepers().load() == Bell::abandoned;
  if (isSuspect && !bell_->isSound()) {
    try {
      reopen();
    } catch (const Zol::Exception&) {
      return;  // nobody can sleep where there is no bell
    }
  }
  uint64_t sleepers = bell_->sleepers().load(std::memory_order_acquire);
  for (; sleepers != 0; sleepers &= sleepers - 1) {
    const auto n = static_cast<unsigned>(std::countr_zero(sleepers));
    std::atomic<uint64_t>& asleep = bell_->slot(n).asleep;
    uint64_t sleep = asleep.load(std::memory_order_acquire);
    if (sleep != 0 && poke(n)) {
      asleep.compare_exchange_strong(sleep, 0);
    }
  }
}

// A full FIFO wakes as well.
bool DoorbellRinger::poke(unsigned slot) {
  Fifo& fifo = fifos_[slot];
  if (!fifo.file || fifo.inode != bell_->slot(slot).inode.load(std::memory_order_relaxed)) {
    fifo.file = bell_->fifo(slot);
    fifo.inode = fifo.file ? inodeOf(fifo.file) : 0;
  }
  const char byte = 0;
  return fifo.file && (write(fifo.file.get(), &byte, 1) == 1 || errno == EAGAIN);
}

DoorbellListener::DoorbellListener(std::string stateDirectory, Owners owners)
    : stateDirectory_(std::move(stateDirectory)), owners_(std::move(owners)), epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  if (!epoll_) {
    throw Zol::InternalException(stateDirectory_ + ": no descriptor to wait for the doorbell: " + std::strerror(errno));
  }
  owners_.push_back(0);
  open();
}

DoorbellListener::~DoorbellListener() {
  if (bell_ && bell_->isOurs()) {
    awake();
  }
}

void DoorbellListener::open() {
  if (fifo_) {
    (void)epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fifo_.get(), nullptr);
  }
  fifo_ = Descriptor();
  slot_.reset();
  if (bell_ && !bell_->isSound()) {
    bell_->sleepers().store(Bell::abandoned);
  }
  bell_.reset();
  try {
    Owners owners = owners_;
    for (const uid_t owner : directoryOwner(stateDirectory_)) {
      owners.push_back(owner);
    }
    bell_ = std::make_unique<Bell>(stateDirectory_, owners);
    for (unsigned n = 0; n < Bell::slots && !slot_; ++n) {
      if (bell_->claim(n)) {
        slot_ = n;
      }
    }
  } catch (const Zol::Exception&) {
    bell_.reset();  // whoever writes tables makes it
  }
  isSound_ = slot_ && openFifo();
  awake();
}

// Without the right to make a FIFO we sleep all the same: the first ring makes it.
bool DoorbellListener::openFifo() {
  fifo_ = bell_->fifo(*slot_);
  epoll_event event{};
  event.events = EPOLLIN;
  if (!fifo_ || epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fifo_.get(), &event) != 0) {
    return false;
  }
  bell_->slot(*slot_).inode = inodeOf(fifo_);
  return true;
}

bool DoorbellListener::mend() {
  const bool isWell = isSound_ && bell_->isSound() && inodeOf(fifo_) == inodeOf(bell_->fifo(*slot_)) &&
                      inodeOf(fifo_) == bell_->slot(*slot_).inode.load();
  if (!isWell) {
    open();
  }
  return isSound_;
}

std::string DoorbellListener::trouble() const {
  if (isSound_) {
    return "";
  }
  const std::string directory = stateDirectory_ + "/";
  try {
    const Bell bell(stateDirectory_, owners_);
    if (!slot_) {
      return directory + Bell::fileName + ": all " + std::to_string(Bell::slots) + " slots are taken";
    }
    errno = 0;
    const bool hasFifo = static_cast<bool>(bell.fifo(*slot_));
    return directory + Bell::fifoName(*slot_) +
           (hasFifo || errno == 0 ? ": cannot be waited for"
                                  : std::string(": cannot be opened as a FIFO: ") + std::strerror(errno));
  } catch (const Zol::Exception& reason) {
    return reason.what();
  }
}

void DoorbellListener::aboutToSleep() {
  if (slot_) {
    Bell::Slot& slot = bell_->slot(*slot_);
    const uint64_t sleep = slot.turn.fetch_add(1) + 1;
    slot.asleep.store(sleep == 0 ? 1 : sleep);
    bell_->sleepers().fetch_or(uint64_t{1} << *slot_);
    std::atomic_thread_fence(std::memory_order_seq_cst);
  }
}

void DoorbellListener::awake() {
  if (slot_) {
    bell_->slot(*slot_).asleep.store(0);
    bell_->sleepers().fetch_and(~(uint64_t{1} << *slot_));
  }
  if (fifo_) {
    drain(fifo_);
  }
}

}  // namespace Memtab
