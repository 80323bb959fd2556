#include "tools/Verification.h"

#include <chrono>
#include <set>
#include <thread>
#include <tuple>
#include <utility>

#include "agent/StartGate.h"
#include "tools/Shadow.h"

namespace Tools {
namespace {

struct Split {
  std::vector<Difference> known;
  std::vector<Difference> fresh;
};

// Which of found are also in before.
Split splitBy(const std::vector<Difference>& before, std::vector<Difference> found) {
  const auto wordsOf = [](const Difference& each) {
    return std::tuple(each.where, each.key, each.what, Difference::textOf(each.left), Difference::textOf(each.right));
  };
  std::set<decltype(wordsOf(found[0]))> known;
  for (const Difference& each : before) {
    known.insert(wordsOf(each));
  }
  Split split;
  for (Difference& each : found) {
    (known.contains(wordsOf(each)) ? split.known : split.fresh).push_back(std::move(each));
  }
  return split;
}

}  // namespace

Verdict verify(const std::string& stateDirectory) {
  Verdict verdict;
  std::vector<Difference> standing;
  for (unsigned tries = 1;; ++tries) {
    StateReading reading(stateDirectory);
    const auto sequences = sequencesOf(reading);
    verdict.isAgentRunning = reading.state().entityManager()->mirror(Agent::fibPath)->isOwned();
    verdict.fibEntries = reading.state().fib()->entry().size();
    verdict.incomplete = Agent::StartGate(reading.state()).waitingFor();
    std::vector<Difference> found;
    if (verdict.incomplete.empty()) {
      const Shadow shadow(reading);
      compareStates(reading.state(), shadow.host(), [&](const Difference& each) { found.push_back(each); });
    }
    if (found.empty() && verdict.incomplete.empty()) {
      return verdict;
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(verifyPauseSeconds));
    if (sequencesOf(reading) == sequences) {
      verdict.wrong = std::move(found);
      return verdict;
    }
    Split split = tries == 1 ? Split{std::move(found), {}} : splitBy(standing, std::move(found));
    standing = std::move(split.known);
    if (tries == verifyTries) {
      verdict.wrong = std::move(standing);
      verdict.inFlight = std::move(split.fresh);
      return verdict;
    }
  }
}

}  // namespace Tools
