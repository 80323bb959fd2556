// MemtabMap: a shared-memory table of records, keyed by the record's first field.
//
// Records are described values (runtime/Zol/Value.h): the field list gives the codec and the schema whose hash guards
// the region's layout. The key is stored once, as the block's key. Iteration is in the order of the keys' hashes, the
// same as that of a HashCollection with the same keys: a backlog that drains in its own order walks the tables in
// theirs.
//
// Writing what stands already stores nothing, moves no sequence number and notifies nobody. Every other write or
// delete notifies the key. Reading damaged bytes raises CorruptionException; the record passed in is then untouched.
//
// One writer. A map that another process writes may read differently at every look; once it is followed, each key that
// changed is notified after the change. All calls on the scheduler's thread.
#pragma once

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "runtime/Memtab/CorruptionException.h"
#include "runtime/Memtab/KeyFollower.h"
#include "runtime/Memtab/MapBase.h"
#include "runtime/Zol/Value.h"

namespace Memtab {

template <Zol::Described Record>
using KeyOf = typename std::tuple_element_t<0, decltype(Record::fields())>::Type;

// A key that can tell its hash from its encoded bytes, without being decoded. It must take any bytes.
template <class Key>
concept HashesEncoded = requires(Bytes bytes) {
  { Key::hashOfEncoded(bytes) } -> std::same_as<std::uint32_t>;
};

template <class Key>
std::uint32_t ownHashOfKeyBytes(Bytes bytes) {
  if constexpr (HashesEncoded<Key>) {
    return Key::hashOfEncoded(bytes);
  } else {
    Zol::ByteReader in(bytes);
    Key key{};
    decodeValue(in, key);
    return Zol::hashOf(key);
  }
}

// The 64-bit hash of a key, from its encoded bytes; upper half: the key's own hash, which rules the order of visits.
template <class Key>
std::uint64_t hashOfKeyBytes(Bytes bytes) {
  std::uint64_t tail = 0;
  for (std::size_t at = 0; at < bytes.size(); at += sizeof tail) {
    std::uint64_t word = 0;
    if (bytes.size() - at >= sizeof word) {
      std::memcpy(&word, bytes.data() + at, sizeof word);
    } else {
      std::memcpy(&word, bytes.data() + at, bytes.size() - at);
    }
    tail = (tail ^ word) * 0x9E3779B97F4A7C15ULL;
    tail ^= tail >> 29;
  }
  return (std::uint64_t(ownHashOfKeyBytes<Key>(bytes)) << 32) | (tail >> 32);
}

template <Zol::Described Record>
std::uint64_t fingerprintOf() {
  Zol::HashMix low;
  Zol::HashMix high;
  for (const char c : Zol::schemaOf<Record>()) {
    low.add(static_cast<std::uint8_t>(c));
    high.add(static_cast<std::uint8_t>(c) + 0x100U);
  }
  return (std::uint64_t(high.result()) << 32) | low.result();
}

template <Zol::Described Record_, class Base = MapBase>
class MemtabMap : public Base {
 public:
  using Record = Record_;
  using Key = KeyOf<Record>;
  class Hint;

  // A map of its own region; args go to Base.
  template <class... Args>
  explicit MemtabMap(const std::string& name, Args&&... args)
      : Base(name, ownStore(), 0U, std::forward<Args>(args)...) {}
  // One collection of a region that other maps share, or a placeholder when store is null.
  template <class... Args>
  MemtabMap(const std::string& name, Zol::Ptr<SharedStore> store, unsigned collection, Args&&... args)
      : Base(name, std::move(store), collection, std::forward<Args>(args)...) {}

  static std::uint64_t hashOfKey(Bytes bytes) { return hashOfKeyBytes<Key>(bytes); }
  static std::uint64_t fingerprint() { return fingerprintOf<Record>(); }
  // Of a store of this map alone.
  static StoreLayout layout() {
    static constexpr HashFn hashes[] = {&hashOfKey};
    return {fingerprint(), hashes};
  }

