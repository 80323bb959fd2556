// SharedStore: one region with its collections, shared by the maps that read and write them.
//
//   SharedStore   in the memory of this process, which writes it
//   FileStore     in a file that this process writes and others read
//   MirrorStore   in a file that another process writes
//
// Whatever is written inside change() becomes visible to other processes as one change, and the maps hear of each key
// at its end, once. In a mirror the maps hear of what the writer did when they are polled.
#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "runtime/Memtab/Doorbell.h"
#include "runtime/Memtab/Store.h"
#include "runtime/Memtab/TableFile.h"
#include "runtime/Zol/Ptr.h"

namespace Memtab {

// A map's ear at its store.
class StoreListener {
 public:
  // A change of this process has been published.
  virtual void handleChange(Bytes key) = 0;
  // Tells the map's watchers what other processes changed, up to maxKeys keys. Whether there is more.
  virtual bool poll(std::size_t maxKeys) = 0;
  virtual bool hasNews() const = 0;
  // The store reads another file now.
  virtual void handleReader() = 0;
  // The file as a whole cannot be read any more, or some of it could not be taken over.
  virtual void handleTrouble(const std::string& what) = 0;

 protected:
  ~StoreListener() = default;
};

// What a store of certain records is made with.
struct StoreLayout {
  std::uint64_t fingerprint;       // tells record layouts apart
  std::span<const HashFn> hashes;  // one a collection
  std::uint32_t referred = 0;      // one bit for each collection that records of others refer to
};

class SharedStore : public Zol::PtrInterface {
 public:
  // A region in private memory.
  explicit SharedStore(const StoreLayout& layout)
      : SharedStore(std::make_unique<Store>(Region::anonymous(), layout.fingerprint, layout.hashes,
                                            StoreOptions{.referred = layout.referred})) {}

  bool isWritable() const { return store_ != nullptr; }
  // Requires: writable.
  Store& store() const {
    ZOL_ASSERT(isWritable());
    return *store_;
  }
  const Reader& reader() const { return *reader_; }
  // Where the table is, for people: the path of its file.
  virtual std::string place() const { return "memory of this process"; }

  // A look-up, which in a change under way finds what that has written.
  Lookup get(unsigned collection, std::uint64_t hash, Bytes key) const {
    if (store_ != nullptr) {
      return store_->get(collection, hash, key);
    }
    Lookup found = reader_->get(collection, hash, key);
    if (found.state == Found::absent && isLossy_) {
      found.state = Found::damaged;
      found.damage = {entriesLost, collection, 0, 0, 0};
    }
    return found;
  }
  std::size_t entries(unsigned collection) const {
    return store_ != nullptr ? store_->entries(collection) : reader_->entries(collection);
  }

  // f writes; see above. Changes do not nest: an inner one is part of the outer. An exception out of f drops all that
  // it wrote. Throws NoSpace, then too nothing was written. Requires: writable.
  template <class F>
  void change(F&& f);
  bool isChanging() const { return isChanging_; }

  // The doorbell to ring at each publication, the first time now: a take-over may have changed the table. Null, the
  // default: none. Requires: writable.
  void ringerIs(std::shared_ptr<DoorbellRinger> ringer);

  void listenerIs(unsigned collection, StoreListener* listener) { listeners_.push_back({collection, listener}); }
  void listenerDel(StoreListener* listener) {
    std::erase_if(listeners_, [listener](const auto& each) { return each.second == listener; });
  }

 protected:
  explicit SharedStore(std::unique_ptr<Store> store) : store_(std::move(store)), reader_(&store_->reader()) {}
  // Read only: reader outlives the store.
  explicit SharedStore(const Reader* reader) : reader_(reader) {}

  const std::vector<std::pair<unsigned, StoreListener*>>& listeners() const { return listeners_; }
  // Whether records are gone that nobody deleted: then none is absent.
  void lossyIs(bool isLossy) { isLossy_ = isLossy; }
  // Another store with the same records; the old one.
  std::unique_ptr<Store> storeIs(std::unique_ptr<Store> store) {
    reader_ = &store->reader();
    store.swap(store_);
    ringerIs(ringer_);
    return store;
  }

 private:
  std::unique_ptr<Store> store_;
  const Reader* reader_;
  bool isLossy_ = false;
  // A change under way; forgotten unless end() is called.
  class Changing {
   public:
    explicit Changing(SharedStore& store);
    Changing(const Changing&) = delete;
    Changing& operator=(const Changing&) = delete;
    ~Changing();
    void end();

   private:
    SharedStore& store_;
  };
  // The keys of a change.
  struct Changed {
    struct Item {
      unsigned collection;
      std::size_t at, size;
    };
    std::vector<Item> items;
    std::vector<std::byte> bytes;

    void clear() {
      items.clear();
      bytes.clear();
    }
    void add(unsigned collection, Bytes key) {
      items.push_back({collection, bytes.size(), key.size()});
      bytes.insert(bytes.end(), key.begin(), key.end());
    }
  };
  void tell(const Changed& changed) const;

