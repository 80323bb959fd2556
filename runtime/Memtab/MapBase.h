// MapBase: what every shared-memory map is, whatever its records: an entity with a sequence number, a ready flag, and
// an answer to damage.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "runtime/Memtab/SharedStore.h"
#include "runtime/Zol/Channel.h"
#include "runtime/Zol/Entity.h"

namespace Memtab {

// What is known of a collection beside its contents.
class CollectionControl {
 public:
  explicit CollectionControl(std::uint64_t sequence) : sequence_(sequence) {}
  // Grows with every write, never falls; 0 for a placeholder. Of a map that follows another process: the number up to
  // which its watchers have been told.
  std::uint64_t sequence() const { return sequence_; }

 private:
  std::uint64_t sequence_;
};

class MapBase : public Zol::Entity, protected StoreListener {
 public:
  // store null: a read-only placeholder, in which look-ups miss. Every change to a placeholder, and to a map whose
  // store another process writes, raises InternalException.
  MapBase(std::string name, Zol::Ptr<SharedStore> store, unsigned collection);
  MapBase(const MapBase&) = delete;
  MapBase& operator=(const MapBase&) = delete;
  ~MapBase() override;

  CollectionControl collectionControl() const { return CollectionControl(isPlaceholder() ? 0 : sequence()); }
  bool isPlaceholder() const { return !store_; }
  // Null for a placeholder. Other maps may share it.
  const Zol::Ptr<SharedStore>& sharedStore() const { return store_; }
  std::size_t size() const { return isPlaceholder() ? 0 : store_->entries(collection_); }

  // Bytes in use in the region, which other maps may share.
  std::size_t bytesUsed() const { return isPlaceholder() || !store_->isWritable() ? 0 : store_->store().bytesUsed(); }

  // Bytes of the region that no record uses. After NoSpace a write may be tried again when there are more of them, and
  // from time to time, since other files may have released space.
  std::size_t bytesFree() const { return isWritable() ? store_->store().bytesFree() : 0; }

  // All that f writes, to this map and to others of its store, is one change to readers in other processes; watchers
  // are notified at its end, once a key. Throws NoSpace, and what f throws; then nothing is written.
  template <class F>
  void change(F&& f) {
    requireWritable("write");
    store_->change(std::forward<F>(f));
  }

  // From now on the map's watchers are told what other processes change: its contents now are taken as known. O(size).
  virtual void follow() = 0;

  // Whether the contents are complete, by their writer's word.
  bool collectionReady() const { return !isPlaceholder() && store_->reader().ready(); }
  void collectionReadyIs(bool ready);

  // Damage was found in this map: traced, counted, and written to a corruption file under corruptionDirectory(). The
  // map stays in use; other maps are unaffected. Open to readers, who are the ones that find damage.
  void corruptionDetected(const std::string& message) const;
  std::uint64_t corruptions() const { return corruptions_; }

  // The remaining operations of the table library on a placeholder; on a mounted map they find nothing to object to.
  void cleanup();
  void validateFiles() const;
  void validate() const;

  // Who is told of damage, beside the trace: table and what was found. Null: nobody.
  using DamageWitness = void (*)(const std::string& table, const std::string& message);
  static void damageWitnessIs(DamageWitness witness);

  // Notified with NoKey when the ready flag changes.
  Zol::Channel<Zol::NoKey>& readyChannel() const { return readyChannel_; }

 protected:
  void handleTrouble(const std::string& what) override { corruptionDetected(what); }
  void requireWritable(const char* operation) const;
  [[noreturn]] void raiseCorruption(const std::string& what) const;
  virtual std::uint64_t sequence() const { return store_->reader().sequence(); }
  SharedStore& store() const { return *store_; }
  bool isWritable() const { return !isPlaceholder() && store_->isWritable(); }
  unsigned collection() const { return collection_; }

 private:
  Zol::Ptr<SharedStore> store_;
  unsigned collection_;
  mutable std::uint64_t corruptions_ = 0;
  mutable Zol::Channel<Zol::NoKey> readyChannel_;
};

// Where corruption files go; the system's temporary directory unless set. One process keeps at most
// corruptionFilesMax, so that a damaged table cannot fill the disk.
const std::string& corruptionDirectory();
void corruptionDirectoryIs(std::string directory);
constexpr unsigned corruptionFilesMax = 16;

}  // namespace Memtab
