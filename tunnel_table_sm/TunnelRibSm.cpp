#include "tunnel_table_sm/TunnelRibSm.h"

#include "runtime/Fastlog/TraceHelper.h"

FASTLOG_DEFAULT_HANDLE("TunnelRibSm")

namespace Tunnel::TunnelTable {
namespace {

#define BASE "void Tunnel::TunnelTable::TunnelRibBaseSm::"
constexpr auto initializedSignature = BASE "handleInitialized()";
constexpr auto allConfigSignature = BASE "handleRibConfig()";
constexpr auto configSignature = BASE "handleRibConfig(Tunnel::TunnelTable::TunnelTableIdentifier)";
#undef BASE

}  // namespace

TunnelRibBaseSm::TunnelRibBaseSm(Zol::PtrConst<TunnelRibConfig> tunnelRibConfig,
                                 Zol::PtrConst<TunnelTableInfoCollection> tunnelTableInfoColl,
                                 Zol::PtrConst<BgpLuConvergence> bgpLuConvergence,
                                 Zol::Ptr<Statehub::EntityManager> entityManager,
                                 Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds, bool supportPreferenceRemap,
                                 Zol::Ptr<TunnelRib> tunnelRib, Zol::Ptr<TunnelConvergence> tunnelConvergence,
                                 Zol::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl,
                                 Zol::Ptr<Quor::TaskScheduler> scheduler)
    : tunnelRibConfig_(*this, std::move(tunnelRibConfig), &TunnelRibConfig::entryChannel,
                       {.onKey = &TunnelRibBaseSm::handleRibConfig}),
      infos_(*this, std::move(tunnelTableInfoColl), &TunnelTableInfoCollection::tunnelTableInfoChannel, {}),
      bgpLuConvergence_(*this, std::move(bgpLuConvergence), &BgpLuConvergence::bgpLuConvergedChannel, {}),
      entityManager_(std::move(entityManager)),
      unprogrammableTunnelIds_(std::move(unprogrammableTunnelIds)),
      supportPreferenceRemap_(supportPreferenceRemap),
      tunnelRib_(std::move(tunnelRib)),
      tunnelConvergence_(std::move(tunnelConvergence)),
      tunnelTableEntities_(*this, nullptr, &TunnelTableEntities::tunnelTableChannel, {}),
      protoTunnelRibColl_(std::move(protoTunnelRibColl)),
      scheduler_(std::move(scheduler)),
      tableTypeFilter_(*this),
      tunnelTablesMountSm_(*this),
      tunnelRibBuilderSm_(*this),
      tableEntryFilter_(*this),
      preferenceMapperSm_(*this) {
  handleInitialized();
}

// The order matters: whoever reads comes after what it reads is filled.
void TunnelRibBaseSm::handleInitialized() {
  FASTLOG_TRACE(8, initializedSignature);
  tableTypeFilterIs();
  TunnelRibBaseSm::tunnelTableEntitiesIs(tunnelTableEntitiesFactory());
  handleRibConfig();
  tunnelTablesMountSmIs(tunnelTableInfoColl(), tableTypeFilter(), entityManager_, tunnelTableEntities());
  if (supportPreferenceRemap_) {
    tableEntryFilterIs();
    preferenceMapperSmIs(tunnelTableEntities(), unprogrammableTunnelIds_, tunnelRibConfig(), tableEntryFilter());
  }
  tunnelRibBuilderSmIs(tunnelTableEntities(), unprogrammableTunnelIds_, supportPreferenceRemap_, tableEntryFilter(),
                       tunnelRib_, bgpLuConvergence(), tunnelConvergence_, protoTunnelRibColl_, scheduler_,
                       scheduler_->activityConfig().clock());
}

void TunnelRibBaseSm::tunnelTableEntitiesIs(Zol::Ptr<TunnelTableEntities> entities) {
  tunnelTableEntities_.notifierIs(entities);
  entities_ = std::move(entities);
}

void TunnelRibBaseSm::handleRibConfig() {
  FASTLOG_TRACE(8, allConfigSignature);
  for (auto it = tunnelRibConfig_->entry().begin(); it; ++it) {
    handleRibConfig(it.key());
  }
}

void TunnelRibBaseSm::handleRibConfig(const TunnelTableIdentifier& table) {
  FASTLOG_TRACE(8, configSignature << " handling config entry updates");
  const std::string& name = TableIdToNameMap()[table];  // a table without a name gets an empty one, for good
  if (tunnelRibConfig_->entry(table)) {
    tableTypeFilter_->tableIs(name);
  } else {
    tableTypeFilter_->tableDel(name);
  }
}

SystemTunnelRibSm::SystemTunnelRibSm(Zol::PtrConst<TunnelRibConfig> tunnelRibConfig,
                                     Zol::PtrConst<TunnelTableInfoCollection> tunnelTableInfoColl,
                                     Zol::PtrConst<BgpLuConvergence> bgpLuConvergence,
                                     Zol::Ptr<Statehub::EntityManager> entityManager,
                                     Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds, Zol::Ptr<TunnelRib> tunnelRib,
                                     Zol::Ptr<TunnelConvergence> tunnelConvergence,
                                     Zol::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl,
                                     Zol::Ptr<Quor::TaskScheduler> scheduler)
    : TunnelRibBaseSm(std::move(tunnelRibConfig), std::move(tunnelTableInfoColl), std::move(bgpLuConvergence),
                      std::move(entityManager), std::move(unprogrammableTunnelIds), false, std::move(tunnelRib),
                      std::move(tunnelConvergence), std::move(protoTunnelRibColl), std::move(scheduler)) {}

CustomTunnelRibSm::CustomTunnelRibSm(Zol::PtrConst<TunnelRibConfig> tunnelRibConfig,
                                     Zol::PtrConst<TunnelTableInfoCollection> tunnelTableInfoColl,
                                     Zol::PtrConst<BgpLuConvergence> bgpLuConvergence,
                                     Zol::Ptr<Statehub::EntityManager> entityManager,
                                     Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds, Zol::Ptr<TunnelRib> tunnelRib,
                                     Zol::Ptr<TunnelConvergence> tunnelConvergence,
                                     Zol::Ptr<Quor::TaskScheduler> scheduler)
    : TunnelRibBaseSm(std::move(tunnelRibConfig), std::move(tunnelTableInfoColl), std::move(bgpLuConvergence),
                      std::move(entityManager), std::move(unprogrammableTunnelIds), true, std::move(tunnelRib),
                      std::move(tunnelConvergence), nullptr, std::move(scheduler)) {}

}  // namespace Tunnel::TunnelTable
