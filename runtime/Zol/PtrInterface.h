// PtrInterface: the base of everything that is shared by reference count (entities, collections, reactors).
//
// One 32-bit word holds the count and two flags, so a counted object costs one word and its virtual table:
//
//     31        30      29                28 ................................ 0
//     zombie    count   notification      count
//     flag              active flag
//
// The flags never keep an object alive: it is handed to its zero-reference handler when the word masked with countMask
// becomes 0. Counts change with plain arithmetic, or atomically while the process-wide switch is on; whoever turns it
// on does so before a second thread can hold a reference.
#pragma once

#include <atomic>
#include <cstdint>

namespace Zol {

class PtrInterface {
 public:
  static constexpr std::uint32_t zombieFlag = 1U << 31;
  static constexpr std::uint32_t notificationActiveFlag = 1U << 29;
  static constexpr std::uint32_t countMask = 0x5FFFFFFF;

  PtrInterface() = default;
  PtrInterface(const PtrInterface&) = delete;
  PtrInterface& operator=(const PtrInterface&) = delete;

  static bool threadSafePtrs() { return threadSafePtrs_; }
  static void threadSafePtrsIs(bool on) { threadSafePtrs_ = on; }

  void referenceInc() const {
    if (threadSafePtrs_) {
      std::atomic_ref<std::uint32_t>(word_).fetch_add(1, std::memory_order_relaxed);
    } else {
      ++word_;
    }
  }
  void referenceDec() const {
    const std::uint32_t now =
        threadSafePtrs_ ? std::atomic_ref<std::uint32_t>(word_).fetch_sub(1, std::memory_order_acq_rel) - 1 : --word_;
    if ((now & countMask) == 0) {
      const_cast<PtrInterface*>(this)->onZeroReferences();
    }
  }
  std::uint32_t references() const { return word_ & countMask; }

  // A zombie reacts to nothing and waits for its last reference to go.
  bool isZombie() const { return (word_ & zombieFlag) != 0; }
  bool hasNotificationActive() const { return (word_ & notificationActiveFlag) != 0; }

 protected:
  virtual ~PtrInterface() = default;

  // The last reference is gone; the default deletes the object.
  virtual void onZeroReferences() { delete this; }

  void flagIs(std::uint32_t flag, bool on) {
    if (threadSafePtrs_) {
      std::atomic_ref<std::uint32_t> word(word_);
      on ? word.fetch_or(flag) : word.fetch_and(~flag);
    } else {
      word_ = on ? word_ | flag : word_ & ~flag;
    }
  }

 private:
  inline static bool threadSafePtrs_ = false;
  mutable std::uint32_t word_ = 0;
};

}  // namespace Zol
