// Two sets of tunnel ids in eight bytes each, for records that every tunnel may have and that mostly hold one id.
//
//     0              nothing
//     ....1          the one member, in the word itself
//     pointer        more of them, on the heap
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <utility>

#include "runtime/Zol/HashCollection.h"
#include "tunnel/TunnelId.h"

namespace Tunnel::TunnelTable {

// The direct next levels of a tunnel, ascending, each with a mark. Replaced as a whole; on the heap just as large as it
// has to be.
class NextLevels {
 public:
  NextLevels() = default;
  // ids: ascending, without doubles. No mark is set.
  explicit NextLevels(std::span<const TunnelId> ids) {
    if (ids.size() == 1) {
      word_ = wordOf(ids[0]);
    } else if (!ids.empty()) {
      auto* const words = new std::uint64_t[ids.size() + 1];
      words[0] = ids.size();
      for (std::size_t i = 0; i < ids.size(); ++i) {
        words[i + 1] = wordOf(ids[i]);
      }
      word_ = reinterpret_cast<std::uintptr_t>(words);
    }
  }
  NextLevels(NextLevels&& other) noexcept : word_(std::exchange(other.word_, 0)) {}
  NextLevels& operator=(NextLevels&& other) noexcept {
    std::swap(word_, other.word_);
    return *this;
  }
  ~NextLevels() {
    if (isOnHeap()) {
      delete[] heap();
    }
  }

  std::size_t size() const { return isOnHeap() ? heap()[0] : word_ != 0; }
  TunnelId id(std::size_t i) const { return TunnelId(words()[i] >> 2); }
  bool isMarked(std::size_t i) const { return (words()[i] & markBit) != 0; }
  void markIs(std::size_t i, bool on) {
    std::uint64_t& word = const_cast<std::uint64_t*>(words())[i];
    word = on ? word | markBit : word & ~markBit;
  }
  // Whether these are the members.
  bool holds(std::span<const TunnelId> ids) const {
    bool isEqual = ids.size() == size();
    for (std::size_t i = 0; isEqual && i < ids.size(); ++i) {
      isEqual = id(i) == ids[i];
    }
    return isEqual;
  }

 private:
  static constexpr std::uint64_t inlineBit = 1;
  static constexpr std::uint64_t markBit = 2;

  static std::uint64_t wordOf(const TunnelId& id) { return id.value() << 2 | inlineBit; }
  bool isOnHeap() const { return word_ != 0 && (word_ & inlineBit) == 0; }
  std::uint64_t* heap() const { return reinterpret_cast<std::uint64_t*>(word_); }
  const std::uint64_t* words() const { return isOnHeap() ? heap() + 1 : &word_; }

  std::uint64_t word_ = 0;
};

// The tunnels with a via directly through a tunnel. Members come and go one by one, in constant time.
class DependentTunnels {
 public:
  using Many = Zol::HashCollection<TunnelId>;

  DependentTunnels() = default;
  DependentTunnels(DependentTunnels&& other) noexcept : word_(std::exchange(other.word_, 0)) {}
  DependentTunnels& operator=(DependentTunnels&& other) noexcept {
    std::swap(word_, other.word_);
    return *this;
  }
  ~DependentTunnels() {
    if (isOnHeap()) {
      delete heap();
    }
  }

  bool empty() const { return word_ == 0; }
  std::size_t size() const { return isOnHeap() ? heap()->size() : word_ != 0; }
  bool has(const TunnelId& id) const { return isOnHeap() ? heap()->has(id) : word_ == wordOf(id); }
  void insert(const TunnelId& id) {
    if (isOnHeap()) {
      heap()->insert(id);
    } else if (word_ == 0) {
      word_ = wordOf(id);
    } else if (word_ != wordOf(id)) {
      auto many = std::make_unique<Many>();
      many->insert(only());
      many->insert(id);
      word_ = reinterpret_cast<std::uintptr_t>(many.release());
    }
  }
  void erase(const TunnelId& id) {
    if (!isOnHeap()) {
      word_ = word_ == wordOf(id) ? 0 : word_;
    } else if (heap()->erase(id) && heap()->empty()) {
      delete heap();
      word_ = 0;
    }
  }

  // f may return false to end the walk early, or nothing. It must not change this set.
  template <class F>
  void forEach(F&& f) const {
    const auto goOn = [&f](const TunnelId& id) {
      if constexpr (std::is_same_v<decltype(f(id)), bool>) {
        return f(id);
      } else {
        f(id);
        return true;
      }
    };
    if (isOnHeap()) {
      for (auto it = std::as_const(*heap()).begin(); it && goOn(it.key()); ++it) {
      }
    } else if (word_ != 0) {
      goOn(only());
    }
  }
  std::size_t bytesUsed() const { return isOnHeap() ? sizeof(Many) + heap()->bytesUsed() : 0; }

 private:
  static std::uint64_t wordOf(const TunnelId& id) { return id.value() << 1 | 1; }
  TunnelId only() const { return TunnelId(word_ >> 1); }
  bool isOnHeap() const { return word_ != 0 && (word_ & 1) == 0; }
  Many* heap() const { return reinterpret_cast<Many*>(word_); }

  std::uint64_t word_ = 0;
};

}  // namespace Tunnel::TunnelTable
