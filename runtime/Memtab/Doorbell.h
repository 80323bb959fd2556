// Doorbell: wakes readers that sleep, at no cost while none does. One for a state directory, whatever its tables.
//
//   reader   aboutToSleep() ─▶ looks at all sequences again ─▶ waits on fd() ─▶ awake() ─▶ looks
//   writer   publishes ─▶ ring(): a fence and a load; only if somebody sleeps: a byte into his FIFO
//
// A reader says that it sleeps before it looks for the last time, a writer asks for sleepers after it has published:
// one of the two sees the other. The writer marks a sleep as rung only after it has written the byte, and only that
// very sleep, so a writer that dies in between costs a wake-up too many and not one too few.
//
// Neither can block or harm the other. What spoils the bell, such as a removed directory, is found by mend(), which is
// called whenever the tables are looked over; a listener that is not sound looks by itself about once a second. A
// listener that opens another bell says so in the old one, so that ringers follow it at their next ring.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "runtime/Memtab/Bell.h"

namespace Memtab {

// The writers' side; one serves all tables of a process in the directory. One thread.
class DoorbellRinger {
 public:
  // Requires: the directory exists. Throws FileRefused, FileAbsent.
  explicit DoorbellRinger(std::string stateDirectory);

  // After each publication.
  void ring() {
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (bell_->sleepers().load(std::memory_order_relaxed) != 0 || bell_->isDamaged()) {
      wakeSleepers();
    }
  }
  // Opens the bell again if it has been spoilt, and then rings. Throws as the constructor does.
  void mend();

 private:
  struct Fifo {
    Descriptor file;
    uint64_t inode = 0;
  };
  void reopen();
  void wakeSleepers();
  bool poke(unsigned slot);

  std::string stateDirectory_;
  std::unique_ptr<Bell> bell_;
  std::array<Fifo, Bell::slots> fifos_;
};

// The readers' side; one serves all tables that a process reads from the directory. One thread.
class DoorbellListener {
 public:
  // owners: whose directory is trusted beside root's and our own. Throws InternalException without descriptors. A bell
  // that cannot be had is no error: isSound() says so.
  explicit DoorbellListener(std::string stateDirectory, Owners owners = {});
  DoorbellListener(const DoorbellListener&) = delete;
  DoorbellListener& operator=(const DoorbellListener&) = delete;
  ~DoorbellListener();

  // Becomes readable when the bell is rung; always the same. What it is read by is awake().
  int fd() const { return epoll_.get(); }
  // From now on publications ring. What was published before must be looked for after this call.
  void aboutToSleep();
  // Publications need not ring any more; what was rung is over.
  void awake();

  // Whether rings can be heard. If not, look every secondsUnsound and call mend().
  bool isSound() const { return isSound_; }
  // Why not, as path and reason, found out by another try; empty: they can be.
  std::string trouble() const;
  static constexpr double secondsUnsound = 1;
  // Checks everything and opens again what is spoilt. Returns isSound(); when that has changed, look at all tables.
  bool mend();

 private:
  void open();
  bool openFifo();

  std::string stateDirectory_;
  Owners owners_;
  Descriptor epoll_;
  std::unique_ptr<Bell> bell_;
  Descriptor fifo_;
  std::optional<unsigned> slot_;  // claimed
  bool isSound_ = false;
};

}  // namespace Memtab
