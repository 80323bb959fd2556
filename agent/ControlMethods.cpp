#include "agent/ControlMethods.h"

#include <algorithm>
#include <memory>
#include <set>
#include <sstream>
#include <vector>

#include "agent/InputError.h"
#include "agent/Log.h"
#include "runtime/Fastlog/TraceRegistry.h"
#include "runtime/Fastlog/TraceSetting.h"

namespace Agent {
namespace {

constexpr std::size_t settingsMax = 64;
constexpr std::size_t sourceBytesMax = 64;

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

// Levels can be set before a source makes its first line. Of names that are no source yet only so many are remembered:
// they cost memory, and most are misspelt.
class TraceLevels {
 public:
  OrderedJson get() {
    const auto sources = Fastlog::TraceRegistry::instance().sources();
    OrderedJson list = OrderedJson::array();
    for (const auto& [source, level] : sources) {
      list.push_back({{"source", source}, {"level", level}});
      early_.erase(source);
    }
    OrderedJson early = OrderedJson::array();
    for (const std::string& source : early_) {
      early.push_back({{"source", source}, {"level", Fastlog::TraceRegistry::instance().level(source)}});
    }
    return {{"default", Fastlog::TraceRegistry::instance().level("*")},
            {"sources", std::move(list)},
            {"early", std::move(early)}};
  }

  OrderedJson set(const JsonField& params) {
    takeOnly(params, {"settings"});
    std::vector<Fastlog::TraceSetting> settings;
    std::set<std::string> early = early_;
    const JsonField list = params.member("settings");
    list.forEachElement(settingsMax, "settings", [&](const JsonField& field) {
      settings.push_back(read(field));
      if (settings.back().source == "*") {
        early.clear();
      } else if (!isSource(settings.back().source)) {
        early.insert(settings.back().source);
        field.require(early.size() <= settingsMax, "too many levels for sources that there are not");
      }
    });
    early_ = std::move(early);
    for (const Fastlog::TraceSetting& setting : settings) {
      Fastlog::TraceRegistry::instance().levelIs(setting.source, setting.level);
      log(LogLevel::info, "trace " + printable(setting.source) + "=" + std::to_string(setting.level));
    }
    return get();
  }

 private:
  static Fastlog::TraceSetting read(const JsonField& field) {
    try {
      const Fastlog::TraceSetting setting = Fastlog::TraceSetting::parse(field.text());
      field.require(setting.source.size() <= sourceBytesMax, "a source's name of more than 64 bytes");
      return setting;
    } catch (const Zol::Exception& error) {
      field.fail(error.what());
    }
  }
  static bool isSource(const std::string& name) {
    const auto sources = Fastlog::TraceRegistry::instance().sources();
    return std::any_of(sources.begin(), sources.end(), [&](const auto& each) { return each.first == name; });
  }

  std::set<std::string> early_;  // names that were set before there was such a source
};

}  // namespace

RpcMethods controlMethods(ControlTarget& target) {
  const auto levels = std::make_shared<TraceLevels>();
  const auto withoutParams = [](auto method) {
    return [method](const JsonField& params) {
      takeOnly(params, {});
      return method();
    };
  };
  return {{"config.get", withoutParams([&target] { return configGet(target); })},
          {"config.apply", [&target](const JsonField& params) { return configApply(target, params); }},
          {"trace.get", withoutParams([levels] { return levels->get(); })},
          {"trace.set", [levels](const JsonField& params) { return levels->set(params); }},
          {"stats.get", withoutParams([&target] { return target.stats(); })}};
}

}  // namespace Agent