  bool isChanging_ = false;
  Changed changed_;  // kept for its memory
  std::shared_ptr<DoorbellRinger> ringer_;
  std::vector<std::pair<unsigned, StoreListener*>> listeners_;
};

template <class F>
void SharedStore::change(F&& f) {
  if (isChanging_) {
    f();
    return;
  }
  Changing changing(*this);
  f();
  changing.end();
}

// In a file below a state directory; opens what stands there, or makes it. The lock lasts as long as the store.
class FileStore final : public SharedStore {
 public:
  // name: relative to stateDirectory. Throws FileRefused, TableBusy, NoSpace. A file that is no such table is set
  // aside.
  FileStore(const std::string& stateDirectory, const std::string& name, const StoreLayout& layout);
  ~FileStore() override { store().close(); }

  std::string place() const override { return file_->path(); }
  // Why the file that stood there was set aside; empty: none was.
  const std::string& asideReason() const { return file_->asideReason(); }

  // Tells the maps what taking over the file took out.
  void tellTakenOut() const;

  // Makes the file again, with the same records and the sequence going on, when its path names another one or none;
  // what stands in its place is set aside. Not inside change(). Throws CorruptionException when bytes of the table are
  // lost, which the path's next store sets aside, and what the constructor throws; then nothing has changed.
  void mend();

 private:
  FileStore(std::unique_ptr<WriterFile> file, const std::string& stateDirectory, const std::string& name,
            const StoreLayout& layout);
  std::unique_ptr<Store> copyIn(WriterFile& file);

  const std::string stateDirectory_;
  const std::string name_;
  const std::uint64_t fingerprint_;
  const std::uint32_t referred_;
  const std::vector<HashFn> hashes_;
  std::unique_ptr<WriterFile> file_;
  std::unique_ptr<Store> previous_;  // of the file before; walks under way may still read it
};

// Of a table that another process writes. Without a file it is empty; a file that comes is read from then on. A file
// that takes another's place is read once its writer calls it complete: until then the old one stays in force.
class MirrorStore final : public SharedStore {
 public:
  // Throws FileRefused, TableForeign, NoSpace; an absent file is none of these.
  MirrorStore(const std::string& stateDirectory, const std::string& name, const StoreLayout& layout);

  std::string place() const override { return stateDirectory_ + "/" + name_; }
  bool isBound() const { return current_ != nullptr; }
  // Whether a writer has the file that is read.
  bool isOwned() const { return current_ != nullptr && current_->isOwned(); }
  // Why the file at the path is not read, or only in part, or why what is read is not there any more. Empty: nothing
  // is the matter, or there is none and never was. As of the last rescan().
  const std::string& trouble() const { return trouble_; }
  // Whether what is read is what the path names, as far as is known.
  bool isCurrent() const { return current_ != nullptr && next_ == nullptr && trouble_.empty(); }

  // Looks whether the path names another file, and whether all of it can be read; the maps hear of trouble that is
  // new. Called when the directory has changed.
  void rescan();

  bool hasNews() const;
  // Up to about maxKeys keys; whether there is more to come.
  bool poll(std::size_t maxKeys);

 private:
  // Epoch, sequence and readiness: whatever a writer does to a table changes one of them.
  using Version = std::tuple<std::uint64_t, std::uint64_t, bool>;

  std::unique_ptr<ReaderFile> open();
  void bind(std::unique_ptr<ReaderFile> file);
  Version versionOf(const ReaderFile& file) const;
  std::string hiddenPart(const ReaderFile& file) const;
  bool isNextComplete() const;
  // A writer that mends what could not be read makes changes, but no file.
  bool isTroubleOld() const;

  const std::string stateDirectory_;
  const std::string name_;
  const std::uint64_t fingerprint_;
  const std::vector<HashFn> hashes_;
  Store blank_;  // what is read without a file
  Reader reader_;
  std::unique_ptr<ReaderFile> current_;
  std::unique_ptr<ReaderFile> next_;  // not complete yet, or not sound: isNextSound_ at nextJudgedAt_
  mutable std::optional<Version> nextJudgedAt_;
  mutable bool isNextSound_ = false;
  // Walks under way may still read the file that was bound last.
  std::unique_ptr<ReaderFile> previous_;
  std::string trouble_;
  Version troubleAt_;
  bool isDamaged_ = false;  // the trouble is damage, and not a refused, absent or incomplete file
};

// Removes the file of a table that this process wrote, or an earlier run of it; absent: nothing happens. Who reads it
// keeps what it has. Throws FileRefused.
void removeTable(const std::string& stateDirectory, const std::string& name);

// Where a table's store comes from; who asks owns the answer.
using StoreSource = std::function<Zol::Ptr<SharedStore>(const StoreLayout& layout)>;

}  // namespace Memtab
