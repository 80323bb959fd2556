#include "agent/ServeCommand.h"

#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "agent/AgentStats.h"
#include "agent/HeldUpCauses.h"
#include "agent/InputError.h"
#include "agent/Log.h"
#include "agent/Tracing.h"
#include "runtime/Memtab/CorruptionException.h"

namespace Agent {
namespace {

constexpr unsigned limitPriority = 2;
constexpr timespec beforeNewBeginning = {0, 100'000'000};  // whoever spoils tables all the time gets no more
constexpr timespec beforeNextTry = {1, 0};
constexpr timespec whileBusy = {0, 20'000'000};
constexpr double busySecondsMax = 1;

Memtab::Descriptor signalDescriptor() {
  sigset_t answered;
  sigemptyset(&answered);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    sigaddset(&answered, signal);
  }
  sigprocmask(SIG_BLOCK, &answered, nullptr);
  Memtab::Descriptor signals(signalfd(-1, &answered, SFD_NONBLOCK | SFD_CLOEXEC));
  if (!signals) {
    throw Zol::InternalException(std::string("signals: no descriptor to receive them: ") + std::strerror(errno));
  }
  return signals;
}

std::vector<std::string> directoriesOfAllTables() {
  return {"tunnel",
          "tunnel/table",
          "tunnel/status",
          "tunnel/protocolTunnelRibs",
          "tunnel/tunnelRibs",
          "tunnel/tunnelRibs/status"};
}

// Every RIB has a file; there may be more than the usual soft limit of 1024.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit);
  }
}

ConfigInForce configOf(const ServeOptions& options) {
  if (!options.configFile.empty()) {
    return {readConfigFile(options.configFile), options.configFile};
  }
  std::istringstream none;
  return {readConfig(none, ""), "default"};
}

// Whether a signal that ends the agent comes meanwhile.
bool endsWithin(const timespec& time) {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  return sigtimedwait(&ending, nullptr, &time) > 0;
}

}  // namespace

// Ends the wait for tables.
class ServeCommand::WaitLimit final : public Quor::TimerTask {
 public:
  WaitLimit(ServeCommand& command, double seconds)
      : TimerTask(command.host_.scheduler(), limitPriority, "WaitLimit"), command_(command) {
    scheduleTaskLowestDelay(seconds);
  }

 private:
  void run() override {
    log(LogLevel::warning, "wait limit reached; starting with incomplete tables");
    command_.start();
  }
  ServeCommand& command_;
};

ServeCommand::ServeCommand(ServeOptions options, ConfigInForce& config)
    : options_(std::move(options)),
      signals_(signalDescriptor()),
      config_(config),
      misfits_(misfits(options_.stateDirectory)),
      host_(time_, slicePolicy_, Zol::make<Statehub::EntityManager>(options_.stateDirectory)),
      status_(host_, host_.scheduler()),
      declaration_(statusTable<BgpLuDeclaration>(*host_.entityManager(), bgpLuDeclarationPath, Statehub::Access::read)),
      loop_(host_.scheduler()) {
  openTraceFile(options_.stateDirectory);
  for (const std::string& misfit : misfits_) {
    log(LogLevel::warning, misfit + "; the file is quarantined, and a new table takes its place");
  }
  forEachNamedTable([this](auto named) { host_.tables().table<typename decltype(named)::Table>()->follow(); });
  declaration_->follow();
  declarationListener_.channelIs(&declaration_->entryChannel());
  feed_ =
      std::make_unique<Statehub::TableFeed>(host_.entityManager(), host_.scheduler(), loop_, directoriesOfAllTables());
  const auto handleRescan = [this] {
    troubles_.look();
    publishers_.handleRescan();
    mendControlSocket();
    lookForTrouble();
  };
  feed_->rescannedCallbackIs(handleRescan);
  handleRescan();
  loop_.newsSourceIs(this);
  loop_.fdIs(signals_.get(), [this] { handleSignal(); });
  applyConfig(config_.config, *host_.ribConfigs());
  gate_.emplace(host_);
  startIfReady();
  if (gate_ && options_.waitSeconds) {
    waitLimit_ = std::make_unique<WaitLimit>(*this, *options_.waitSeconds);
  }
}

ServeCommand::~ServeCommand() {
  loop_.newsSourceIs(nullptr);
  if (scrubber_) {
    config_.scrubbed = scrubber_->counters();
  }
  scrubber_.reset();
  host_.stop();
}

