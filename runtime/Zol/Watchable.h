// Watchable: a collection whose every change of a member is notified with the member's key. The collections that
// entities show to reactors are these; what only its owner sees is a plain collection.
//
// Giving a member the value that it has is no change and notifies nobody, except for reference values: setting one
// publishes the object again. A watcher that arrives late learns the contents by iterating.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "runtime/Zol/Channel.h"
#include "runtime/Zol/Ptr.h"

namespace Zol {

template <class T>
inline constexpr bool isPtr = false;
template <class T>
inline constexpr bool isPtr<Ptr<T>> = true;

template <class Storage>
class Watchable {
 public:
  using Key = typename Storage::Key;
  using Value = typename Storage::Value;

  const Storage& members() const { return members_; }
  std::size_t size() const { return members_.size(); }
  bool has(const Key& key) const { return members_.has(key); }
  // The member's value, or Value() when there is none.
  Value value(const Key& key) const {
    const Value* const present = members_.find(key);
    return present == nullptr ? Value() : *present;
  }
  auto begin() const { return members_.begin(); }
  static auto end() { return Storage::end(); }

  // Adds or replaces; true when this was a change.
  bool is(const Key& key, Value value) {
    if constexpr (!isPtr<Value>) {
      const Value* const present = members_.find(key);
      if (present != nullptr && *present == value) {
        return false;
      }
    }
    members_.insertOrAssign(key, std::move(value));
    ++version_;
    channel_.notify(key);
    return true;
  }
  bool del(const Key& key) {
    const Key kept = key;  // the caller's may lie in the member that goes
    if (!members_.erase(kept)) {
      return false;
    }
    ++version_;
    channel_.notify(kept);
    return true;
  }
  // Every member that was there goes, each with its notification.
  void delAll() {
    for (auto it = members_.begin(); it; ++it) {
      del(it.key());
    }
  }

  // Counts the changes from 1 on, for whoever remembers what it has read.
  std::uint64_t version() const { return version_; }

  // Watching does not change what is watched, so this is open to those who may only read.
  Channel<Key>& channel() const { return channel_; }

 private:
  Storage members_;
  std::uint64_t version_ = 1;
  mutable Channel<Key> channel_;
};

}  // namespace Zol
