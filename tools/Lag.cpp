#include "tools/Lag.h"

#include "agent/StartGate.h"
#include "tools/InputDamage.h"

namespace Tools {
namespace {

std::vector<std::string> reasonsIn(StateReading& reading) {
  const Agent::AgentState& state = reading.state();
  std::vector<std::string> reasons = Agent::StartGate(state).waitingFor();
  const InputDamage damage(reading);
  for (const InputDamage::Line& line : damage.lines()) {
    reasons.push_back(line.text);
  }
  if (!state.entityManager()->mirror(Agent::fibPath)->isOwned()) {
    reasons.emplace_back("no agent is running");
  } else if (reasons.empty()) {
    reasons.emplace_back("the agent is behind");
  }
  return reasons;
}

}  // namespace

Lag lagOf(StateReading& reading, const Shadow& shadow, const ComparisonScope& scope, std::size_t limit) {
  Lag lag;
  compareStates(reading.state(), shadow.host(), scope, [&](const Difference& each) {
    lag.differences.push_back(each);
    return lag.differences.size() < limit;
  });
  if (!lag.differences.empty()) {
    lag.reasons = reasonsIn(reading);
  }
  return lag;
}

std::string reasonsOf(const Lag& lag) {
  std::string words;
  for (const std::string& reason : lag.reasons) {
    words += (words.empty() ? "" : "; ") + reason;
  }
  return words;
}

OrderedJson lagJson(const Lag& lag) { return {{"asDue", lag.differences.empty()}, {"reasons", lag.reasons}}; }

}  // namespace Tools
