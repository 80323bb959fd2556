// AgentHost: the entities and reactors of one tunnel agent, put together in one process.
//
//     tables, infos, configuration, BGP record ──▶ TunnelRibConfigDirSm ──▶ RIBs, protocol RIBs, convergence
//     tables ────────────────────────────────────▶ TunnelFibSm ───────────▶ FIB, unprogrammable ids
//
// The entities live as long as the host; the two reactors can be stopped and started again over them, as when the
// process is replaced by a new one that finds the tables, the RIBs and the FIB that its predecessor left behind.
// All twelve tables are described to the RIBs before the first configuration, and the system RIB is configured with all
// tables that a RIB can take.
//
// Nothing runs by itself: whoever owns the host drives its scheduler.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "agent/ProtocolTables.h"
#include "runtime/Quor/TaskScheduler.h"
#include "runtime/Statehub/EntityManager.h"
#include "tunnel/TunnelConvergence.h"
#include "tunnel/TunnelFib.h"
#include "tunnel/TunnelIdColl.h"
#include "tunnel/TunnelRibConfig.h"
#include "tunnel/TunnelTableInfo.h"
#include "tunnel_table_sm/TunnelFibSm.h"
#include "tunnel_table_sm/TunnelRibConfigDirSm.h"

namespace Agent {

class AgentHost {
 public:
  // Starts the reactors. Both arguments outlive the host.
  AgentHost(const Quor::TimeSource& time, Quor::SlicePolicy& slicePolicy);
  AgentHost(const AgentHost&) = delete;
  AgentHost& operator=(const AgentHost&) = delete;
  ~AgentHost() { stop(); }

  // Deletes the reactors and what they had in memory only.
  void stop();
  // Makes new ones. Requires: stopped.
  void start();
  void restart() {
    stop();
    start();
  }

  const Zol::Ptr<Quor::TaskScheduler>& scheduler() const { return scheduler_; }
  const Zol::Ptr<Statehub::EntityManager>& entityManager() const { return entityManager_; }

  // Inputs.
  const ProtocolTables& tables() const { return tables_; }
  const Zol::Ptr<Model::TunnelTableInfoCollection>& tableInfos() const { return tableInfos_; }
  const Zol::Ptr<Model::TunnelRibConfigDir>& ribConfigs() const { return ribConfigs_; }
  const Zol::Ptr<Model::BgpLuConvergence>& bgpLuConvergence() const { return bgpLuConvergence_; }

  // Whether the table is described to the RIBs.
  bool isMounted(TableId table) const;
  void isMountedIs(TableId table, bool isMounted);

  // Outputs.
  const Zol::Ptr<Model::TunnelRibNameIdMap>& ribIds() const { return ribIds_; }
  // The RIB of that id; null when there is none.
  Zol::Ptr<Model::TunnelRib> rib(Model::TunnelRibId id) const;
  const Zol::Ptr<Model::ProtocolTunnelRibCollection>& protocolRibs() const { return protocolRibs_; }
  const Zol::Ptr<Model::TunnelConvergence>& tunnelConvergence() const { return tunnelConvergence_; }
  const Zol::Ptr<Model::TunnelIdColl>& unprogrammable() const { return unprogrammable_; }
  const Zol::Ptr<Tunnel::TunnelFib::TunnelFib>& fib() const { return fib_; }

  // The reactors; null while stopped.
  const Zol::Ptr<Model::TunnelRibConfigDirSm>& ribConfigDirSm() const { return ribConfigDirSm_; }
  const Zol::Ptr<Model::TunnelFibSm>& fibSm() const { return fibSm_; }

 private:
  void startReactors();

  const Zol::Ptr<Zol::Entity> root_ = Zol::make<Zol::Entity>("tunnel");
  const Zol::Ptr<Quor::TaskScheduler> scheduler_;
  const Zol::Ptr<Statehub::EntityManager> entityManager_;
  const ProtocolTables tables_;
  const Zol::Ptr<Model::TunnelTableInfoCollection> tableInfos_;
  const Zol::Ptr<Model::TunnelRibConfigDir> ribConfigs_;
  const Zol::Ptr<Model::BgpLuConvergence> bgpLuConvergence_;
  const Zol::Ptr<Model::TunnelRibNameIdMap> ribIds_;
  const Zol::Ptr<Model::TunnelConvergence> tunnelConvergence_;
  const Zol::Ptr<Model::TunnelRib> systemRib_;
  const Zol::Ptr<Model::ProtocolTunnelRibCollection> protocolRibs_;
  const Zol::Ptr<Model::TunnelIdColl> unprogrammable_;
  const Zol::Ptr<Tunnel::TunnelFib::TunnelFib> fib_;
  Zol::Ptr<Model::TunnelRibConfigDirSm> ribConfigDirSm_;
  Zol::Ptr<Model::TunnelFibSm> fibSm_;
};

// The configuration of a RIB that takes these tables, with the preference that each gets there.
Zol::Ptr<Model::TunnelRibConfig> ribConfig(const std::string& name,
                                           const std::map<TableId, std::optional<Model::TunnelEntryPref>>& tables);

}  // namespace Agent
