#include "runtime/Memtab/SharedStore.h"

#include <unistd.h>

#include <cerrno>

#include "runtime/Memtab/DirectoryOwner.h"

namespace Memtab {
namespace {

constexpr std::size_t blankBytes = std::size_t{64} << 10;
constexpr unsigned blankRingSlotsLog2 = 3;

std::unique_ptr<Store> storeIn(Region region, const StoreLayout& layout) {
  return std::make_unique<Store>(std::move(region), layout.fingerprint, layout.hashes,
                                 StoreOptions{.referred = layout.referred, .owner = Owner::ofThisProcess()});
}

// A table in the file; bytes that turn out to be none are set aside for a new one.
std::unique_ptr<Store> storeIn(WriterFile& file, const StoreLayout& layout) {
  try {
    return storeIn(file.region(), layout);
  } catch (const IncompatibleTable& misfit) {
    file.setAside(misfit.what());
  }
  return storeIn(file.region(), layout);
}

}  // namespace

SharedStore::Changing::Changing(SharedStore& store) : store_(store) {
  store_.store().groupBegin();
  store_.isChanging_ = true;
}

SharedStore::Changing::~Changing() {
  if (std::exchange(store_.isChanging_, false)) {
    store_.store().groupDrop();
  }
}

void SharedStore::Changing::end() {
  store_.isChanging_ = false;
  Changed changed = std::move(store_.changed_);  // a watcher may begin the next change
  changed.clear();
  store_.store().groupEnd([&changed](unsigned collection, Bytes key, ChangeKind) { changed.add(collection, key); });
  store_.published();
  store_.tell(changed);
  store_.changed_ = std::move(changed);
}

void SharedStore::tell(const Changed& changed) const {
  for (const Changed::Item& item : changed.items) {
    for (std::size_t i = 0; i < listeners_.size(); ++i) {
      if (listeners_[i].first == item.collection) {
        listeners_[i].second->handleChange(Bytes(changed.bytes).subspan(item.at, item.size));
      }
    }
  }
}

FileStore::FileStore(const std::string& stateDirectory, const std::string& name, const StoreLayout& layout)
    : FileStore(std::make_unique<WriterFile>(stateDirectory, name, layout.fingerprint, layout.hashes.size()), layout) {}

FileStore::FileStore(std::unique_ptr<WriterFile> file, const StoreLayout& layout)
    : SharedStore(storeIn(*file, layout)), file_(std::move(file)) {
  if (file_->isNew()) {
    file_->publish();
  }
}

MirrorStore::MirrorStore(const std::string& stateDirectory, const std::string& name, const StoreLayout& layout)
    : SharedStore(&reader_),
      stateDirectory_(stateDirectory),
      name_(name),
      fingerprint_(layout.fingerprint),
      hashes_(layout.hashes.begin(), layout.hashes.end()),
      blank_(Region::anonymous(blankBytes), layout.fingerprint, layout.hashes,
             StoreOptions{.ringSlotsLog2 = blankRingSlotsLog2}),
      reader_(blank_.view(), layout.hashes) {
  if (std::unique_ptr<ReaderFile> file = open()) {
    bind(std::move(file));
  }
}

// Null when there is none, or none that can be read.
std::unique_ptr<ReaderFile> MirrorStore::open() {
  trouble_.clear();
  try {
    return std::make_unique<ReaderFile>(stateDirectory_, name_, fingerprint_, hashes_.size(),
                                        directoryOwner(stateDirectory_));
  } catch (const FileAbsent&) {
    return nullptr;
  } catch (const Zol::Exception& refused) {
    trouble_ = refused.what();
    return nullptr;
  }
}

void MirrorStore::bind(std::unique_ptr<ReaderFile> file) {
  previous_ = std::exchange(current_, std::move(file));
  next_ = nullptr;
  reader_ = Reader(current_->view(), hashes_);
  for (const auto& [collection, listener] : listeners()) {
    listener->handleReader();
  }
}

void MirrorStore::rescan() {
  if (next_ != nullptr ? !next_->isReplaced() : current_ != nullptr && !current_->isReplaced()) {
    return;
  }
  next_ = open();
  if (next_ != nullptr && current_ == nullptr) {
    bind(std::move(next_));
  }
}

bool MirrorStore::hasNews() const {
  return (next_ != nullptr && Reader(next_->view(), hashes_).ready()) ||
         std::any_of(listeners().begin(), listeners().end(), [](const auto& each) { return each.second->hasNews(); });
}

bool MirrorStore::poll(std::size_t maxKeys) {
  if (next_ != nullptr && Reader(next_->view(), hashes_).ready()) {
    bind(std::move(next_));
  }
  bool isMore = false;
  for (std::size_t i = 0; i < listeners().size(); ++i) {
    isMore = listeners()[i].second->poll(maxKeys) || isMore;
  }
  return isMore;
}

void removeTable(const std::string& stateDirectory, const std::string& name) {
  try {
    const PlaceInDirectory place = placeOf(stateDirectory, name, false, {});
    if (unlinkat(place.directory.get(), place.base.c_str(), 0) != 0 && errno != ENOENT) {
      raiseError("cannot remove", stateDirectory + "/" + name, errno);
    }
  } catch (const FileAbsent&) {
    return;
  }
}

}  // namespace Memtab
