// "show unprogrammable": the tunnels that have a table entry and no way, and for what reasons.

#include <algorithm>
#include <iostream>
#include <iterator>
#include <set>

#include "tools/Commands.h"
#include "tools/Shadow.h"
#include "tools/ShowCommand.h"
#include "tools/TableWalk.h"

namespace Tools {
namespace {

std::set<Model::TunnelId> listed(StateReading& reading, const EntryFilter& filter) {
  std::set<Model::TunnelId> ids;
  for (const auto& [id, isThere] : reading.state().unprogrammable()->entry()) {
    bool isFitting = filter.isEmpty();
    if (!isFitting && filter.doesFit(id)) {
      visitEntry(reading.state().tables(), id, [&](const auto& entry) { isFitting = filter.doesFitEntry(entry); });
    }
    if (isFitting) {
      ids.insert(id);
    }
  }
  return ids;
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : ", ") + word;
  }
  return text;
}

}  // namespace

std::vector<std::string> reasonsOf(const Shadow& shadow, const Model::TunnelId& tunnel) {
  const Agent::AgentHost& host = shadow.host();
  const Agent::Explanation explanation =
      Agent::explain(*host.fibSm(), *host.ribConfigDirSm(), *host.ribIds(), tunnel, Agent::Follow::ways);
  const Agent::ExplainedTunnel& explained = explanation.tunnels.at(tunnel);
  std::vector<std::string> reasons;
  for (unsigned bit = 0; bit < std::size(Model::TunnelFibViaCalcResult::flagNames); ++bit) {
    const auto& vias = explained.finding.vias;
    if (std::any_of(vias.begin(), vias.end(), [bit](const auto& via) { return via.result.flag(bit); })) {
      reasons.emplace_back(Model::TunnelFibViaCalcResult::flagNames[bit]);
    }
  }
  return reasons.empty() ? std::vector{Agent::stringValue(explained.standing)} : reasons;
}

bool hasReason(const std::vector<std::string>& reasons, const std::string& reason) {
  const std::vector<std::string> good = {Agent::stringValue(Agent::FibStanding::programmed)};
  return reason == "any" ? reasons != good : std::find(reasons.begin(), reasons.end(), reason) != reasons.end();
}

std::vector<std::string> unprogrammableReasons() {
  std::vector<std::string> reasons = {"any"};
  reasons.insert(reasons.end(), std::begin(Model::TunnelFibViaCalcResult::flagNames),
                 std::end(Model::TunnelFibViaCalcResult::flagNames));
  for (auto standing = Agent::FibStanding::programmed; standing <= Agent::FibStanding::tooManyBackupVias;
       standing = Agent::FibStanding(int(standing) + 1)) {
    reasons.push_back(Agent::stringValue(standing));
  }
  return reasons;
}

int showUnprogrammable(const ListOptions& options) {
  const auto after = options.after ? optionValue<Model::TunnelId>("--after", *options.after) : Model::TunnelId();
  StateReading reading(options.stateDirectory);
  reading.status();
  reading.requireTable(Agent::unprogrammablePath);
  const std::set<Model::TunnelId> ids = listed(reading, options.filter.amongUnprogrammable(reading.state()));
  std::optional<Shadow> shadow;
  if (!options.reason.empty()) {
    shadow.emplace(reading);
  }
  Rows rows(std::cout, options.isJson, "unprogrammable",
            shadow ? Cells{"tunnel", "tep", "reasons"} : Cells{"tunnel", "tep"}, options.limit);
  auto at = ids.upper_bound(after);  // the zero id stands before them all
  for (bool isMore = true; isMore && at != ids.end(); ++at) {
    const std::vector<std::string> reasons = shadow ? reasonsOf(*shadow, *at) : std::vector<std::string>();
    if (shadow && options.reason != "any" &&
        std::find(reasons.begin(), reasons.end(), options.reason) == reasons.end()) {
      continue;
    }
    const auto cells = [&] {
      const Ipkit::IpGenPrefix tep = tepOf(reading.state(), *at);
      return Cells{Zol::stringOf(*at), !tep ? "-" : Zol::stringOf(tep), joined(reasons)};
    };
    isMore = rows.add(*at, cells, [&] {
      return shadow ? OrderedJson{{"tunnel", Zol::stringOf(*at)}, {"reasons", reasons}}
                    : OrderedJson(Zol::stringOf(*at));
    });
  }
  rows.end();
  return toldDamage(reading.damages(), options.isJson);
}

}  // namespace Tools