// An agent that cannot be asked still forwards.
void ServeCommand::mendControlSocket() {
  if (control_ && control_->isInPlace()) {
    return;
  }
  control_.reset();
  controlTrouble_.clear();
  try {
    control_.emplace(options_.stateDirectory, host_.scheduler(), loop_,
                     [methods = controlMethods(*this)](std::string_view line) { return answerRpc(line, methods); });
  } catch (const Zol::Exception& error) {
    controlTrouble_ = error.what();
  }
}

void ServeCommand::run() {
  loop_.run();
  log(LogLevel::info, "stopped; RIBs and FIB stay");
}

void ServeCommand::look() {
  feed_->look();
  latency_.look();
  if (gate_) {
    startIfReady();
  }
  if (!gate_ && isDeclarationInForce_ != isBgpLuComplete()) {
    readDeclaration();
  }
  if (isReloadDue_ && troubles_.canReadAll()) {
    isReloadDue_ = false;
    reload();
  }
}

bool ServeCommand::mayFallAsleep() {
  if (!gate_ && !isReady_ && host_.isDrained()) {
    handleFirstDrain();
  }
  publishers_.look();
  counts_.look();
  lookForTrouble();
  if (!feed_->mayFallAsleep()) {
    return false;
  }
  // Readiness is no news of a table: who declared it since we looked has rung nobody.
  const bool isStartDue = gate_ && gate_->waitingFor() != waitingFor_;
  const bool isDeclarationDue = !gate_ && isDeclarationInForce_ != isBgpLuComplete();
  if (isStartDue || isDeclarationDue) {
    feed_->awake();
    return false;
  }
  return true;
}

void ServeCommand::lookForTrouble() {
  if (reasons_.areNow(reasonsNow())) {
    service_.look();
  }
}

// The one place where the list is computed.
std::vector<Reason> ServeCommand::reasonsNow() const {
  std::vector<Reason> reasons = troubles_.reasons();
  const auto add = [&reasons](const std::string& object, const std::string& problem, const char* consequence) {
    if (!problem.empty()) {
      reasons.push_back({object, problem, consequence});
    }
  };
  reasons.insert(reasons.end(), publishers_.reasons().begin(), publishers_.reasons().end());
  add("state directory", feed_->trouble(), "tried again every second; tables are read once a second meanwhile");
  add("status tables", status_.trouble(), "written again every second; readers see the state before");
  add("control socket", controlTrouble_, "the agent works without it until its place changes");
  if (scrubber_ && scrubber_->unrepaired() != 0) {
    reasons.push_back({"RIBs, FIB and status tables", "damaged records are not repaired yet",
                       "the next pass of the scrubber tries again"});
  }
  for (Reason& reason : heldUpReasons(options_.stateDirectory, host_.heldUp() != 0)) {
    reasons.push_back(std::move(reason));
  }
  if (host_.ribConfigDirSm() != nullptr) {
    for (const auto& [name, reason] : host_.ribConfigDirSm()->unmadeRibs()) {
      add("RIB " + printable(name), "cannot be made: " + reason, "tried again every second");
    }
  }
  return reasons;
}

void ServeCommand::startIfReady() {
  std::vector<std::string> waitingFor = gate_->waitingFor();
  if (waitingFor.empty()) {
    feed_->rescan();  // what became unreadable since told nobody
    waitingFor = gate_->waitingFor();
  }
  if (waitingFor.empty()) {
    start();
    return;
  }
  if (waitingFor != waitingFor_) {
    waitingFor_ = std::move(waitingFor);
    for (const std::string& each : waitingFor_) {
      logBounded(LogLevel::notice, "waiting", "waiting: " + each);
    }
    service_.look();
  }
}

void ServeCommand::start() {
  gate_.reset();
  waitLimit_.reset();
  waitingFor_.clear();
  configTask_.finish();
  readDeclaration();
  host_.start();
  status_.publishRibs(*host_.ribConfigs());
  scrubber_.emplace(
      host_.scheduler(), [this] { return scrubbedTables(host_, &status_); }, [this] { return !host_.isDrained(); },
      [](const std::string& line) {
        logBounded(LogLevel::error, "scrubber: " + line.substr(0, line.find(" (")), line);
      });
  scrubber_->countersAre(config_.scrubbed);
  log(LogLevel::info, "started over " + options_.stateDirectory + " with " + counted(config_.config.size(), "RIB"));
  service_.look();
}

void ServeCommand::handleFirstDrain() {
  isReady_ = true;
  host_.fib()->entry().collectionReadyIs(true);
  for (const auto& [name, id] : host_.ribIds()->tunnelRibNames()) {
    if (const auto rib = host_.rib(id)) {
      rib->collectionReadyIs(true);
    }
  }
  for (const auto& [type, wrapper] : host_.protocolRibs()->protocolTunnelRib()) {
    wrapper->tunnelRib()->collectionReadyIs(true);
  }
  counts_.ready();
  service_.ready();
}

