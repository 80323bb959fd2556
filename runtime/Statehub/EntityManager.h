// EntityManager: the handle through which entities are mounted and reached by path. A path names one entity, whoever
// mounts it: a second mount of a path gives the same entity.
//
//     in memory           entities live in this process, and everybody in it may write them
//     below a directory   the entity of a path is the file of that path, which one process mounts for writing and any
//                         number for reading
//
// What other processes wrote reaches the watchers of what is mounted for reading in poll(); news that came since are
// seen by hasNews(), a few loads a table.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
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

// Whether this process is the one that writes the entity. Only among processes does it matter: what lies in the memory
// of one can be written by whoever reaches it.
enum class Access : std::uint8_t { read, write };

// It has no table type and no sizes of collections: every mount is a shared-memory table, and tables grow.
class MountInfo {
 public:
  explicit MountInfo(Access access = Access::write) : access_(access) {}

  Access access() const { return access_; }

 private:
  Access access_;
};

class EntityManager : public Zol::PtrInterface {
 public:
  // In memory.
  EntityManager() = default;
  // Below a directory, which is made when something is mounted for writing.
  explicit EntityManager(std::string stateDirectory) : stateDirectory_(std::move(stateDirectory)) {}

  // Empty: in memory.
  const std::string& stateDirectory() const { return stateDirectory_; }

  // Makes the entity at path unless it is there. Raises InternalException for an unknown type, or when the entity at
  // the path is of another type or mounted for reading only. Below a directory: also FileRefused, TableBusy and NoSpace
  // (runtime/Memtab/TableFile.h).
  void doMount(const std::string& path, const std::string& typeName, const MountInfo& info = MountInfo());
  // Lets go of the entity; whoever holds a reference keeps it. Nothing at the path: nothing happens.
  void doUnmount(const std::string& path);
  // The entity mounted at path, or null.
  Zol::Ptr<Zol::Entity> getEntity(const std::string& path) const;
  // Gives up what is stored at path, beyond the mount; nothing at the path, or what another process writes: nothing
  // happens but the unmount.
  void cleanup(const std::string& path);

  // The file that is read at path; null when path is not mounted for reading from a directory.
  const Memtab::MirrorStore* mirror(const std::string& path) const;

  // Files may have come, gone, or taken each other's places. Those that are written here are made again when they are
  // gone. Throws CorruptionException when bytes of such a file are lost, and else, when all others have been looked at,
  // what mounting throws.
  void rescan();
  // Whether other processes changed something that poll() has not told of.
  bool hasNews() const;
  // Tells watchers of about maxKeys keys a table; whether there is more.
  bool poll(std::size_t maxKeys);
  // Whether poll() has found since the last question that a table is no longer in trouble.
  bool takeTroubleEnded() { return std::exchange(hasTroubleEnded_, false); }

 private:
  struct Mounted {
    std::string typeName;
    Access access;
    Zol::Ptr<Memtab::MirrorStore> mirror;  // null unless read from a directory
    Zol::Ptr<Memtab::FileStore> file;      // null unless written to a directory
    Zol::Ptr<Zol::Entity> entity;
  };
  Mounted mount(const std::string& path, const std::string& typeName, Access access);

  const std::string stateDirectory_;
  bool hasTroubleEnded_ = false;
  std::shared_ptr<Memtab::DoorbellRinger> ringer_;  // null until something is mounted for writing below a directory
  std::map<std::string, Mounted> mounted_;
};

}  // namespace Statehub
