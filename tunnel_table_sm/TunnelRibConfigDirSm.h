// TunnelRibConfigDirSm: keeps exactly one RIB reactor alive for each configured RIB.
//
//   TunnelRibConfigDir ──name──▶ id (TunnelRibNameIdMap) ──▶ 0: SystemTunnelRibSm on the given system RIB
//                                                            n: CustomTunnelRibSm on a table mounted for it
//
// Any change of a RIB's configuration replaces its reactor, which builds everything anew over the table that is there.
// A RIB that leaves the configuration loses reactor, id, table and convergence record. One that cannot be made does not
// keep the others from being made.
#pragma once

#include <map>
#include <string>

#include "runtime/Quor/OwnedTask.h"
#include "tunnel_table_sm/TunnelRibSm.h"

namespace Tunnel::TunnelTable {

// Before the RIB id, where the table of a custom RIB is mounted.
inline constexpr const char* tunnelRibStatusPathPrefix = "tunnel/tunnelRibs/status/";

class TunnelRibConfigDirSm final : public Zol::Reactor {
 public:
  TunnelRibConfigDirSm(Zol::Ptr<TunnelRib> systemTunnelRib, Zol::PtrConst<BgpLuConvergence> bgpLuConvergence,
                       Zol::Ptr<TunnelConvergence> tunnelConvergence,
                       Zol::PtrConst<TunnelRibConfigDir> tunnelRibConfigDir,
                       Zol::Ptr<TunnelTableInfoCollection> tunnelTableInfoColl,
                       Zol::Ptr<Statehub::EntityManager> entityManager,
                       Zol::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl,
                       Zol::Ptr<TunnelIdColl> unprogrammableTunnelIds, Zol::Ptr<TunnelRibNameIdMap> tunnelRibIdMap,
                       Zol::Ptr<Quor::TaskScheduler> scheduler);

  // The reactors by RIB id.
  const Zol::HashCollection<TunnelRibId, Zol::Ptr<TunnelRibBaseSm>>& tunnelRibSm() const {
    return tunnelRibSm_.members();
  }
  void tunnelRibSmIs(TunnelRibId id, Zol::Ptr<TunnelRibBaseSm> sm) { tunnelRibSm_.is(id, std::move(sm)); }
  void tunnelRibSmDel(TunnelRibId id) { tunnelRibSm_.del(id); }
  void tunnelRibSmDelAll() { tunnelRibSm_.delAll(); }

  void handleInitialized();
  void handleRibConfig();
  void handleRibConfig(const std::string& name);

  // Deletes what belongs to names that have lost their configuration.
  void removeStaleIdMapEntries();
  // Puts a new reactor in the place of the RIB's present one.
  void createTunnelRibSm(const Zol::PtrConst<TunnelRibConfig>& config, const Zol::Ptr<TunnelRib>& tunnelRib);
  // A name without an id has nothing to delete.
  void deleteTunnelRib(const std::string& name);

  // RIBs whose table cannot be had (no space, a file that is refused), each with the reason. Tried again every second.
  const std::map<std::string, std::string>& unmadeRibs() const { return unmade_; }

 private:
  void retryUnmade();
  Zol::Ptr<TunnelRib> mountCustomRib(const std::string& name, TunnelRibId id);

  const Zol::Ptr<TunnelRib> systemTunnelRib_;
  const Zol::PtrConst<BgpLuConvergence> bgpLuConvergence_;
  const Zol::Ptr<TunnelConvergence> tunnelConvergence_;
  Zol::Notifiee<TunnelRibConfigDirSm, TunnelRibConfigDir, std::string> tunnelRibConfigDir_;
  const Zol::Ptr<TunnelTableInfoCollection> tunnelTableInfoColl_;
  const Zol::Ptr<Statehub::EntityManager> entityManager_;
  const Zol::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl_;
  const Zol::Ptr<TunnelIdColl> unprogrammableTunnelIds_;
  const Zol::Ptr<TunnelRibNameIdMap> tunnelRibIdMap_;
  const Zol::Ptr<Quor::TaskScheduler> scheduler_;
  Zol::ChildMap<TunnelRibId, TunnelRibBaseSm> tunnelRibSm_;
  std::map<std::string, std::string> unmade_;
  Quor::OwnedTask<TunnelRibConfigDirSm> retryTask_;
};

inline constexpr Zol::Factory<TunnelRibConfigDirSm> tunnelRibConfigDirSmFactory;

}  // namespace Tunnel::TunnelTable
