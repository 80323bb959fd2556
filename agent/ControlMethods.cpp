#include "agent/ControlMethods.h"

#include <algorithm>
#include <sstream>
#include <vector>

#include "agent/InputError.h"
#include "agent/Log.h"
#include "agent/Tracing.h"
#include "runtime/Fastlog/TraceRegistry.h"
#include "tunnel_table_sm/TunnelTracing.h"

namespace Agent {
namespace {

constexpr std::size_t settingsMax = 64;

void takeOnly(const JsonField& params, std::initializer_list<const char*> known) {
  params.forEachMember([&](const std::string& key, const JsonField& field) {
    field.require(std::find(known.begin(), known.end(), key) != known.end(), "unknown key");
  });
}

OrderedJson configGet(const ControlTarget& target) {
  OrderedJson ribs = OrderedJson::array();
  for (const auto& [name, line] : target.config()) {
    ribs.push_back(ribJson(line));
  }
  return {{"source", target.configSource()}, {"ribs", std::move(ribs)}};
}

// Names in one configuration that are not, or not the same, in the other.
std::vector<std::string> missingOf(const AgentConfig& from, const AgentConfig& in) {
  std::vector<std::string> names;
  for (const auto& [name, line] : from) {
    if (!in.contains(name)) {
      names.push_back(name);
    }
  }
  return names;
}
std::vector<std::string> changedOf(const AgentConfig& from, const AgentConfig& to) {
  std::vector<std::string> names;
  for (const auto& [name, line] : from) {
    const auto now = to.find(name);
    if (now != to.end() && ribJson(now->second) != ribJson(line)) {
      names.push_back(name);
    }
  }
  return names;
}

OrderedJson configApply(ControlTarget& target, const JsonField& params) {
  takeOnly(params, {"config", "name"});
  const JsonField text = params.member("config");
  std::string name = "config";
  if (params.has("name")) {
    const JsonField given = params.member("name");
    name = printable(given.text(), nameSizeMax);
  }
  std::istringstream in(text.text());
  AgentConfig config = readConfig(in, name);
  if (!target.isConfigurable()) {
    throw ScenarioError(name, "tables cannot be read now, see the agent's log; the configuration stays as it was");
  }
  const AgentConfig before = target.config();
  const OrderedJson result = {{"ribs", config.size()},
                              {"added", missingOf(config, before)},
                              {"changed", changedOf(before, config)},
                              {"removed", missingOf(before, config)}};
  target.configIs(std::move(config), "control");
  return result;
}

OrderedJson traceGet() {
  const Fastlog::TraceRegistry& registry = Fastlog::TraceRegistry::instance();
  OrderedJson sources = OrderedJson::array();
  for (const char* const source : Tunnel::traceSources) {
    sources.push_back({{"source", source}, {"level", registry.level(source)}});
  }
  return {{"default", registry.level("*")}, {"sources", std::move(sources)}};
}

OrderedJson traceSet(const JsonField& params) {
  takeOnly(params, {"settings"});
  std::vector<Fastlog::TraceSetting> settings;
  params.member("settings").forEachElement(settingsMax, "settings", [&](const JsonField& field) {
    try {
      settings.push_back(readTraceSetting(field.text()));
    } catch (const Zol::Exception& error) {
      field.fail(error.what());
    }
  });
  for (const Fastlog::TraceSetting& setting : settings) {
    Fastlog::TraceRegistry::instance().levelIs(setting.source, setting.level);
    log(LogLevel::info, "trace " + setting.source + "=" + std::to_string(setting.level));
  }
  return traceGet();
}

}  // namespace

RpcMethods controlMethods(ControlTarget& target) {
  const auto withoutParams = [](auto method) {
    return [method](const JsonField& params) {
      takeOnly(params, {});
      return method();
    };
  };
  return {{"config.get", withoutParams([&target] { return configGet(target); })},
          {"config.apply", [&target](const JsonField& params) { return configApply(target, params); }},
          {"trace.get", withoutParams(traceGet)},
          {"trace.set", traceSet},
          {"stats.get", withoutParams([&target] { return target.stats(); })}};
}

}  // namespace Agent