// As stats.get and the status text have it.
const char* ServeCommand::stateWord() const {
  return gate_ ? "waiting" : !isReady_ ? "starting" : reasons_.texts().empty() ? "ready" : "degraded";
}

std::string ServeCommand::statusText() const {
  if (gate_) {
    std::string text = "waiting: ";
    for (const std::string& each : waitingFor_) {
      text += (&each == &waitingFor_.front() ? "" : "; ") + each;
    }
    return text;
  }
  const std::string reasons = reasons_.summary();
  return stateWord() + (": " + counts_.text()) + (reasons.empty() ? "" : "; " + reasons);
}

// While BGP fills its table anew, what was declared before says nothing about it.
void ServeCommand::readDeclaration() {
  isDeclarationInForce_ = isBgpLuComplete();
  BgpLuDeclaration declaration;
  if (Model::readSafely(declaration_.get(), 0U, declaration)) {
    host_.bgpLuConvergence()->bgpLuConvergedIs(declaration.converged() && isDeclarationInForce_, declaration.seqno());
  }
}

bool ServeCommand::isBgpLuComplete() const {
  return host_.tables().table<Model::BgpLuTunnelTable>()->collectionReady();
}

void ServeCommand::handleSignal() {
  signalfd_siginfo info{};
  while (read(signals_.get(), &info, sizeof info) == sizeof info) {
    if (info.ssi_signo == SIGHUP) {
      reload();
    } else {
      service_.stopping();
      loop_.stop();
    }
  }
}

void ServeCommand::reload() {
  service_.reloading();
  feed_->rescan();
  if (!isConfigurable()) {
    isReloadDue_ = true;
    log(LogLevel::warning, "the configuration will be read when all tables can be read again");
    if (isReady_) {
      service_.ready();
    }
    return;
  }
  try {
    ConfigInForce read = configOf(options_);
    configIs(std::move(read.config), read.source);
  } catch (const ScenarioError& error) {
    log(LogLevel::error, std::string(error.what()) + "; the configuration stays as it was");
    if (isReady_) {
      service_.ready();
    }
  }
}

void ServeCommand::configIs(AgentConfig config, const std::string& source) {
  config_ = {std::move(config), source};
  configTask_.configIs(config_.config);
  log(LogLevel::info, "configuration read (" + source + "): " + counted(config_.config.size(), "RIB"));
}

void ServeCommand::handleConfigured() {
  if (!gate_) {
    status_.publishRibs(*host_.ribConfigs());
    isReady_ = false;  // new RIBs are declared complete after their first drain
  }
}

OrderedJson ServeCommand::stats() const {
  return statsJson({host_, loop_, latency_, control_ ? &*control_ : nullptr, startedAt_, stateWord(), waitingFor_,
                    reasons_.texts(), scrubber_ ? scrubber_->counters() : config_.scrubbed});
}

void ServeLoop::run() {
  raiseDescriptorLimit();
  heldUpCausesAreWatched();
  ConfigInForce config = configOf(options_);
  bool hasBegun = false;
  const auto tellUnlessFirst = [&hasBegun](const Zol::Exception& reason) {
    if (!hasBegun) {
      throw;
    }
    log(LogLevel::error, std::string(reason.what()) + "; trying again every second");
  };
  std::optional<double> busySince;
  for (timespec pause = beforeNextTry;; pause = beforeNextTry) {
    try {
      ServeCommand command(options_, config);
      hasBegun = true;
      busySince.reset();
      command.run();
      return;
    } catch (const Memtab::CorruptionException& lost) {
      logBounded(LogLevel::error, "restarts",
                 std::string("a table of the agent is damaged: ") + lost.what() + "; restarting internally");
      ++config.scrubbed.found;
      ++config.scrubbed.repaired;  // by the restart
      pause = beforeNewBeginning;
    } catch (const Memtab::NoSpace& full) {
      tellUnlessFirst(full);
    } catch (const Memtab::FileRefused& refused) {
      tellUnlessFirst(refused);
    } catch (const Memtab::TableBusy& busy) {
      // The kernel keeps the locks of a killed process until the last of it has gone.
      const double now = Quor::RealTimeSource().now();
      if (!busySince) {
        busySince = now;
        log(LogLevel::notice,
            options_.stateDirectory + ": another agent serves it: " + busy.what() + "; trying for a second");
      } else if (now > *busySince + busySecondsMax) {
        throw;
      }
      pause = whileBusy;
    }
    if (endsWithin(pause)) {
      return;
    }
  }
}

}  // namespace Agent