  // Reads the record; false, and an untouched record, when there is none.
  bool read(const Key& key, Record& record) const {
    const std::optional<Bytes> bytes = lookup(key);
    if (!bytes) {
      return false;
    }
    record = decoded(key, *bytes);
    return true;
  }
  // The record, or the empty record when there is none.
  Record value(const Key& key) const {
    Record record;
    read(key, record);
    return record;
  }
  bool has(const Key& key) const { return lookup(key).has_value(); }

  // Whether it is unknown now if there is a record: damage to the record or to more, a writer that is too fast, or
  // one that refills a table that was complete.
  bool hides(const Key& key) const {
    if (this->isPlaceholder()) {
      return false;
    }
    const Bytes bytes = encodedKey(key);
    const Lookup found = this->store().get(this->collection(), hashOfKey(bytes), bytes);
    return found.state == Found::recovering ||
           (found.state == Found::absent && follower_ != nullptr && follower_->withholds(key)) ||
           found.state == Found::damaged;
  }

  // Writes the record under its key; false when it stands already, exactly so. Raises RangeException, with nothing
  // written, for a record that this map refuses, and NoSpace when the region cannot grow.
  bool entryIs(const Record& record) {
    this->requireWritable("write");
    refuseIllegal(record);
    const Key key = keyOf(record);
    const PutResult result = put(key, record);
    if (result == PutResult::unchanged) {
      return false;
    }
    notify(key);
    return true;
  }
  // Deletes the record; false when there was none.
  bool entryDel(const Key& key) {
    this->requireWritable("remove");
    const Key kept = key;
    const Bytes bytes = encodedKey(kept);
    if (!this->store().store().del(this->collection(), hashOfKey(bytes), bytes)) {
      return false;
    }
    notify(kept);
    return true;
  }

  // The first entry, and the one behind it; false at the end. The hint is the place; it survives all changes.
  bool first(Hint& hint) const {
    hint = Hint(*this);
    return next(hint);
  }
  bool next(Hint& hint) const { return hint.advance(*this); }
  // The first entry whose key has this hash or a greater one.
  bool firstFrom(std::uint32_t hash, Hint& hint) const {
    hint = Hint(*this, hash);
    return next(hint);
  }

  // The record of a key, both as they are encoded. Raises CorruptionException.
  Record recordOf(Bytes key, Bytes record) const {
    Zol::ByteReader in(key);
    Key decodedKey{};
    decodeValue(in, decodedKey);
    if (!in.ok() || in.remaining() != 0) {
      this->raiseCorruption("a key that is none of this table");
    }
    return decoded(decodedKey, record);
  }

  Zol::Channel<Key>& entryChannel() const { return channel_; }

  void follow() override {
    if (!this->isPlaceholder() && !this->isWritable() && follower_ == nullptr) {
      follower_ = makeKeyFollower<Key>(this->store().reader(), this->collection(),
                                       [this](const Damage& damage) { this->corruptionDetected(damage.text()); });
    }
  }

  // The bytes under key, valid until the next look-up; nothing when absent. The one way to a record, so that a test
  // can damage it.
  virtual std::optional<Bytes> lookup(const Key& key) const {
    if (this->isPlaceholder()) {
      return std::nullopt;
    }
    const Bytes bytes = encodedKey(key);
    const Lookup found = this->store().get(this->collection(), hashOfKey(bytes), bytes);
    if (follower_ != nullptr) {
      follower_->handleRead(key, found.state);
    }
    if (found.state == Found::absent) {
      return std::nullopt;
    }
    if (found.state != Found::found) {
      this->raiseCorruption(found.state == Found::damaged ? found.damage.text() : "changing too fast to read");
    }
    return found.record;
  }

 protected:
  // A publisher's mistakes end here, with a RangeException that says what is wrong.
  virtual void refuseIllegal(const Record&) const {}

