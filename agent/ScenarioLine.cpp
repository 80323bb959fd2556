// A line is known by the key that names its action. Each action is a row: its key, the other keys that it takes, and
// how the line is read.

#include "agent/ScenarioLine.h"

#include <algorithm>
#include <initializer_list>

#include "tunnel/TunnelRibConfig.h"

namespace Agent {
namespace {

std::string readName(const JsonField& in) {
  const std::string& name = in.text();
  in.require(!name.empty(), "an empty name");
  if (name.size() > nameSizeMax) {
    in.fail("a name of " + std::to_string(name.size()) + " bytes, at most " + std::to_string(nameSizeMax));
  }
  in.require(printable(name, name.size() + 1) == name, "a name with control characters");
  return name;
}

// Names a file.
std::string readFileName(const JsonField& in) {
  std::string name = readName(in);
  in.require(name.find('/') == std::string::npos, "a checkpoint's name with '/'");
  return name;
}

TableId readTable(const JsonField& in) {
  const std::string& name = in.text();
  try {
    return Model::tableIdFromText(name);
  } catch (const Zol::Exception&) {
    in.fail("'" + printable(name) + "' is not a tunnel table");
  }
}

ScenarioLine readRib(const JsonField& in, const JsonField& line) {
  RibLine rib{readName(in), {}};
  const JsonField tables = line.member("tables");
  tables.forEachMember([&rib](const std::string& key, const JsonField& table) {
    const auto* const id = std::find_if(std::begin(ribTables), std::end(ribTables),
                                        [&](TableId each) { return Zol::stringOf(each) == key; });
    table.require(id != std::end(ribTables), "not a table that RIBs take (bgpLu, ldp, nexthopGroup, sr, static)");
    std::optional<Model::TunnelEntryPref>& pref = rib.tables[*id];
    table.forEachMember([&](const std::string& name, const JsonField& field) {
      field.require(name == "pref", "unknown key");
      field.require(rib.name != Model::TunnelRibNameIdMap::systemTunnelRibName, "the system RIB takes no preferences");
      pref = static_cast<Model::TunnelEntryPref>(field.integer(UINT8_MAX));
    });
  });
  return rib;
}

ScenarioLine readEntry(const JsonField& in, const JsonField& line) {
  const TableId table = readTable(in);
  line.require(line.has("put") != line.has("delete"), "wants one of put and delete");
  if (line.has("put")) {
    const JsonField entry = line.member("put");
    return PutLine{table, entryDraft(table, entry)};
  }
  const JsonField index = line.member("delete");
  return DeleteLine{table, index.integer(Model::TunnelId::maxIndex)};
}

ScenarioLine readConverged(const JsonField& in, const JsonField& line) {
  ConvergedLine converged{in.boolean(), {}};
  if (line.has("seqno")) {
    const JsonField seqno = line.member("seqno");
    converged.seqno = seqno.integer(UINT64_MAX);
  }
  return converged;
}

ScenarioLine readSettle(const JsonField& in, const JsonField&) {
  in.require(in.boolean(), "not true");
  return SettleLine{};
}

struct ActionRow {
  const char* key;
  std::initializer_list<const char*> otherKeys;
  ScenarioLine (*read)(const JsonField& value, const JsonField& line);
};
const ActionRow actionRows[] = {
    {"rib", {"tables"}, readRib},
    {"ribDelete", {}, [](auto& in, auto&) -> ScenarioLine { return RibDeleteLine{readName(in)}; }},
    {"table", {"put", "delete"}, readEntry},
    {"mount",
     {},
     [](auto& in, auto&) -> ScenarioLine {
       return MountLine{readTable(in), true};
     }},
    {"unmount",
     {},
     [](auto& in, auto&) -> ScenarioLine {
       return MountLine{readTable(in), false};
     }},
    {"bgpLuConverged", {"seqno"}, readConverged},
    {"settle", {}, readSettle},
    {"advance", {}, [](auto& in, auto&) -> ScenarioLine { return AdvanceLine{in.number(advanceSecondsMax)}; }},
    {"checkpoint", {}, [](auto& in, auto&) -> ScenarioLine { return CheckpointLine{readFileName(in)}; }},
};

// The first key of the line that no action knows; empty: there is none.
std::string unknownKeyOf(const JsonField& line) {
  std::string unknown;
  line.forEachMember([&unknown](const std::string& key, const JsonField&) {
    const bool isKnown = std::any_of(std::begin(actionRows), std::end(actionRows), [&key](const ActionRow& row) {
      return key == row.key || std::find(row.otherKeys.begin(), row.otherKeys.end(), key) != row.otherKeys.end();
    });
    unknown = isKnown || !unknown.empty() ? unknown : printable(key);
  });
  return unknown;
}

const ActionRow& actionOf(const JsonField& line) {
  line.require(line.isObject(), "not a JSON object");
  const auto* const row =
      std::find_if(std::begin(actionRows), std::end(actionRows), [&](auto& each) { return line.has(each.key); });
  if (row == std::end(actionRows)) {
    std::string keys;
    for (const ActionRow& each : actionRows) {
      keys += (keys.empty() ? "" : ", ") + std::string(each.key);
    }
    const std::string unknown = unknownKeyOf(line);
    line.fail((unknown.empty() ? "" : "unknown key '" + unknown + "'; ") + "has none of the keys " + keys);
  }
  return *row;
}

}  // namespace

std::optional<ScenarioLine> scenarioLine(std::string_view text) {
  if (text.find_first_not_of(" \t\r") == std::string_view::npos) {
    return std::nullopt;
  }
  if (text.starts_with('#')) {
    requireUtf8(text);
    return std::nullopt;
  }
  const Json json = jsonFromText(text);
  const JsonField line(json);
  const ActionRow& action = actionOf(line);
  line.forEachMember([&action](const std::string& key, const JsonField& field) {
    const bool isTaken = key == action.key || std::any_of(action.otherKeys.begin(), action.otherKeys.end(),
                                                          [&key](const char* each) { return key == each; });
    field.require(isTaken, "unknown key");
  });
  const JsonField value = line.member(action.key);
  return action.read(value, line);
}

}  // namespace Agent
