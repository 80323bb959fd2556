// The code behind KeyFollower.h, for the source files that make it.
#pragma once

#include <utility>

#include "runtime/Memtab/Follower.h"
#include "runtime/Memtab/KeyFollower.h"
#include "runtime/Zol/Value.h"  // first: the codecs of plain numbers

namespace Memtab {

template <class Key>
class KeyFollowerOf final : public KeyFollower<Key> {
 public:
  KeyFollowerOf(const Reader& reader, unsigned collection, OnDamage onDamage)
      : follower_(reader, collection), onDamage_(std::move(onDamage)) {
    follower_.prime(onDamage_);
  }
  bool isBehind() const override { return follower_.isBehind(); }
  std::uint64_t sequence() const override { return follower_.sequence(); }
  bool poll(size_t keysMax, Zol::Channel<Key>& channel) override {
    return follower_.poll(
        keysMax, [&channel](const Key& key) { channel.notify(key); }, onDamage_);
  }
  void rebind(const Reader& reader) override { follower_.rebind(reader); }
  void handleRead(const Key& key, Found found) override { follower_.handleRead(key, found); }
  void handleUnread() override { follower_.handleUnread(); }
  bool withholds(const Key& key) const override { return follower_.withholds(key); }

 private:
  Follower<Key> follower_;
  const OnDamage onDamage_;
};

template <class Key>
std::unique_ptr<KeyFollower<Key>> makeKeyFollower(const Reader& reader, unsigned collection, OnDamage onDamage) {
  return std::make_unique<KeyFollowerOf<Key>>(reader, collection, std::move(onDamage));
}

}  // namespace Memtab
