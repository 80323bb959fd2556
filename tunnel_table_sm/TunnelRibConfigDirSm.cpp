#include "tunnel_table_sm/TunnelRibConfigDirSm.h"

#include "runtime/Fastlog/TraceHelper.h"
#include "runtime/Memtab/Region.h"
#include "runtime/Memtab/StateDirectory.h"

FASTLOG_DEFAULT_HANDLE("TunnelRibConfigDirSm")

namespace Tunnel::TunnelTable {
namespace {

#define CONFIG_DIR "Tunnel::TunnelTable::TunnelRibConfigDirSm::"
constexpr auto initializedSignature = "void " CONFIG_DIR "handleInitialized()";
constexpr auto allConfigSignature = "void " CONFIG_DIR "handleRibConfig()";
constexpr auto configSignature = "void " CONFIG_DIR "handleRibConfig(Zol::Name)";
constexpr auto staleSignature = "void " CONFIG_DIR "removeStaleIdMapEntries()";
constexpr auto createSignature = "void " CONFIG_DIR "createTunnelRibSm(const PtrConst&, const Ptr&)";
constexpr auto deleteSignature = "void " CONFIG_DIR "deleteTunnelRib(Zol::Name)";
#undef CONFIG_DIR

constexpr Quor::TaskPriority retryPriority = 2;
constexpr double retryDelay = 1;  // seconds

// BGP has declared convergence once: whoever goes on waiting for the RIB to catch up waits no longer than was said
// then.
void keepDeadline(const Zol::Ptr<TunnelRibBaseSm>& replaced, const Zol::Ptr<TunnelRibBaseSm>& sm) {
  if (!replaced || !replaced->tunnelRibBuilderSm()) {
    return;
  }
  const TunnelRibBuilderSm& before = *replaced->tunnelRibBuilderSm();
  TunnelRibBuilderSm& now = *sm->tunnelRibBuilderSm();
  if (before.waitingToNotifyConverged() && now.waitingToNotifyConverged()) {
    now.convergenceUpdateWaitTimeIs(before.convergenceUpdateWaitTime());
  }
}

std::string statusPath(TunnelRibId id) { return tunnelRibStatusPathPrefix + std::to_string(id); }

}  // namespace

TunnelRibConfigDirSm::TunnelRibConfigDirSm(
    Zol::Ptr<TunnelRib> systemTunnelRib, Zol::PtrConst<BgpLuConvergence> bgpLuConvergence,
    Zol::Ptr<TunnelConvergence> tunnelConvergence, Zol::PtrConst<TunnelRibConfigDir> tunnelRibConfigDir,
    Zol::Ptr<TunnelTableInfoCollection> tunnelTableInfoColl, Zol::Ptr<Statehub::EntityManager> entityManager,
    Zol::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl, Zol::Ptr<TunnelIdColl> unprogrammableTunnelIds,
    Zol::Ptr<TunnelRibNameIdMap> tunnelRibIdMap, Zol::Ptr<Quor::TaskScheduler> scheduler)
    : systemTunnelRib_(std::move(systemTunnelRib)),
      bgpLuConvergence_(std::move(bgpLuConvergence)),
      tunnelConvergence_(std::move(tunnelConvergence)),
      tunnelRibConfigDir_(*this, std::move(tunnelRibConfigDir), &TunnelRibConfigDir::configChannel,
                          {.onKey = &TunnelRibConfigDirSm::handleRibConfig}),
      tunnelTableInfoColl_(std::move(tunnelTableInfoColl)),
      entityManager_(std::move(entityManager)),
      protoTunnelRibColl_(std::move(protoTunnelRibColl)),
      unprogrammableTunnelIds_(std::move(unprogrammableTunnelIds)),
      tunnelRibIdMap_(std::move(tunnelRibIdMap)),
      scheduler_(std::move(scheduler)),
      tunnelRibSm_(*this),
      retryTask_(*this, &TunnelRibConfigDirSm::retryUnmade, scheduler_, retryPriority, "TunnelRibConfigDirSm") {
  handleInitialized();
}

void TunnelRibConfigDirSm::handleInitialized() {
  FASTLOG_TRACE(8, initializedSignature);
  handleRibConfig();
}

void TunnelRibConfigDirSm::handleRibConfig() {
  FASTLOG_TRACE(8, allConfigSignature);
  removeStaleIdMapEntries();
  for (auto it = tunnelRibConfigDir_->config().begin(); it; ++it) {
    handleRibConfig(it.key());
  }
}

void TunnelRibConfigDirSm::removeStaleIdMapEntries() {
  FASTLOG_TRACE(8, staleSignature);
  const std::map<std::string, TunnelRibId>& names = tunnelRibIdMap_->tunnelRibNames();
  for (auto it = names.begin(); it != names.end();) {
    const std::string name = (it++)->first;  // on to the next one before this one goes
    if (!tunnelRibConfigDir_->config(name)) {
      deleteTunnelRib(name);
    }
  }
}

void TunnelRibConfigDirSm::handleRibConfig(const std::string& name) {
  FASTLOG_TRACE(8, configSignature << " - configDir : " << name);
  unmade_.erase(name);
  const Zol::PtrConst<TunnelRibConfig> config = tunnelRibConfigDir_->config(name);
  if (!config) {
    deleteTunnelRib(name);
    return;
  }
  const TunnelRibId id = tunnelRibIdMap_->tunnelRibNameIs(name);
  const Zol::Ptr<TunnelRib> tunnelRib = id == 0 ? systemTunnelRib_ : mountCustomRib(name, id);
  if (!tunnelRib) {
    retryTask_.scheduleTaskLowestDelay(retryDelay);
    return;
  }
  tunnelRib->idIs(id);
  createTunnelRibSm(config, tunnelRib);
  // Whoever read what the new reactor wrote may have changed the configuration: then that reactor came too late.
  if (const Zol::PtrConst<TunnelRibConfig> present = tunnelRibConfigDir_->config(name); !(present == config)) {
    if (!present) {
      tunnelRibSmDel(id);
    }
    handleRibConfig(name);
  }
}

void TunnelRibConfigDirSm::retryUnmade() {
  for (const auto& [name, reason] : std::map(unmade_)) {
    handleRibConfig(name);
  }
}

// Null: not now.
Zol::Ptr<TunnelRib> TunnelRibConfigDirSm::mountCustomRib(const std::string& name, TunnelRibId id) {
  const auto unmadeFor = [this, &name](const Zol::Exception& reason) -> Zol::Ptr<TunnelRib> {
    FASTLOG_TRACE(3, "handleRibConfig: RIB " << name << " cannot be made: " << reason.what());
    unmade_[name] = reason.what();
    return nullptr;
  };
  try {
    entityManager_->doMount(statusPath(id), TunnelRib::entityTypeName, sharedTable(Statehub::Access::write));
  } catch (const Memtab::NoSpace& full) {
    return unmadeFor(full);
  } catch (const Memtab::FileRefused& refused) {
    return unmadeFor(refused);
  }
  const auto tunnelRib = Zol::dynamicPtrCast<TunnelRib>(entityManager_->getEntity(statusPath(id)));
  ZOL_ASSERT(tunnelRib);
  return tunnelRib;
}

void TunnelRibConfigDirSm::createTunnelRibSm(const Zol::PtrConst<TunnelRibConfig>& config,
                                             const Zol::Ptr<TunnelRib>& tunnelRib) {
  FASTLOG_TRACE(8, createSignature);
  Zol::Ptr<TunnelRibBaseSm> sm;
  if (tunnelRib->id() != 0) {
    sm = customTunnelRibSmFactory(config, tunnelTableInfoColl_, bgpLuConvergence_, entityManager_,
                                  unprogrammableTunnelIds_, tunnelRib, tunnelConvergence_, scheduler_);
  } else {
    sm = systemTunnelRibSmFactory(config, tunnelTableInfoColl_, bgpLuConvergence_, entityManager_,
                                  unprogrammableTunnelIds_, tunnelRib, tunnelConvergence_, protoTunnelRibColl_,
                                  scheduler_);
  }
  keepDeadline(tunnelRibSm_.child(tunnelRib->id()), sm);
  tunnelRibSmIs(tunnelRib->id(), sm);
}

void TunnelRibConfigDirSm::deleteTunnelRib(const std::string& name) {
  FASTLOG_TRACE(8, deleteSignature << " - configDir : " << name);
  const std::optional<TunnelRibId> id = tunnelRibIdMap_->tunnelRibNameDel(name);
  if (!id) {
    return;
  }
  tunnelRibSmDel(*id);
  // For the system RIB nothing was ever mounted there.
  entityManager_->cleanup(statusPath(*id));
  entityManager_->doUnmount(statusPath(*id));
  tunnelConvergence_->tunnelRibConvergenceSeqnoDel(*id);
}

}  // namespace Tunnel::TunnelTable
