// AgentState: the tables that protocols publish and what an agent makes of them, at their usual places below an entity
// manager. The agent is the one that writes the RIBs and the FIB; everybody else reads.
#pragma once

#include "agent/ProtocolTables.h"
#include "runtime/Statehub/EntityManager.h"
#include "tunnel/TunnelConvergence.h"
#include "tunnel/TunnelFib.h"
#include "tunnel/TunnelIdColl.h"
#include "tunnel/TunnelRibConfig.h"

namespace Agent {

class AgentState {
 public:
  // Mounts the tables for reading, RIBs and FIB with this access. Custom RIBs are mounted by who makes or asks for
  // them.
  AgentState(Zol::Ptr<Statehub::EntityManager> entityManager, Statehub::Access access);
  AgentState(const AgentState&) = delete;
  AgentState& operator=(const AgentState&) = delete;
  virtual ~AgentState() = default;

  const Zol::Ptr<Statehub::EntityManager>& entityManager() const { return entityManager_; }

  // Inputs.
  const ProtocolTables& tables() const { return tables_; }

  // Outputs.
  const Zol::Ptr<Model::TunnelRibNameIdMap>& ribIds() const { return ribIds_; }
  // The RIB of that id; null when there is none.
  Zol::Ptr<Model::TunnelRib> rib(Model::TunnelRibId id) const;
  const Zol::Ptr<Model::ProtocolTunnelRibCollection>& protocolRibs() const { return protocolRibs_; }
  const Zol::Ptr<Model::TunnelConvergence>& tunnelConvergence() const { return tunnelConvergence_; }
  const Zol::Ptr<Model::TunnelIdColl>& unprogrammable() const { return unprogrammable_; }
  const Zol::Ptr<Tunnel::TunnelFib::TunnelFib>& fib() const { return fib_; }

 protected:
  // Not mounted from anywhere: the root of what lies in this process only.
  const Zol::Ptr<Zol::Entity>& root() const { return root_; }
  // An entity of that name in the tree below the root.
  template <class T, class... Args>
  Zol::Ptr<T> below(Args&&... args) {
    Zol::Ptr<T> entity = Zol::make<T>(std::forward<Args>(args)...);
    entity->parentIs(root_.get());
    return entity;
  }

 private:
  const Zol::Ptr<Zol::Entity> root_ = Zol::make<Zol::Entity>("tunnel");
  const Zol::Ptr<Statehub::EntityManager> entityManager_;
  const ProtocolTables tables_;
  const Zol::Ptr<Model::TunnelRibNameIdMap> ribIds_;
  const Zol::Ptr<Model::TunnelConvergence> tunnelConvergence_;
  const Zol::Ptr<Model::TunnelRib> systemRib_;
  const Zol::Ptr<Model::ProtocolTunnelRibCollection> protocolRibs_;
  const Zol::Ptr<Model::TunnelIdColl> unprogrammable_;
  const Zol::Ptr<Tunnel::TunnelFib::TunnelFib> fib_;
};

// Where the system RIB, the per-protocol RIBs and the FIB are mounted.
inline constexpr const char* systemRibPath = "tunnel/tunnelRibs/system";
inline constexpr const char* protocolRibPathPrefix = "tunnel/protocolTunnelRibs/";
inline constexpr const char* fibPath = "tunnel/tunnelFib";

}  // namespace Agent
