// "verify": compares what is published with what the tables say, once or again and again.

#include <csignal>
#include <ctime>
#include <iostream>
#include <memory>
#include <optional>

#include "agent/InputError.h"
#include "agent/Terminal.h"
#include "tools/ShadowCommands.h"
#include "tools/Verification.h"

namespace Tools {
namespace {

struct VerifyOptions : ShadowOptions {
  std::optional<double> everySeconds;
};

bool isRight(const Verdict& verdict) {
  return verdict.wrong.empty() && verdict.incomplete.empty() && verdict.damaged.empty();
}

const char* resultOf(const Verdict& verdict) {
  if (!verdict.incomplete.empty()) {
    return "incomplete";
  }
  if (!verdict.wrong.empty()) {
    return "wrong";
  }
  if (!verdict.damaged.empty()) {
    return "damaged";
  }
  return verdict.inFlight.empty() ? "same" : "inFlight";
}

OrderedJson listJson(const std::vector<Difference>& differences, std::uint64_t limit) {
  OrderedJson list = OrderedJson::array();
  for (std::size_t i = 0; i < differences.size() && i < limit; ++i) {
    list.push_back(differenceJson(differences[i], "published", "recomputed"));
  }
  return list;
}

void writeJson(const Verdict& verdict, const VerifyOptions& options) {
  const OrderedJson json = {{"result", resultOf(verdict)},
                            {"agentRunning", verdict.isAgentRunning},
                            {"fibEntries", verdict.fibEntries},
                            {"incomplete", verdict.incomplete},
                            {"damaged", verdict.damaged},
                            {"unjudgedCount", verdict.unjudged.size()},
                            {"unjudged", listJson(verdict.unjudged, options.shown())},
                            {"wrongCount", verdict.wrong.size()},
                            {"wrong", listJson(verdict.wrong, options.shown())},
                            {"inFlightCount", verdict.inFlight.size()},
                            {"inFlight", listJson(verdict.inFlight, options.shown())}};
  std::cout << (options.everySeconds ? Agent::textOf(json) : json.dump(1)) << std::endl;
}

void writeList(const std::vector<Difference>& differences, const char* kind, std::uint64_t limit) {
  for (std::size_t i = 0; i < differences.size() && i < limit; ++i) {
    std::cout << kind << publishedWords(differences[i]) << '\n';
  }
  if (differences.size() > limit) {
    std::cout << kind << differences.size() - limit << " more\n";
  }
}

void writeText(const Verdict& verdict, const VerifyOptions& options) {
  for (const std::string& line : verdict.incomplete) {
    std::cout << "cannot be told: " << line << '\n';
  }
  for (const std::string& line : verdict.damaged) {
    std::cout << Agent::printable(line, 1000) << '\n';
  }
  writeList(verdict.wrong, "", options.shown());
  writeList(verdict.inFlight, "in flight: ", options.shown());
  if (verdict.incomplete.empty()) {
    std::cout << verdict.fibEntries << " FIB entries, " << Agent::counted(verdict.wrong.size(), "difference") << ", "
              << verdict.inFlight.size() << " in flight"
              << (verdict.unjudged.empty()
                      ? ""
                      : ", " + std::to_string(verdict.unjudged.size()) + " not judged because of damage")
              << (verdict.isAgentRunning ? "" : "; no agent is running") << std::endl;
  }
}

// From now on a signal to end waits until it is asked for.
sigset_t withheldSignals() {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  sigprocmask(SIG_BLOCK, &ending, nullptr);
  return ending;
}

// Whether one of the signals came within the time.
bool comes(const sigset_t& signals, double seconds) {
  timespec time{};
  time.tv_sec = static_cast<std::time_t>(seconds);
  time.tv_nsec = static_cast<long>((seconds - static_cast<double>(time.tv_sec)) * 1e9);
  return sigtimedwait(&signals, nullptr, &time) > 0;
}

bool tellVerdict(const VerifyOptions& options) {
  const Verdict verdict = verify(options.stateDirectory, options.isJson);
  options.isJson ? writeJson(verdict, options) : writeText(verdict, options);
  return isRight(verdict);
}

int runVerify(const VerifyOptions& options) {
  if (!options.everySeconds) {
    return tellVerdict(options) ? exitDone : exitFailed;
  }
  const sigset_t ending = withheldSignals();
  bool wasRight = true;
  do {
    wasRight = tellVerdict(options) && wasRight;
  } while (std::cout && !comes(ending, *options.everySeconds));
  return wasRight ? exitDone : exitFailed;
}

}  // namespace

void addVerify(const Agent::Command& app, Action& action) {
  const Agent::Command command = app.command("verify", "Compare RIBs and FIB with the tables");
  const auto options = std::make_shared<VerifyOptions>();
  addShadowOptions(command, *options);
  addLimit(command, *options, 100);
  command.option("--every", options->everySeconds, "Again and again, with a pause of SECONDS, until a signal ends it")
      .word("SECONDS")
      .between(0.0, 1e9);
  command.onChosen([=, &action] { action = [=] { return runVerify(*options); }; });
}

}  // namespace Tools
