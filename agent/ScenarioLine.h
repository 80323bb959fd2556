// ScenarioLine: one line of a scenario, read and checked as far as that needs no state.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "agent/EntryDraft.h"

namespace Agent {

struct RibLine {
  std::string name;
  std::map<TableId, std::optional<Model::TunnelEntryPref>> tables;  // with the preference that each gets in the RIB
};
struct RibDeleteLine {
  std::string name;
};
struct PutLine {
  TableId table;
  EntryDraft entry;
};
struct DeleteLine {
  TableId table;
  std::uint64_t index;
};
struct MountLine {
  TableId table;
  bool isMounted;
};
struct ConvergedLine {
  bool isConverged;
  std::optional<std::uint64_t> seqno;  // nothing: the bgpLu table's
};
struct SettleLine {};
struct AdvanceLine {
  double seconds;
};
struct CheckpointLine {
  std::string name;
};

using ScenarioLine = std::variant<RibLine, RibDeleteLine, PutLine, DeleteLine, MountLine, ConvergedLine, SettleLine,
                                  AdvanceLine, CheckpointLine>;

constexpr double advanceSecondsMax = 1e9;
// Of a RIB's or checkpoint's name, in bytes.
constexpr std::size_t nameSizeMax = 240;

// What the line says; nothing for a blank line and a comment. A carriage return at the end is a blank. Raises
// InputError.
std::optional<ScenarioLine> scenarioLine(std::string_view text);

}  // namespace Agent
