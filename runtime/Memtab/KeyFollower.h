// KeyFollower: what a map needs of a Follower, without its code, which is much: it is made once for each type of key,
// in a source file that includes KeyFollowerMake.h and has
//
//     template std::unique_ptr<Memtab::KeyFollower<Key>> Memtab::makeKeyFollower(const Reader&, unsigned, OnDamage);
#pragma once

#include <functional>
#include <memory>

#include "runtime/Memtab/Reader.h"
#include "runtime/Zol/Channel.h"

namespace Memtab {

using OnDamage = std::function<void(const Damage&)>;

template <class Key>
class KeyFollower {
 public:
  virtual ~KeyFollower() = default;
  virtual bool isBehind() const = 0;
  // Up to which all changes have been notified.
  virtual std::uint64_t sequence() const = 0;
  // Notifies about keysMax keys that changed; whether there is more.
  virtual bool poll(size_t keysMax, Zol::Channel<Key>& channel) = 0;
  virtual void rebind(const Reader& reader) = 0;
  // See Follower.
  virtual void handleRead(const Key& key, Found found) = 0;
  virtual void handleUnread() = 0;
  virtual bool withholds(const Key& key) const = 0;
};

// A follower that takes what stands for known. O(size).
template <class Key>
std::unique_ptr<KeyFollower<Key>> makeKeyFollower(const Reader& reader, unsigned collection, OnDamage onDamage);

}  // namespace Memtab
