#include "runtime/Memtab/MapBase.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "runtime/Fastlog/TraceHelper.h"
#include "runtime/Memtab/CorruptionException.h"
#include "runtime/Zol/Exception.h"

namespace Memtab {
namespace {

FASTLOG_DEFAULT_HANDLE("Memtab");

std::string& directory() {
  static std::string path = [] {
    std::error_code noSuchDirectory;
    const std::string temporary = std::filesystem::temp_directory_path(noSuchDirectory).string();
    return noSuchDirectory ? "/tmp" : temporary;
  }();
  return path;
}

MapBase::DamageWitness witness = nullptr;

// What was found where, for whoever looks into it later. A file that cannot be written is no reason to stop.
void writeCorruptionFile(const std::string& table, const std::string& message, std::uint64_t sequence) {
  static unsigned filesWritten = 0;
  if (filesWritten >= corruptionFilesMax) {
    return;
  }
  std::string stem = table;
  std::replace(stem.begin(), stem.end(), '/', '-');
  const std::string path = directory() + "/memtab-corruption-" + stem + "-" + std::to_string(getpid()) + "-" +
                           std::to_string(filesWritten++) + ".txt";
  const std::string text = "table: " + table + "\nsequence: " + std::to_string(sequence) + "\nfound: " + message + "\n";
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640);
  if (file >= 0) {
    [[maybe_unused]] const ssize_t written = write(file, text.data(), text.size());
    close(file);
  }
}

}  // namespace

const std::string& corruptionDirectory() { return directory(); }
void corruptionDirectoryIs(std::string path) { directory() = std::move(path); }

MapBase::MapBase(std::string name, Zol::Ptr<SharedStore> store, unsigned collection)
    : Entity(std::move(name)), store_(std::move(store)), collection_(collection) {
  if (store_ != nullptr) {
    store_->listenerIs(collection_, this);
  }
}

MapBase::~MapBase() {
  if (store_ != nullptr) {
    store_->listenerDel(this);
  }
}

void MapBase::collectionReadyIs(bool ready) {
  requireWritable("write");
  FASTLOG_TRACE(8, "MemtabMap::collectionReadyIs() ready:" << ready);
  if (store_->reader().ready() != ready) {
    store_->store().readyIs(ready);
    readyChannel_.notify({});
  }
}

void MapBase::corruptionDetected(const std::string& message) const {
  FASTLOG_TRACE(3, "MemtabMap::corruptionDetected() " << message);
  ++corruptions_;
  if (witness != nullptr) {
    witness(fullName(), message);
  }
  writeCorruptionFile(fullName(), message, collectionControl().sequence());
}

void MapBase::damageWitnessIs(DamageWitness newWitness) { witness = newWitness; }

void MapBase::cleanup() { requireWritable("cleanup"); }
void MapBase::validateFiles() const { requireWritable("validateFiles"); }
void MapBase::validate() const { requireWritable("validate"); }

void MapBase::requireWritable(const char* operation) const {
  if (!isWritable()) {
    throw Zol::InternalException(std::string(operation) + " to read-only Memtab table");
  }
}

void MapBase::raiseCorruption(const std::string& what) const { throw CorruptionException(fullName() + ": " + what); }

}  // namespace Memtab
