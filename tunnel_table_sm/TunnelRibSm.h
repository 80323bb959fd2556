// TunnelRibBaseSm: one tunnel RIB, with all that builds it.
//
//   configuration ──▶ tableTypeFilter ──▶ TunnelTablesMountSm ──▶ tunnelTableEntities
//                                                                     │         │
//                                        custom RIB: PreferenceMapperSm         │
//                                                    │ tableEntryFilter         │
//                                                    └──────▶ TunnelRibBuilderSm ──▶ tunnelRib
//
// The system RIB takes preferences as published and keeps the per-protocol RIBs as well; a custom RIB remaps
// preferences and keeps none.
#pragma once

#include <memory>

#include "tunnel/TunnelRibConfig.h"
#include "tunnel_table_sm/PreferenceMapperSm.h"
#include "tunnel_table_sm/TunnelRibBuilderSm.h"
#include "tunnel_table_sm/TunnelTablesMountSm.h"

namespace Tunnel::TunnelTable {

class TunnelRibBaseSm : public Zol::Reactor {
 public:
  // Everything but protoTunnelRibColl must be there for the RIB to be built.
  TunnelRibBaseSm(Zol::PtrConst<TunnelRibConfig> tunnelRibConfig,
                  Zol::PtrConst<TunnelTableInfoCollection> tunnelTableInfoColl,
                  Zol::PtrConst<BgpLuConvergence> bgpLuConvergence, Zol::Ptr<Statehub::EntityManager> entityManager,
                  Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds, bool supportPreferenceRemap,
                  Zol::Ptr<TunnelRib> tunnelRib, Zol::Ptr<TunnelConvergence> tunnelConvergence,
                  Zol::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl, Zol::Ptr<Quor::TaskScheduler> scheduler);

  const Zol::PtrConst<TunnelRibConfig>& tunnelRibConfig() const { return tunnelRibConfig_.notifier(); }
  const Zol::PtrConst<TunnelTableInfoCollection>& tunnelTableInfoColl() const { return infos_.notifier(); }
  const Zol::PtrConst<BgpLuConvergence>& bgpLuConvergence() const { return bgpLuConvergence_.notifier(); }
  bool supportPreferenceRemap() const { return supportPreferenceRemap_; }
  const Zol::Ptr<TunnelRib>& tunnelRib() const { return tunnelRib_; }
  const Zol::Ptr<ProtocolTunnelRibCollection>& protoTunnelRibColl() const { return protoTunnelRibColl_; }
  const Zol::Ptr<TunnelTableEntities>& tunnelTableEntities() const { return entities_; }
  const Zol::Ptr<TunnelTableTypeFilter>& tableTypeFilter() const { return tableTypeFilter_.ptr(); }
  const Zol::Ptr<TunnelTablesMountSm>& tunnelTablesMountSm() const { return tunnelTablesMountSm_.ptr(); }
  const Zol::Ptr<TunnelRibBuilderSm>& tunnelRibBuilderSm() const { return tunnelRibBuilderSm_.ptr(); }
  // Null in a RIB that does not remap preferences.
  const Zol::Ptr<TunnelTableEntryFilter>& tableEntryFilter() const { return tableEntryFilter_.ptr(); }
  const Zol::Ptr<PreferenceMapperSm>& preferenceMapperSm() const { return preferenceMapperSm_.ptr(); }

  const Zol::Ptr<Statehub::EntityManager>& entityManager() const { return entityManager_; }
  const Zol::PtrConst<TunnelIdColl>& unprogrammableTunnelIds() const { return unprogrammableTunnelIds_; }
  const Zol::Ptr<TunnelConvergence>& tunnelConvergence() const { return tunnelConvergence_; }
  const Zol::Ptr<Quor::TaskScheduler>& scheduler() const { return scheduler_; }

  // Watched inputs can be replaced; that alone calls no handler. The other inputs are fixed: a RIB with others is
  // another reactor.
  void tunnelRibConfigIs(Zol::PtrConst<TunnelRibConfig> config) { tunnelRibConfig_.notifierIs(std::move(config)); }
  void tunnelTableInfoCollIs(Zol::PtrConst<TunnelTableInfoCollection> infos) { infos_.notifierIs(std::move(infos)); }
  void bgpLuConvergenceIs(Zol::PtrConst<BgpLuConvergence> record) { bgpLuConvergence_.notifierIs(std::move(record)); }
  virtual void tunnelTableEntitiesIs(Zol::Ptr<TunnelTableEntities> entities);

