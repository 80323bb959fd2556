#include "runtime/Statehub/EntityManager.h"

#include "runtime/Zol/Exception.h"

namespace Statehub {
namespace {

std::map<std::string, EntityTypes::Maker>& makers() {
  static std::map<std::string, EntityTypes::Maker> all;
  return all;
}

Zol::Ptr<Memtab::SharedStore> inMemory(std::uint64_t fingerprint, std::span<const Memtab::HashFn> hashes) {
  return Zol::make<Memtab::SharedStore>(fingerprint, hashes);
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

void EntityManager::doMount(const std::string& path, const std::string& typeName, const MountInfo&) {
  const auto present = mounted_.find(path);
  if (present == mounted_.end()) {
    mounted_.emplace(path, Mounted{typeName, EntityTypes::make(typeName, path, inMemory)});
  } else if (present->second.typeName != typeName) {
    throw Zol::InternalException(path + " is mounted as " + present->second.typeName + ", not as " + typeName);
  }
}

void EntityManager::doUnmount(const std::string& path) { mounted_.erase(path); }

Zol::Ptr<Zol::Entity> EntityManager::getEntity(const std::string& path) const {
  const auto present = mounted_.find(path);
  return present == mounted_.end() ? nullptr : present->second.entity;
}

void EntityManager::cleanup(const std::string& path) { mounted_.erase(path); }

}  // namespace Statehub
