// AgentHost: the entities and reactors of one tunnel agent, put together in one process.
//
//     tables, infos, configuration, BGP record ──▶ TunnelRibConfigDirSm ──▶ RIBs, protocol RIBs, convergence
//     tables ────────────────────────────────────▶ TunnelFibSm ───────────▶ FIB, unprogrammable ids
//
// The entities live as long as the host; the two reactors can be stopped and started again over them, as when the
// process is replaced by a new one that finds the tables, the RIBs and the FIB that its predecessor left behind.
// All twelve tables are described to the RIBs before the first configuration.
//
// Nothing runs by itself: whoever owns the host drives its scheduler.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "agent/AgentState.h"
#include "runtime/Quor/TaskScheduler.h"
#include "tunnel/TunnelTableInfo.h"
#include "tunnel_table_sm/TunnelFibSm.h"
#include "tunnel_table_sm/TunnelRibConfigDirSm.h"

namespace Agent {

class AgentHost : public AgentState {
 public:
  // An agent in the memory of this process, its reactors started, its system RIB configured with all tables that a RIB
  // can take. Both arguments outlive the host.
  AgentHost(const Quor::TimeSource& time, Quor::SlicePolicy& slicePolicy);
  // An agent over the tables that entityManager reaches: stopped, and without any RIB configured.
  AgentHost(const Quor::TimeSource& time, Quor::SlicePolicy& slicePolicy,
            Zol::Ptr<Statehub::EntityManager> entityManager);
  ~AgentHost() override { stop(); }

  // Deletes the reactors and what they had in memory only.
  void stop();
  // Makes new ones. Requires: stopped.
  void start();
  void restart() {
    stop();
    start();
  }

  const Zol::Ptr<Quor::TaskScheduler>& scheduler() const { return scheduler_; }

  // Inputs beside the tables.
  const Zol::Ptr<Model::TunnelTableInfoCollection>& tableInfos() const { return tableInfos_; }
  const Zol::Ptr<Model::TunnelRibConfigDir>& ribConfigs() const { return ribConfigs_; }
  const Zol::Ptr<Model::BgpLuConvergence>& bgpLuConvergence() const { return bgpLuConvergence_; }

  // Whether the table is described to the RIBs.
  bool isMounted(TableId table) const;
  void isMountedIs(TableId table, bool isMounted);

  // The reactors; null while stopped.
  const Zol::Ptr<Model::TunnelRibConfigDirSm>& ribConfigDirSm() const { return ribConfigDirSm_; }
  const Zol::Ptr<Model::TunnelFibSm>& fibSm() const { return fibSm_; }

  // Tunnels and RIB entries that wait for space or for a table that can be read again. O(RIBs), as the next.
  std::size_t heldUp() const;
  // Whether nothing else waits for review. Requires: started.
  bool isDrained() const;

 private:
  template <class F>
  void forEachRibBuilder(F&& f) const;
  void startReactors();

  const Zol::Ptr<Quor::TaskScheduler> scheduler_;
  const Zol::Ptr<Model::TunnelTableInfoCollection> tableInfos_;
  const Zol::Ptr<Model::TunnelRibConfigDir> ribConfigs_;
  const Zol::Ptr<Model::BgpLuConvergence> bgpLuConvergence_;
  Zol::Ptr<Model::TunnelRibConfigDirSm> ribConfigDirSm_;
  Zol::Ptr<Model::TunnelFibSm> fibSm_;
};

// What the system RIB takes unless it is configured otherwise: all tables that a RIB can take.
Zol::Ptr<Model::TunnelRibConfig> defaultSystemConfig();

// The configuration of a RIB that takes these tables, with the preference that each gets there.
Zol::Ptr<Model::TunnelRibConfig> ribConfig(const std::string& name,
                                           const std::map<TableId, std::optional<Model::TunnelEntryPref>>& tables);

}  // namespace Agent
