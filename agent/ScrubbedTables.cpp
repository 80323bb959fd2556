#include "agent/ScrubbedTables.h"

#include <memory>
#include <utility>

#include "agent/InputError.h"
#include "tunnel_table_sm/TunnelFibKeeper.h"
#include "tunnel_table_sm/TunnelRibKeeper.h"

namespace Agent {
namespace {

// A status table says what entities of the host say: all of it is written again.
class StatusKeeper final : public Model::TableKeeper {
 public:
  explicit StatusKeeper(StatusWriter& writer) : writer_(writer) {}
  std::vector<std::string> review(unsigned, std::uint64_t, std::uint64_t, bool) override {
    writer_.writeAll();
    return {};
  }
  std::string nameOf(unsigned, Memtab::Bytes) const override { return "a record"; }
  bool isSettled() const override { return writer_.trouble().empty(); }

 private:
  StatusWriter& writer_;
};

Model::TunnelRibKeeper::Builder builderOf(AgentHost& host, Model::TunnelRibId id) {
  return [&host, id]() -> Model::TunnelRibBuilderSm* {
    const auto* const sm = host.ribConfigDirSm() == nullptr ? nullptr : host.ribConfigDirSm()->tunnelRibSm().find(id);
    return sm == nullptr ? nullptr : (*sm)->tunnelRibBuilderSm().get();
  };
}

}  // namespace

std::vector<Model::TableScrubber::Table> scrubbedTables(AgentHost& host, StatusWriter* status) {
  std::vector<Model::TableScrubber::Table> tables;
  if (host.fibSm() == nullptr) {
    return tables;
  }
  tables.push_back({"fib", host.fib()->entry().sharedStore(), std::make_unique<Model::TunnelFibKeeper>(host.fibSm())});
  for (const auto& [name, id] : host.ribIds()->tunnelRibNames()) {
    if (const auto rib = host.rib(id); rib && !rib->isPlaceholder()) {
      tables.push_back({"rib " + printable(name), rib->sharedStore(),
                        std::make_unique<Model::TunnelRibKeeper>(rib, builderOf(host, id))});
    }
  }
  for (const auto& [type, wrapper] : host.protocolRibs()->protocolTunnelRib()) {
    const auto& rib = wrapper->tunnelRib();
    tables.push_back({"protocolRib " + std::string(Model::stringValue(type)), rib->sharedStore(),
                      std::make_unique<Model::TunnelRibKeeper>(rib, builderOf(host, 0), type)});
  }
  if (status != nullptr) {
    for (auto& [name, map] : status->tables()) {
      tables.push_back({"status/" + name, map->sharedStore(), std::make_unique<StatusKeeper>(*status)});
    }
  }
  return tables;
}

}  // namespace Agent
