// AgentStatus: what an agent publishes beside RIBs and FIB, so that a reader of the state directory understands them
// and the agent's successor goes on where it stopped: the RIBs with their numbers and configuration, the tunnels that
// cannot be programmed, and how far each RIB has followed BGP.
//
//     agent    entities of the host ──kept equal──▶ tables
//     start    tables ──▶ entities, before the reactors: a tunnel that could not be programmed is not offered meanwhile
//     reader   tables ──▶ entities of its AgentState
#pragma once

#include <map>
#include <string>

#include "agent/AgentState.h"
#include "agent/ScenarioLine.h"
#include "runtime/Quor/OwnedTask.h"
#include "runtime/Zol/Channel.h"

namespace Agent {

inline constexpr std::size_t ribConfigTextMax = 1024;
using RibConfigText = Zol::PodArray<std::uint8_t, ribConfigTextMax, 16>;

// One RIB: its number, and its configuration as a "rib" line of a scenario.
class RibStatus {
  ZOL_VALUE(RibStatus, "Agent::RibStatus", (Model::TunnelRibId, ribId), (RibConfigText, config))
};
class UnprogrammableStatus {
  ZOL_VALUE(UnprogrammableStatus, "Agent::UnprogrammableStatus", (Model::TunnelId, tunnelId))
};
class ConvergenceStatus {
  ZOL_VALUE(ConvergenceStatus, "Agent::ConvergenceStatus", (Model::TunnelRibId, ribId), (std::uint64_t, seqno))
};
// What BGP declares; one record, under 0. BGP writes it.
class BgpLuDeclaration {
  ZOL_VALUE(BgpLuDeclaration, "Agent::BgpLuDeclaration", (std::uint32_t, number), (bool, converged),
            (std::uint64_t, seqno))
};

template <class Record>
class StatusTable final : public Memtab::MemtabMap<Record> {
 public:
  StatusTable(const std::string& name, Zol::Ptr<Memtab::SharedStore> store)
      : Memtab::MemtabMap<Record>(name, std::move(store), 0U) {}
};
using RibStatusTable = StatusTable<RibStatus>;
using UnprogrammableTable = StatusTable<UnprogrammableStatus>;
using ConvergenceTable = StatusTable<ConvergenceStatus>;
using BgpLuDeclarationTable = StatusTable<BgpLuDeclaration>;

inline constexpr const char* ribStatusPath = "tunnel/status/ribs";
inline constexpr const char* unprogrammablePath = "tunnel/status/unprogrammable";
inline constexpr const char* convergencePath = "tunnel/status/convergence";
inline constexpr const char* bgpLuDeclarationPath = "tunnel/bgpLuConvergence";

// The table of that record at the path. Raises what mounting raises.
template <class Record>
Zol::Ptr<StatusTable<Record>> statusTable(Statehub::EntityManager& entityManager, const std::string& path,
                                          Statehub::Access access);

// The configuration of a RIB in words, and back. The text is that of a "rib" line.
std::string ribLineText(const Model::TunnelRibConfig& config);
RibLine ribLine(const RibStatus& status);

// Reads what is published into the entities of a state; the entities then are as the tables. Damaged records are passed
// over.
class StatusReader {
 public:
  // isMounting: custom RIBs are mounted for reading.
  explicit StatusReader(AgentState& state, bool isMounting = true);
  void read();
  // The RIBs as configured, by number. As of the last read().
  const std::map<Model::TunnelRibId, RibLine>& ribs() const { return ribs_; }

 private:
  void addRib(const RibStatus& status);

  AgentState& state_;
  const bool isMounting_;
  const Zol::Ptr<RibStatusTable> ribStatus_;
  const Zol::Ptr<UnprogrammableTable> unprogrammable_;
  const Zol::Ptr<ConvergenceTable> convergence_;
  std::map<Model::TunnelRibId, RibLine> ribs_;
};

// Restores the entities at its construction, and keeps the tables equal to them from then on. What finds no space is
// tried again every second.
class StatusWriter {
 public:
  // Raises what mounting raises.
  StatusWriter(AgentState& state, const Zol::Ptr<Quor::TaskScheduler>& scheduler);

  // Publishes numbers and configurations of the RIBs that are configured now.
  void publishRibs(const Model::TunnelRibConfigDir& configs);
  // Writes all records again that differ.
  void writeAll();
  std::map<std::string, const Memtab::MapBase*> tables() const {
    return {{"ribs", ribStatus_.get()}, {"unprogrammable", unprogrammable_.get()}, {"convergence", convergence_.get()}};
  }
  // Why a table lacks something: its path and the system's error; empty: none does.
  const std::string& trouble() const { return trouble_; }

 private:
  struct UnprogrammableListener final : Zol::Listener<Model::TunnelId> {
    explicit UnprogrammableListener(StatusWriter& owner) : writer(owner) {}
    using Listener::channelIs;
    void onKey(const Model::TunnelId& id) override;
    StatusWriter& writer;
  };
  struct ConvergenceListener final : Zol::Listener<Model::TunnelRibId> {
    explicit ConvergenceListener(StatusWriter& owner) : writer(owner) {}
    using Listener::channelIs;
    void onKey(const Model::TunnelRibId& rib) override;
    StatusWriter& writer;
  };

  template <class F>
  void write(F&& f);

  AgentState& state_;
  const Zol::Ptr<RibStatusTable> ribStatus_;
  const Zol::Ptr<UnprogrammableTable> unprogrammable_;
  const Zol::Ptr<ConvergenceTable> convergence_;
  std::map<Model::TunnelRibId, RibStatus> ribs_;  // as they were to be published last
  std::string trouble_;
  Quor::OwnedTask<StatusWriter> retryTask_;
  UnprogrammableListener unprogrammableListener_;
  ConvergenceListener convergenceListener_;
};

}  // namespace Agent