  void handleChange(Bytes bytes) override {
    Zol::ByteReader in(bytes);
    Key key{};
    decodeValue(in, key);
    channel_.notify(key);
  }
  bool hasNews() const override { return follower_ != nullptr && follower_->isBehind(); }
  bool poll(std::size_t maxKeys) override { return follower_ != nullptr && follower_->poll(maxKeys, channel_); }
  std::uint64_t sequence() const override { return follower_ != nullptr ? follower_->sequence() : Base::sequence(); }
  void handleReader() override {
    if (follower_ != nullptr) {
      follower_->rebind(this->store().reader());
    }
  }

 private:
  // Inside a change the store notifies at its end.
  void notify(const Key& key) {
    if (!this->store().isChanging()) {
      channel_.notify(key);
    }
  }
  static constexpr auto keyField() { return std::get<0>(Record::fields()).member; }
  static const Key& keyOf(const Record& record) { return record.*keyField(); }

  static Zol::Ptr<SharedStore> ownStore() { return Zol::make<SharedStore>(layout()); }

  // Encoders keep their buffers, so that neither look-ups nor writes allocate.
  static Bytes encodedKey(const Key& key) {
    thread_local Zol::ByteWriter out;
    out.clear();
    encodeValue(out, key);
    return out.written();
  }
  template <class F>
  static void forEachBehindKey(F&& f) {
    std::apply([&f](const auto&, const auto&... field) { (f(field.member), ...); }, Record::fields());
  }
  PutResult put(const Key& key, const Record& record) {
    thread_local Zol::ByteWriter out;
    out.clear();
    forEachBehindKey([&record](auto member) { encodeValue(out, record.*member); });
    const Bytes bytes = encodedKey(key);
    return this->store().store().put(this->collection(), hashOfKey(bytes), bytes, out.written());
  }
  Record decoded(const Key& key, Bytes bytes) const {
    Zol::ByteReader in(bytes);
    Record record;
    record.*keyField() = key;
    forEachBehindKey([&in, &record](auto member) { decodeValue(in, record.*member); });
    if (!in.ok() || in.remaining() != 0) {
      this->raiseCorruption(Zol::stringOf(key) + ": the bytes are no record of this table");
    }
    return record;
  }

  mutable Zol::Channel<Key> channel_;
  std::unique_ptr<KeyFollower<Key>> follower_;  // null unless the map follows another process
};

template <Zol::Described Record, class Base>
class MemtabMap<Record, Base>::Hint {
 public:
  Hint() = default;
  explicit Hint(const MemtabMap& map, std::uint32_t firstHash = 0) {
    if (!map.isPlaceholder()) {
      cursor_.emplace(map.store().reader(), map.collection());
      cursor_->seek(std::uint64_t{firstHash} << 32, {});
    }
  }

  const Key& key() const { return key_; }
  // The entry where the hint stands, as it was when the hint came there. Raises CorruptionException.
  Record record(const MemtabMap& map) const { return map.decoded(key_, cursor_->record()); }

 private:
  friend class MemtabMap;

  // Raises CorruptionException for an entry that cannot be read; advancing again goes on behind it.
  bool advance(const MemtabMap& map) {
    if (!cursor_) {
      return false;
    }
    const Cursor::Step step = cursor_->next();
    if (step == Cursor::Step::end) {
      return false;
    }
    if (step != Cursor::Step::entry) {
      if (map.follower_ != nullptr) {
        map.follower_->handleUnread();
      }
      map.raiseCorruption(step == Cursor::Step::damaged ? cursor_->damage().text() : "changing too fast to read");
    }
    Zol::ByteReader in(cursor_->key());
    decodeValue(in, key_);
    if (!in.ok() || in.remaining() != 0) {
      map.raiseCorruption("a key that is none of this table");
    }
    return true;
  }

  std::optional<Cursor> cursor_;
  Key key_{};
};

}  // namespace Memtab
