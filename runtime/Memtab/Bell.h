// Bell: the small shared file behind a doorbell (Doorbell.h), one for a state directory.
//
//   DIR/.bell        0660   line 0: magic    line 1: sleepers, one bit a slot    then 64 slots of a line each
//   DIR/.wake-N      0660   a FIFO: what the reader of slot N waits on
//   slot             asleep: number of the sleep, 0: awake | turn: number of the last sleep | inode of the FIFO
//
// A reader owns the slot whose bytes of the file it has locked, so a dead reader's slot is free at once. What the file
// says is only hints, which others may spoil: the worst is a wake-up too many, or one that is missed.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "runtime/Memtab/BusGuard.h"
#include "runtime/Memtab/StateDirectory.h"

namespace Memtab {

class Bell {
 public:
  static constexpr unsigned slots = 64;
  static constexpr const char* fileName = ".bell";  // in the state directory

  struct alignas(64) Slot {
    std::atomic<uint64_t> asleep;
    std::atomic<uint64_t> turn;
    std::atomic<uint64_t> inode;
  };

  // Opens the bell of the directory; makes it if there is none, or none that makes sense. Throws FileRefused,
  // FileAbsent (no such directory, or no right to make it there).
  Bell(const std::string& stateDirectory, const Owners& owners);
  Bell(const Bell&) = delete;
  Bell& operator=(const Bell&) = delete;
  ~Bell();

  std::atomic<uint64_t>& sleepers() const { return shared_->sleepers; }
  // What sleepers() is once a reader has found that nobody hears this bell any more. All 64 asleep looks the same.
  static constexpr uint64_t abandoned = ~uint64_t{0};
  // Whether somebody cut the file short; zeros may stand for sleepers then. A load.
  bool isDamaged() const { return guard_->isDamaged(); }
  Slot& slot(unsigned n) const { return shared_->slot[n]; }
  // Whether nobody had the slot; then it is ours as long as this bell.
  bool claim(unsigned slot) const;
  static std::string fifoName(unsigned n) { return ".wake-" + std::to_string(n); }
  // Opens the FIFO of a slot, makes it if there is none. Nothing: it cannot be opened now, errno has the reason.
  Descriptor fifo(unsigned slot) const;
  // Whether the file is whole and what the path names. A few microseconds.
  bool isSound() const;
  // Whether this is the process that opened it; a child has no part in it.
  bool isOurs() const;

 private:
  struct Shared {
    std::atomic<uint64_t> magic;
    alignas(64) std::atomic<uint64_t> sleepers;
    Slot slot[slots];
  };
  static_assert(sizeof(Shared) == 64 * (2 + slots) && std::atomic<uint64_t>::is_always_lock_free);

  bool openStanding(const Owners& owners);
  bool makeNew();
  bool map();

  std::string path_;
  Descriptor directory_;
  Descriptor file_;
  pid_t process_;
  Shared* shared_ = nullptr;
  std::optional<BusGuard> guard_;
};

}  // namespace Memtab
