// PublishedTable: a protocol's table in a state directory, with this process as its writer.
//
//   locked ──begin()──▶ begun: what an earlier run left is stale until it is put again ──complete()──▶ complete
//
// Until it is begun, what stood there stays as it is, and complete if it was: who only locks a table takes nothing from
// its readers. An entity manager of its own keeps each table's troubles apart.
#pragma once

#include <optional>
#include <set>
#include <string>

#include "agent/AgentStatus.h"
#include "agent/ProtocolTables.h"
#include "agent/ScenarioLine.h"

namespace Tools {

namespace Model = Tunnel::TunnelTable;

class PublishedTable {
 public:
  // Locks the table, makes it if there is none. Raises what mounting raises: TableBusy when it has a publisher.
  PublishedTable(const std::string& stateDirectory, Agent::TableId id);

  std::size_t size() const { return tables_->table(id_).size(); }

  // It is not complete any more. Once; later calls do nothing.
  void begin();
  // Each begins. Raise InputError, and NoSpace with nothing changed: then they may be called again.
  void put(const Agent::EntryDraft& entry);
  void del(std::uint64_t index);
  // Requires: the table is bgpLu.
  void declare(const Agent::ConvergedLine& line);
  // Deletes what is stale and declares the table complete, if it has been begun. Once, as begin(). Raises NoSpace.
  void complete();

  // See EntityManager::rescan().
  void rescan() { entityManager_->rescan(); }

 private:
  void readyIs(bool ready);

  const Agent::TableId id_;
  const Zol::Ptr<Statehub::EntityManager> entityManager_;
  std::optional<Agent::ProtocolTables> tables_;  // this one
  Zol::Ptr<Agent::BgpLuDeclarationTable> declaration_;
  std::set<Model::TunnelId> stale_;
  bool isBegun_ = false;
  bool isComplete_ = false;
};

// Raises InputError when the entry that is to be deleted is not there.
void requireEntry(Agent::TableId table, std::uint64_t index, bool isThere);

}  // namespace Tools
