#include "tools/Verification.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <thread>
#include <tuple>
#include <utility>

#include "agent/StartGate.h"
#include "tools/InputDamage.h"
#include "tools/Shadow.h"

namespace Tools {
namespace {

using Clock = std::chrono::steady_clock;

using Place = std::pair<std::string, std::string>;
using Words = std::tuple<std::string, std::string, std::string>;

Place placeOf(const Difference& each) { return {each.where, each.key}; }

// All that differs in each place.
std::map<Place, std::set<Words>> byPlace(const std::vector<Difference>& differences) {
  std::map<Place, std::set<Words>> places;
  for (const Difference& each : differences) {
    places[placeOf(each)].emplace(each.what, Difference::textOf(each.left), Difference::textOf(each.right));
  }
  return places;
}

struct Split {
  std::vector<Difference> standing;
  std::vector<Difference> fresh;
};

// Those in places that differ as they did before, and the others.
Split splitBy(const std::vector<Difference>& before, std::vector<Difference> found) {
  const auto was = byPlace(before);
  const auto is = byPlace(found);
  Split split;
  for (Difference& each : found) {
    const auto present = was.find(placeOf(each));
    const bool isStanding = present != was.end() && present->second == is.at(placeOf(each));
    (isStanding ? split.standing : split.fresh).push_back(std::move(each));
  }
  return split;
}

// Whether some table of the directory is not as it was; a running agent gets time to act.
bool moves(StateReading& reading, const Sequences& since, bool isAgentRunning) {
  const auto end = Clock::now() + (isAgentRunning ? verifyAgentTime : verifyStillTime);
  for (;;) {
    if (sequencesOf(reading) != since) {
      return true;
    }
    if (Clock::now() >= end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// Files of which not even the structure can be read.
std::vector<std::string> unreadableTables(StateReading& reading) {
  std::vector<std::string> lines;
  for (const TableFile& file : reading.files()) {
    if (!file.mirror->trouble().empty()) {
      lines.push_back(troubleOf(file));
    }
  }
  return lines;
}

std::vector<std::string> damagedTables(StateReading& reading, const InputDamage& damage) {
  std::vector<std::string> lines;
  for (const InputDamage::Line& line : damage.lines()) {
    lines.push_back(line.text);
  }
  for (const TableDamage& table : reading.damagedTables()) {
    const std::string words = "table " + table.name + " (" + table.path + "): damaged";
    if (std::none_of(lines.begin(), lines.end(), [&](const std::string& line) { return line.starts_with(words); })) {
      lines.push_back(words + "; unreadable records are missing in the comparison");
    }
  }
  return lines;
}

}  // namespace

Verdict verify(const std::string& stateDirectory, bool withJson) {
  Verdict verdict;
  std::vector<Difference> standing;
  for (unsigned tries = 1;; ++tries) {
    StateReading reading(stateDirectory);
    const Sequences sequences = sequencesOf(reading);
    const auto isOwned = [&reading](const char* path) {
      return reading.state().entityManager()->mirror(path)->isOwned();
    };
    verdict.isAgentRunning = isOwned(Agent::fibPath) || isOwned(Agent::systemRibPath);
    verdict.fibEntries = reading.state().fib()->entry().size();
    verdict.incomplete = Agent::StartGate(reading.state()).waitingFor();
    std::vector<Difference> found;
    verdict.unjudged.clear();
    verdict.damaged = unreadableTables(reading);
    if (verdict.incomplete.empty() && verdict.damaged.empty()) {
      const Shadow shadow(reading);
      const InputDamage damage(reading);
      compareStates(reading.state(), shadow.host(), {.tunnels = {}, .teps = {}, .withJson = withJson},
                    [&](const Difference& each) {
                      (damage.affects(each) ? verdict.unjudged : found).push_back(each);
                      return true;
                    });
      verdict.damaged = damagedTables(reading, damage);
    }
    if (found.empty() && verdict.damaged.empty() && verdict.incomplete.empty()) {
      return verdict;
    }
    if (!moves(reading, sequences, verdict.isAgentRunning)) {
      verdict.wrong = std::move(found);
      return verdict;
    }
    Split split = tries == 1 ? Split{std::move(found), {}} : splitBy(standing, std::move(found));
    standing = std::move(split.standing);
    if (tries == verifyTries) {
      verdict.wrong = std::move(standing);
      verdict.inFlight = std::move(split.fresh);
      return verdict;
    }
    std::this_thread::sleep_for(verifyPause);
  }
}

}  // namespace Tools
