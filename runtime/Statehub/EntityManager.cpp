#include "runtime/Statehub/EntityManager.h"

#include <algorithm>

#include "runtime/Statehub/Attempts.h"
#include "runtime/Zol/Exception.h"

namespace Statehub {
namespace {

std::map<std::string, EntityTypes::Maker>& makers() {
  static std::map<std::string, EntityTypes::Maker> all;
  return all;
}

}  // namespace

void EntityTypes::typeIs(const std::string& typeName, Maker maker) { makers()[typeName] = std::move(maker); }

Zol::Ptr<Zol::Entity> EntityTypes::make(const std::string& typeName, const std::string& path,
                                        const Memtab::StoreSource& source) {
  const auto maker = makers().find(typeName);
  if (maker == makers().end()) {
    throw Zol::InternalException("no entity type " + typeName + " to mount at " + path);
  }
  return maker->second(path, source);
}

void EntityManager::doMount(const std::string& path, const std::string& typeName, const MountInfo& info) {
  const auto present = mounted_.find(path);
  if (present == mounted_.end()) {
    mounted_.emplace(path, mount(path, typeName, info.access()));
  } else if (present->second.typeName != typeName) {
    throw Zol::InternalException(path + " is mounted as " + present->second.typeName + ", not as " + typeName);
  } else if (info.access() == Access::write && present->second.mirror != nullptr) {
    throw Zol::InternalException(path + " is mounted for reading, not for writing");
  }
}

auto EntityManager::mount(const std::string& path, const std::string& typeName, Access access) -> Mounted {
  Mounted mounted{typeName, access, nullptr, nullptr, nullptr};
  const auto source = [&](const Memtab::StoreLayout& layout) -> Zol::Ptr<Memtab::SharedStore> {
    if (stateDirectory_.empty()) {
      return Zol::make<Memtab::SharedStore>(layout);
    }
    if (access == Access::write) {
      mounted.file = Zol::make<Memtab::FileStore>(stateDirectory_, path, layout);
      if (ringer_ == nullptr) {
        ringer_ = std::make_shared<Memtab::DoorbellRinger>(stateDirectory_);
      }
      mounted.file->ringerIs(ringer_);
      return mounted.file;
    }
    mounted.mirror = Zol::make<Memtab::MirrorStore>(stateDirectory_, path, layout);
    return mounted.mirror;
  };
  mounted.entity = EntityTypes::make(typeName, path, source);
  if (mounted.file != nullptr) {
    mounted.file->tellTakenOut();
  }
  return mounted;
}

void EntityManager::doUnmount(const std::string& path) { mounted_.erase(path); }

Zol::Ptr<Zol::Entity> EntityManager::getEntity(const std::string& path) const {
  const auto present = mounted_.find(path);
  return present == mounted_.end() ? nullptr : present->second.entity;
}

void EntityManager::cleanup(const std::string& path) {
  const bool isForeign = mirror(path) != nullptr;
  mounted_.erase(path);
  if (!isForeign && !stateDirectory_.empty()) {
    Memtab::removeTable(stateDirectory_, path);
  }
}

const Memtab::MirrorStore* EntityManager::mirror(const std::string& path) const {
  const auto present = mounted_.find(path);
  return present == mounted_.end() ? nullptr : present->second.mirror.get();
}

void EntityManager::rescan() {
  Attempts all;
  for (const auto& [path, mounted] : mounted_) {
    if (mounted.mirror != nullptr) {
      all.attempt([&file = *mounted.mirror] { file.rescan(); });
    } else if (mounted.file != nullptr) {
      all.attempt([&file = *mounted.file] { file.mend(); });
    }
  }
  if (ringer_ != nullptr) {
    all.attempt([this] { ringer_->mend(); });
  }
  all.raise();
}

bool EntityManager::hasNews() const {
  return std::any_of(mounted_.begin(), mounted_.end(),
                     [](const auto& each) { return each.second.mirror != nullptr && each.second.mirror->hasNews(); });
}

// Watchers may mount and unmount, so the walk finds its place again by path.
bool EntityManager::poll(std::size_t maxKeys) {
  bool isMore = false;
  std::string path;
  for (auto next = mounted_.begin(); next != mounted_.end(); next = mounted_.upper_bound(path)) {
    path = next->first;
    if (const Zol::Ptr<Memtab::MirrorStore> mirror = next->second.mirror) {
      const bool hadTrouble = !mirror->trouble().empty();
      isMore = mirror->poll(maxKeys) || isMore;
      hasTroubleEnded_ = hasTroubleEnded_ || (hadTrouble && mirror->trouble().empty());
    }
  }
  return isMore;
}

}  // namespace Statehub