  // Each makes the child anew, from its construction arguments, in place of the one that is there.
  void tableTypeFilterIs() { tableTypeFilter_.is(tunnelTableTypeFilterFactory()); }
  void tableEntryFilterIs() { tableEntryFilter_.is(tunnelTableEntryFilterFactory()); }
  template <class... Args>
  void tunnelTablesMountSmIs(const Args&... args) {
    tunnelTablesMountSm_.is(tunnelTablesMountSmFactory(args...));
  }
  template <class... Args>
  void preferenceMapperSmIs(const Args&... args) {
    preferenceMapperSm_.is(preferenceMapperSmFactory(args...));
  }
  template <class... Args>
  void tunnelRibBuilderSmIs(const Args&... args) {
    tunnelRibBuilderSm_.is(tunnelRibBuilderSmFactory(args...));
  }
  void tableTypeFilterDel() { tableTypeFilter_.del(); }
  void tableEntryFilterDel() { tableEntryFilter_.del(); }
  void tunnelTablesMountSmDel() { tunnelTablesMountSm_.del(); }
  void preferenceMapperSmDel() { preferenceMapperSm_.del(); }
  void tunnelRibBuilderSmDel() { tunnelRibBuilderSm_.del(); }

  void handleInitialized();
  // Names every configured table in the filter. One that has left the configuration comes by its own notification.
  void handleRibConfig();
  void handleRibConfig(const TunnelTableIdentifier& table);

 private:
  Zol::Notifiee<TunnelRibBaseSm, TunnelRibConfig, TunnelTableIdentifier> tunnelRibConfig_;
  Zol::Notifiee<TunnelRibBaseSm, TunnelTableInfoCollection, std::string> infos_;
  Zol::Notifiee<TunnelRibBaseSm, BgpLuConvergence> bgpLuConvergence_;
  const Zol::Ptr<Statehub::EntityManager> entityManager_;
  const Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds_;
  const bool supportPreferenceRemap_;
  const Zol::Ptr<TunnelRib> tunnelRib_;
  const Zol::Ptr<TunnelConvergence> tunnelConvergence_;
  Zol::Ptr<TunnelTableEntities> entities_;
  Zol::Notifiee<TunnelRibBaseSm, TunnelTableEntities, std::string> tunnelTableEntities_;
  const Zol::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl_;
  const Zol::Ptr<Quor::TaskScheduler> scheduler_;
  Zol::Child<TunnelTableTypeFilter> tableTypeFilter_;
  Zol::Child<TunnelTablesMountSm> tunnelTablesMountSm_;
  Zol::Child<TunnelRibBuilderSm> tunnelRibBuilderSm_;
  Zol::Child<TunnelTableEntryFilter> tableEntryFilter_;
  Zol::Child<PreferenceMapperSm> preferenceMapperSm_;
};

// Preferences as published; keeps the per-protocol RIBs.
class SystemTunnelRibSm final : public TunnelRibBaseSm {
 public:
  SystemTunnelRibSm(Zol::PtrConst<TunnelRibConfig> tunnelRibConfig,
                    Zol::PtrConst<TunnelTableInfoCollection> tunnelTableInfoColl,
                    Zol::PtrConst<BgpLuConvergence> bgpLuConvergence, Zol::Ptr<Statehub::EntityManager> entityManager,
                    Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds, Zol::Ptr<TunnelRib> tunnelRib,
                    Zol::Ptr<TunnelConvergence> tunnelConvergence,
                    Zol::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl, Zol::Ptr<Quor::TaskScheduler> scheduler);
};

// Preferences as configured.
class CustomTunnelRibSm final : public TunnelRibBaseSm {
 public:
  CustomTunnelRibSm(Zol::PtrConst<TunnelRibConfig> tunnelRibConfig,
                    Zol::PtrConst<TunnelTableInfoCollection> tunnelTableInfoColl,
                    Zol::PtrConst<BgpLuConvergence> bgpLuConvergence, Zol::Ptr<Statehub::EntityManager> entityManager,
                    Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds, Zol::Ptr<TunnelRib> tunnelRib,
                    Zol::Ptr<TunnelConvergence> tunnelConvergence, Zol::Ptr<Quor::TaskScheduler> scheduler);
};

inline constexpr Zol::Factory<TunnelRibBaseSm> tunnelRibBaseSmFactory;
inline constexpr Zol::Factory<SystemTunnelRibSm> systemTunnelRibSmFactory;
inline constexpr Zol::Factory<CustomTunnelRibSm> customTunnelRibSmFactory;

}  // namespace Tunnel::TunnelTable
