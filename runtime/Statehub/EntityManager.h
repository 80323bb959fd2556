// EntityManager: the handle through which entities are mounted and reached by path. A path names one entity, whoever
// mounts it: a second mount of a path gives the same entity. This one keeps its entities in the memory of the process.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include "runtime/Memtab/SharedStore.h"
#include "runtime/Zol/Entity.h"

namespace Statehub {

// The kinds of entity that can be mounted, by type name. Libraries add theirs at load.
class EntityTypes {
 public:
  // Makes the entity of a path over the store that source gives.
  using Maker = std::function<Zol::Ptr<Zol::Entity>(const std::string& path, const Memtab::StoreSource& source)>;

  static void typeIs(const std::string& typeName, Maker maker);
  // Raises InternalException for a type that nobody has added.
  static Zol::Ptr<Zol::Entity> make(const std::string& typeName, const std::string& path,
                                    const Memtab::StoreSource& source);
};

// How one collection of a mounted table is laid out. size is a first guess; tables grow.
struct CollectionInfo {
  std::string name;
  std::uint32_t size = 0;
};

// Whether this process is the one that writes the entity. Only among processes does it matter: what lies in the memory
// of one can be written by whoever reaches it.
enum class Access : std::uint8_t { read, write };

class MountInfo {
 public:
  // tableType 0: a shared-memory table.
  explicit MountInfo(std::uint32_t tableType, Access access = Access::write) : tableType_(tableType), access_(access) {}

  std::uint32_t tableType() const { return tableType_; }
  Access access() const { return access_; }
  const CollectionInfo& collectionInfo() const { return collectionInfo_; }
  void collectionInfoIs(CollectionInfo info) { collectionInfo_ = std::move(info); }

 private:
  std::uint32_t tableType_;
  Access access_;
  CollectionInfo collectionInfo_;
};

class EntityManager : public Zol::PtrInterface {
 public:
  // Makes the entity at path unless it is there. Raises InternalException for an unknown type, or when the entity at
  // the path is of another type.
  void doMount(const std::string& path, const std::string& typeName, const MountInfo& info = MountInfo(0));
  // Lets go of the entity; whoever holds a reference keeps it. Nothing at the path: nothing happens.
  void doUnmount(const std::string& path);
  // The entity mounted at path, or null.
  Zol::Ptr<Zol::Entity> getEntity(const std::string& path) const;
  // Gives up what is stored at path, beyond the mount; nothing at the path: nothing happens.
  void cleanup(const std::string& path);

 private:
  struct Mounted {
    std::string typeName;
    Zol::Ptr<Zol::Entity> entity;
  };
  std::map<std::string, Mounted> mounted_;
};

}  // namespace Statehub
