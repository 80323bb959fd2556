// A table of numbered records, and a mirror of it that learns from a follower alone.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>

#include "runtime/Memtab/Follower.h"
#include "runtime/Memtab/MemtabMap.h"
#include "tests/runtime/Memtab/FileScene.h"

namespace Memtab {

inline constexpr HashFn numberHashes[] = {hashOfKeyBytes<uint64_t>, hashOfKeyBytes<uint64_t>};

inline Bytes bytesOf(const uint64_t& key) { return std::as_bytes(std::span(&key, 1)); }
inline bool put(Store& store, uint64_t key, const std::string& record, unsigned collection = 0) {
  return store.put(collection, numberHashes[collection](bytesOf(key)), bytesOf(key), bytesOf(record)) !=
         PutResult::unchanged;
}
inline bool del(Store& store, uint64_t key, unsigned collection = 0) {
  return store.del(collection, numberHashes[collection](bytesOf(key)), bytesOf(key));
}

using Numbers = std::map<uint64_t, std::string>;

inline Numbers numbersIn(const Reader& reader, unsigned collection = 0) {
  Numbers numbers;
  for (const auto& [place, record] : walk(reader, collection)) {
    uint64_t key = 0;
    std::memcpy(&key, place.second.data(), sizeof key);
    numbers[key] = record;
  }
  return numbers;
}

class Mirror {
 public:
  explicit Mirror(const Reader& reader, unsigned collection = 0)
      : reader_(&reader), collection_(collection), follower(reader, collection) {}

  void rebind(const Reader& reader) {
    reader_ = &reader;
    follower.rebind(reader);
  }
  bool poll(size_t keysMax = 1000) {
    return follower.poll(
        keysMax, [this](uint64_t key) { take(key); },
        [this](const Damage& damage) { damages.push_back(damage.text()); });
  }
  // Until all is seen; returns the keys that were reported, each of which must come once.
  std::set<uint64_t> settle(size_t keysMax = 1000) {
    reported_.clear();
    while (poll(keysMax)) {
    }
    std::set<uint64_t> keys(reported_.begin(), reported_.end());
    EXPECT_EQ(keys.size(), reported_.size()) << "a key was reported twice";
    return keys;
  }

  Numbers numbers;
  std::vector<std::string> damages;

  // Sees the key as it is now, whatever was reported.
  void readAhead(uint64_t key) { follower.handleRead(key, read(key)); }

 private:
  void take(uint64_t key) {
    reported_.push_back(key);
    follower.handleRead(key, read(key));
  }
  Found read(uint64_t key) {
    const Lookup found = reader_->get(collection_, numberHashes[0](bytesOf(key)), bytesOf(key));
    EXPECT_TRUE(found.state == Found::found || found.state == Found::absent) << found.damage.text();
    if (found.state != Found::found) {
      numbers.erase(key);
    } else {
      numbers[key] = textOf(found.record);
    }
    return found.state;
  }

  const Reader* reader_;
  unsigned collection_;
  std::vector<uint64_t> reported_;

 public:
  Follower<uint64_t> follower;
};

}  // namespace Memtab
