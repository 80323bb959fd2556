// TunnelTableInfo: how to mount one protocol tunnel table. An agent describes its tables in a
// TunnelTableInfoCollection, by table name; the RIBs mount what is described and wanted.
#pragma once

#include <string>

#include "runtime/Statehub/EntityManager.h"
#include "runtime/Zol/HashCollection.h"
#include "runtime/Zol/Watchable.h"
#include "tunnel/TunnelTable.h"
#include "tunnel/TunnelTableIdentifier.h"

namespace Tunnel::TunnelTable {

// Below it lie all protocol tunnel tables. An info with just this path describes no table.
inline constexpr const char* tunnelTablePathPrefix = "tunnel/table/";

struct TunnelTableInfo {
  std::string path = tunnelTablePathPrefix;
  std::string typeName;  // of the entity at the path

  friend bool operator==(const TunnelTableInfo&, const TunnelTableInfo&) = default;
};

// How a shared-memory table is mounted.
inline Statehub::MountInfo sharedTable(Statehub::Access access) { return Statehub::MountInfo(access); }

// The description of one of the twelve tables at its usual place.
TunnelTableInfo tunnelTableInfo(TunnelTableIdentifier table);

class TunnelTableInfoCollection : public Zol::Entity {
 public:
  using Infos = Zol::Watchable<Zol::HashCollection<std::string, TunnelTableInfo>>;

  using Entity::Entity;

  const Infos& tunnelTableInfo() const { return infos_; }
  void tunnelTableInfoIs(const std::string& name, const TunnelTableInfo& info) { infos_.is(name, info); }
  void tunnelTableInfoDel(const std::string& name) { infos_.del(name); }

  Zol::Channel<std::string>& tunnelTableInfoChannel() const { return infos_.channel(); }

 private:
  Infos infos_;
};

// Mounts protocol tunnel tables through an entity manager.
class TunnelTableMounter {
 public:
  explicit TunnelTableMounter(Zol::Ptr<Statehub::EntityManager> entityManager);

  // The table that info describes. Null when what is mounted there is no tunnel table. Raises InternalException for
  // an info whose type nobody knows.
  Zol::Ptr<TunnelTableBase> readMountTable(const TunnelTableInfo& info) const;

 private:
  Zol::Ptr<Statehub::EntityManager> entityManager_;
};

}  // namespace Tunnel::TunnelTable
