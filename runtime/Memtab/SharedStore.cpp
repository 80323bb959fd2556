#include "runtime/Memtab/SharedStore.h"

#include <unistd.h>

#include <cerrno>

#include "runtime/Memtab/DirectoryOwner.h"

namespace Memtab {
namespace {

constexpr std::size_t blankBytes = std::size_t{64} << 10;
constexpr unsigned blankRingSlotsLog2 = 3;

std::unique_ptr<Store> storeIn(Region region, const StoreLayout& layout, std::uint64_t sequence = 0) {
  return std::make_unique<Store>(
      std::move(region), layout.fingerprint, layout.hashes,
      StoreOptions{.referred = layout.referred, .owner = Owner::ofThisProcess(), .sequence = sequence});
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

void SharedStore::ringerIs(std::shared_ptr<DoorbellRinger> ringer) {
  ringer_ = std::move(ringer);
  if (ringer_ == nullptr) {
    store().publishedCallbackIs(nullptr);
    return;
  }
  store().publishedCallbackIs([to = ringer_.get()] { to->ring(); });
  ringer_->ring();
}

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
    : FileStore(std::make_unique<WriterFile>(stateDirectory, name, layout.fingerprint, layout.hashes.size()),
                stateDirectory, name, layout) {}

FileStore::FileStore(std::unique_ptr<WriterFile> file, const std::string& stateDirectory, const std::string& name,
                     const StoreLayout& layout)
    : SharedStore(storeIn(*file, layout)),
      stateDirectory_(stateDirectory),
      name_(name),
      fingerprint_(layout.fingerprint),
      referred_(layout.referred),
      hashes_(layout.hashes.begin(), layout.hashes.end()),
      file_(std::move(file)) {
  if (file_->isNew()) {
    file_->publish();
  }
}

void FileStore::tellTakenOut() const {
  for (const Damage& damage : store().takeOver().damages) {
    for (const auto& [collection, listener] : listeners()) {
      if (collection == damage.collection) {
        listener->handleTrouble("taken out: " + damage.text());
      }
    }
  }
}

void FileStore::mend() {
  if (store().isDamaged() || file_->bytes() < store().bytesMapped()) {
    throw CorruptionException(file_->path() + ": " + bytesLost);
  }
  try {
    requireCompatible(store().view(), fingerprint_, hashes_.size());
  } catch (const IncompatibleTable& spoilt) {
    throw CorruptionException(file_->path() + ": " + spoilt.what());
  }
  if (!file_->isReplaced()) {
    return;
  }
  auto file = std::make_unique<WriterFile>(stateDirectory_, name_, fingerprint_, hashes_.size());
  if (!file->isNew()) {
    file->setAside("it stood in the place of a table in use");
  }
  std::unique_ptr<Store> copy = copyIn(*file);
  file->publish();
  store().close();
  previous_ = storeIs(std::move(copy));
  file_ = std::move(file);
}

std::unique_ptr<Store> FileStore::copyIn(WriterFile& file) {
  std::unique_ptr<Store> copy = storeIn(file.region(), {fingerprint_, hashes_, referred_}, store().sequence());
  for (unsigned collection = 0; collection < hashes_.size(); ++collection) {
    Cursor cursor = store().cursor(collection);
    for (Cursor::Step step = cursor.next(); step != Cursor::Step::end; step = cursor.next()) {
      if (step != Cursor::Step::entry) {
        throw CorruptionException(file.path() + ": " + cursor.damage().text());
      }
      copy->put(collection, cursor.hash(), cursor.key(), cursor.record());
    }
  }
  copy->readyIs(store().ready());
  return copy;
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
  isDamaged_ = false;
  try {
    auto file = std::make_unique<ReaderFile>(stateDirectory_, name_, fingerprint_, hashes_.size(),
                                             directoryOwner(stateDirectory_));
    trouble_ = hiddenPart(*file);
    isDamaged_ = !trouble_.empty();
    return file;
  } catch (const FileAbsent&) {
    trouble_ = current_ == nullptr ? "" : "its file is gone";
    return nullptr;
  } catch (const IncompatibleTable& misfit) {
    trouble_ = misfit.what();
    isDamaged_ = true;
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
  lossyIs(trouble_ == entriesLost);
  for (const auto& [collection, listener] : listeners()) {
    listener->handleReader();
  }
}

MirrorStore::Version MirrorStore::versionOf(const ReaderFile& file) const {
  const Reader reader(file.view(), hashes_);
  return {reader.epoch(), reader.sequence(), reader.ready()};
}

std::string MirrorStore::hiddenPart(const ReaderFile& file) const {
  const Reader reader(file.view(), hashes_);
  for (unsigned collection = 0; collection < hashes_.size(); ++collection) {
    if (const char* const what = reader.hiddenPart(collection)) {
      return "collection " + std::to_string(collection) + ": " + what;
    }
  }
  for (unsigned collection = 0; collection < hashes_.size(); ++collection) {
    if (reader.hasLostEntries(collection)) {
      return entriesLost;
    }
  }
  return "";
}

void MirrorStore::rescan() {
  troubleAt_ = current_ == nullptr ? Version() : versionOf(*current_);
  if (next_ != nullptr && !next_->isReplaced()) {
    return;
  }
  const std::string before = trouble_;
  std::unique_ptr<ReaderFile> file = open();
  next_ = nullptr;
  if (file != nullptr && current_ == nullptr) {
    bind(std::move(file));
  } else if (file != nullptr && !file->isSameAs(*current_)) {
    next_ = std::move(file);
    nextJudgedAt_.reset();
  } else if (file != nullptr) {
    lossyIs(trouble_ == entriesLost);
  }
  if (trouble_ != before && isDamaged_) {
    for (const auto& [collection, listener] : listeners()) {
      listener->handleTrouble(trouble_);
    }
  }
  // No damage, and yet what is read is not what the path names.
  if (trouble_.empty() && !before.empty() && next_ != nullptr && !isNextComplete()) {
    trouble_ = "its new file is not complete";
  }
}

// A file parts of which cannot be read does not take the place of one that can be, or could.
bool MirrorStore::isNextComplete() const {
  if (next_ == nullptr || !Reader(next_->view(), hashes_).ready()) {
    return false;
  }
  if (const Version now = versionOf(*next_); !nextJudgedAt_ || *nextJudgedAt_ != now) {
    nextJudgedAt_ = now;
    isNextSound_ = hiddenPart(*next_).empty();
  }
  return isNextSound_;
}

bool MirrorStore::isTroubleOld() const {
  return !trouble_.empty() && current_ != nullptr && versionOf(*current_) != troubleAt_;
}

bool MirrorStore::hasNews() const {
  return isTroubleOld() || isNextComplete() ||
         std::any_of(listeners().begin(), listeners().end(), [](const auto& each) { return each.second->hasNews(); });
}

bool MirrorStore::poll(std::size_t maxKeys) {
  if (isTroubleOld()) {
    rescan();
  }
  if (isNextComplete()) {
    trouble_.clear();
    isDamaged_ = false;
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
