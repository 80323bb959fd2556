#include "agent/AgentStatus.h"

#include <utility>
#include <vector>

#include "agent/InputError.h"
#include "agent/JsonText.h"
#include "tunnel_table_sm/TunnelRibConfigDirSm.h"

namespace Agent {
namespace {

constexpr Quor::TaskPriority retryPriority = 2;  // that of the backlogs
constexpr double retryDelay = 1;                 // seconds

template <class Record>
constexpr const char* tableTypeName();
template <>
constexpr const char* tableTypeName<RibStatus>() {
  return "Agent::RibStatusTable";
}
template <>
constexpr const char* tableTypeName<UnprogrammableStatus>() {
  return "Agent::UnprogrammableTable";
}
template <>
constexpr const char* tableTypeName<ConvergenceStatus>() {
  return "Agent::ConvergenceTable";
}
template <>
constexpr const char* tableTypeName<BgpLuDeclaration>() {
  return "Agent::BgpLuDeclarationTable";
}

template <class Record>
void registerTable() {
  Statehub::EntityTypes::typeIs(
      tableTypeName<Record>(), [](const std::string& path, const Memtab::StoreSource& source) -> Zol::Ptr<Zol::Entity> {
        using Table = StatusTable<Record>;
        return Zol::make<Table>(path, source(Table::layout()));
      });
}
[[maybe_unused]] const bool tablesKnown = [] {
  registerTable<RibStatus>();
  registerTable<UnprogrammableStatus>();
  registerTable<ConvergenceStatus>();
  registerTable<BgpLuDeclaration>();
  return true;
}();

RibConfigText arrayOf(const std::string& text) {
  RibConfigText array;
  for (const char c : text) {
    array.append(static_cast<std::uint8_t>(c));
  }
  return array;
}

template <class Table, class F>
void forEachRecord(const Table& table, F&& f) {
  Model::walkSafely(table, [&](const auto& hint) {
    typename Table::Record record;
    if (Model::readSafely(&table, hint.key(), record)) {
      f(record);
    }
  });
}

// Writes the records that differ and deletes those that are not among them.
template <class Table, class Records>
void makeEqual(Table& table, const Records& records) {
  std::vector<typename Table::Key> stale;
  Model::walkSafely(table, [&](const auto& hint) {
    if (!records.contains(hint.key())) {
      stale.push_back(hint.key());
    }
  });
  for (const auto& key : stale) {
    table.entryDel(key);
  }
  for (const auto& [key, record] : records) {
    table.entryIs(record);
  }
  table.collectionReadyIs(true);
}

ConvergenceStatus convergenceStatus(Model::TunnelRibId rib, std::uint64_t seqno) {
  ConvergenceStatus status;
  status.ribIdIs(rib);
  status.seqnoIs(seqno);
  return status;
}
UnprogrammableStatus unprogrammableStatus(const Model::TunnelId& id) {
  UnprogrammableStatus status;
  status.tunnelIdIs(id);
  return status;
}

}  // namespace

template <class Record>
Zol::Ptr<StatusTable<Record>> statusTable(Statehub::EntityManager& entityManager, const std::string& path,
                                          Statehub::Access access) {
  entityManager.doMount(path, tableTypeName<Record>(), Model::sharedTable(access));
  const auto table = Zol::dynamicPtrCast<StatusTable<Record>>(entityManager.getEntity(path));
  ZOL_ASSERT(table != nullptr);
  return table;
}
template Zol::Ptr<RibStatusTable> statusTable<RibStatus>(Statehub::EntityManager&, const std::string&,
                                                         Statehub::Access);
template Zol::Ptr<UnprogrammableTable> statusTable<UnprogrammableStatus>(Statehub::EntityManager&, const std::string&,
                                                                         Statehub::Access);
template Zol::Ptr<ConvergenceTable> statusTable<ConvergenceStatus>(Statehub::EntityManager&, const std::string&,
                                                                   Statehub::Access);
template Zol::Ptr<BgpLuDeclarationTable> statusTable<BgpLuDeclaration>(Statehub::EntityManager&, const std::string&,
                                                                       Statehub::Access);

std::string ribLineText(const Model::TunnelRibConfig& config) {
  OrderedJson tables = OrderedJson::object();
  for (const TableId table : ribTables) {
    if (const auto entry = config.entry(table)) {
      tables[Zol::stringOf(table)] =
          entry->prefMapping() ? OrderedJson{{"pref", *entry->prefMapping()}} : OrderedJson::object();
    }
  }
  return textOf(OrderedJson{{"rib", config.name()}, {"tables", std::move(tables)}});
}

RibLine ribLine(const RibStatus& status) {
  const std::string text(status.config().begin(), status.config().end());
  if (const std::optional<ScenarioLine> line = scenarioLine(text)) {
    if (const auto* const rib = std::get_if<RibLine>(&*line)) {
      return *rib;
    }
  }
  throw InputError("config", "no configuration of a RIB");
}

StatusReader::StatusReader(AgentState& state, bool isMounting)
    : state_(state),
      isMounting_(isMounting),
      ribStatus_(statusTable<RibStatus>(*state.entityManager(), ribStatusPath, Statehub::Access::read)),
      unprogrammable_(
          statusTable<UnprogrammableStatus>(*state.entityManager(), unprogrammablePath, Statehub::Access::read)),
      convergence_(statusTable<ConvergenceStatus>(*state.entityManager(), convergencePath, Statehub::Access::read)) {
  read();
}

void StatusReader::read() {
  ribs_.clear();
  const std::map<std::string, Model::TunnelRibId> before = state_.ribIds()->tunnelRibNames();
  for (const auto& [name, id] : before) {
    state_.ribIds()->tunnelRibNameDel(name);
  }
  forEachRecord(*ribStatus_, [&](const RibStatus& status) {
    try {
      addRib(status);
    } catch (const InputError& error) {
      ribStatus_->corruptionDetected("RIB " + std::to_string(status.ribId()) + ": " + error.what());
    }
  });
  state_.unprogrammable()->entryDelAll();
  forEachRecord(*unprogrammable_,
                [&](const UnprogrammableStatus& status) { state_.unprogrammable()->entryIs(status.tunnelId(), true); });
  forEachRecord(*convergence_, [&](const ConvergenceStatus& status) {
    state_.tunnelConvergence()->tunnelRibConvergenceSeqnoIs(status.ribId(), status.seqno());
  });
}

void StatusReader::addRib(const RibStatus& status) {
  RibLine line = ribLine(status);
  if (state_.ribIds()->tunnelRibId(line.name) ||
      (line.name == Model::TunnelRibNameIdMap::systemTunnelRibName) != (status.ribId() == 0)) {
    throw InputError("config.rib", "'" + printable(line.name) + "' cannot be the name of this RIB");
  }
  state_.ribIds()->tunnelRibIdIs(line.name, status.ribId());
  if (isMounting_ && status.ribId() != 0) {
    state_.entityManager()->doMount(Model::tunnelRibStatusPathPrefix + std::to_string(status.ribId()),
                                    Model::TunnelRib::entityTypeName, Model::sharedTable(Statehub::Access::read));
  }
  ribs_[status.ribId()] = std::move(line);
}

StatusWriter::StatusWriter(AgentState& state, const Zol::Ptr<Quor::TaskScheduler>& scheduler)
    : state_(state),
      ribStatus_(statusTable<RibStatus>(*state.entityManager(), ribStatusPath, Statehub::Access::write)),
      unprogrammable_(
          statusTable<UnprogrammableStatus>(*state.entityManager(), unprogrammablePath, Statehub::Access::write)),
      convergence_(statusTable<ConvergenceStatus>(*state.entityManager(), convergencePath, Statehub::Access::write)),
      retryTask_(*this, &StatusWriter::writeAll, scheduler, retryPriority, "StatusWriter"),
      unprogrammableListener_(*this),
      convergenceListener_(*this) {
  const StatusReader restored(state, false);
  unprogrammableListener_.channelIs(&state_.unprogrammable()->entryChannel());
  convergenceListener_.channelIs(&state_.tunnelConvergence()->tunnelRibConvergenceSeqno().channel());
  unprogrammable_->collectionReadyIs(true);
  convergence_->collectionReadyIs(true);
}

// One table that is full says nothing about the others, but all are tried again together.
template <class F>
void StatusWriter::write(F&& f) {
  try {
    f();
  } catch (const Memtab::NoSpace& full) {
    trouble_ = full.what();
    retryTask_.scheduleTaskLowestDelay(retryDelay);
  }
}

void StatusWriter::writeAll() {
  trouble_.clear();
  write([this] { makeEqual(*ribStatus_, ribs_); });
  write([this] {
    std::map<Model::TunnelId, UnprogrammableStatus> all;
    for (auto id = state_.unprogrammable()->entry().begin(); id; ++id) {
      all[id.key()] = unprogrammableStatus(id.key());
    }
    makeEqual(*unprogrammable_, all);
  });
  write([this] {
    std::map<Model::TunnelRibId, ConvergenceStatus> all;
    for (auto rib = state_.tunnelConvergence()->tunnelRibConvergenceSeqno().begin(); rib; ++rib) {
      all[rib.key()] = convergenceStatus(rib.key(), rib.value());
    }
    makeEqual(*convergence_, all);
  });
}

void StatusWriter::publishRibs(const Model::TunnelRibConfigDir& configs) {
  ribs_.clear();
  for (const auto& [name, id] : state_.ribIds()->tunnelRibNames()) {
    if (const auto config = configs.config(name)) {
      RibStatus status;
      status.ribIdIs(id);
      status.configIs(arrayOf(ribLineText(*config)));
      ribs_[id] = status;
    }
  }
  write([this] { makeEqual(*ribStatus_, ribs_); });
}

void StatusWriter::UnprogrammableListener::onKey(const Model::TunnelId& id) {
  writer.write([&] {
    if (writer.state_.unprogrammable()->has(id)) {
      writer.unprogrammable_->entryIs(unprogrammableStatus(id));
    } else {
      writer.unprogrammable_->entryDel(id);
    }
  });
}

void StatusWriter::ConvergenceListener::onKey(const Model::TunnelRibId& rib) {
  writer.write([&] {
    const auto& seqnos = writer.state_.tunnelConvergence()->tunnelRibConvergenceSeqno();
    if (seqnos.has(rib)) {
      writer.convergence_->entryIs(convergenceStatus(rib, seqnos.value(rib)));
    } else {
      writer.convergence_->entryDel(rib);
    }
  });
}

}  // namespace Agent
