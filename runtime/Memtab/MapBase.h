// MapBase: what every shared-memory map is, whatever its records: an entity with a sequence number, a ready flag, and
// an answer to damage.
#pragma once

#include <cstdint>
#include <string>

#include "runtime/Memtab/SharedStore.h"
#include "runtime/Zol/Channel.h"
#include "runtime/Zol/Entity.h"

namespace Memtab {

// What is known of a collection beside its contents.
class CollectionControl {
 public:
  explicit CollectionControl(const SharedStore* store) : store_(store) {}
  // Grows with every write, never falls; 0 for a placeholder.
  std::uint64_t sequence() const { return store_ == nullptr ? 0 : store_->store().sequence(); }

 private:
  const SharedStore* store_;
};

class MapBase : public Zol::Entity {
 public:
  // store null: a read-only placeholder, in which look-ups miss and every change raises InternalException.
  MapBase(std::string name, Zol::Ptr<SharedStore> store, unsigned collection);

  CollectionControl collectionControl() const { return CollectionControl(store_.get()); }
  bool isPlaceholder() const { return !store_; }
  std::size_t size() const { return isPlaceholder() ? 0 : store_->store().entries(collection_); }

  // Bytes in use in the region, which other maps may share.
  std::size_t bytesUsed() const { return isPlaceholder() ? 0 : store_->store().bytesUsed(); }

  // Whether the contents are complete, by their writer's word.
  bool collectionReady() const { return !isPlaceholder() && store_->store().ready(); }
  void collectionReadyIs(bool ready);

  // Damage was found in this map: traced, counted, and written to a corruption file under corruptionDirectory(). The
  // map stays in use; other maps are unaffected. Open to readers, who are the ones that find damage.
  void corruptionDetected(const std::string& message) const;
  std::uint64_t corruptions() const { return corruptions_; }

  // The remaining operations of the table library on a placeholder; on a mounted map they find nothing to object to.
  void cleanup();
  void validateFiles() const;
  void validate() const;

  // Notified with NoKey when the ready flag changes.
  Zol::Channel<Zol::NoKey>& readyChannel() const { return readyChannel_; }

 protected:
  void requireWritable(const char* operation) const;
  [[noreturn]] void raiseCorruption(const std::string& what) const;
  SharedStore& store() const { return *store_; }
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
