// What the tests of the table engine share: readable keys, hashes of several characters, and the comparison of a
// region with a plain map, once by look-up and once by walking.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <string>

#include "runtime/Memtab/Store.h"
#include "tests/support/Seeds.h"

namespace Memtab {

// The same numbers on every machine.
class Random {
 public:
  explicit Random(unsigned seed) : engine_(seed) {}
  unsigned operator()() { return static_cast<unsigned>(engine_()); }

 private:
  std::mt19937 engine_;
};

inline Bytes bytesOf(const std::string& text) { return std::as_bytes(std::span(text)); }
inline std::string textOf(Bytes bytes) { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

// Spread over all segments.
inline uint64_t spreadHash(Bytes key) {
  uint64_t hash = 0xCBF2'9CE4'8422'2325;
  for (const std::byte b : key) {
    hash = (hash ^ std::to_integer<uint64_t>(b)) * 0x0000'0100'0000'01B3;
  }
  return hash * 0x9E37'79B9'7F4A'7C15 ^ hash >> 29;
}
// All upper bits equal: no split can help.
inline uint64_t narrowHash(Bytes key) { return spreadHash(key) >> 32; }
// Many keys of one hash: the order is that of the key bytes.
inline uint64_t coarseHash(Bytes key) { return spreadHash(key) >> 61 << 61; }

// The content of a collection in the order of a walk.
using Content = std::map<std::pair<uint64_t, std::string>, std::string>;

inline Content walk(const Reader& reader, unsigned collection) {
  Content content;
  Cursor cursor(reader, collection);
  std::pair<uint64_t, std::string> last;
  for (Cursor::Step step = cursor.next(); step != Cursor::Step::end; step = cursor.next()) {
    EXPECT_EQ(step, Cursor::Step::entry) << cursor.damage().text();
    const std::pair<uint64_t, std::string> at(cursor.hash(), textOf(cursor.key()));
    EXPECT_TRUE(content.empty() || last < at) << "walk out of order";
    content[at] = textOf(cursor.record());
    last = at;
  }
  return content;
}

inline void expectContent(const Reader& reader, unsigned collection, const Content& content) {
  EXPECT_TRUE(walk(reader, collection) == content);
  for (const auto& [place, record] : content) {
    const Lookup found = reader.get(collection, place.first, bytesOf(place.second));
    ASSERT_EQ(found.state, Found::found) << place.second << ": " << found.damage.text();
    ASSERT_EQ(textOf(found.record), record);
  }
}

// Calls back after every store.
struct WatchedStores {
  const std::function<void()>* watch;
  void word(Word& at, uint64_t value, std::memory_order order) const {
    at.store(value, order);
    if (*watch) {
      (*watch)();
    }
  }
};

}  // namespace Memtab
