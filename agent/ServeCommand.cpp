#include "agent/ServeCommand.h"

#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <set>
#include <utility>

#include "agent/AgentStats.h"
#include "agent/InputError.h"
#include "agent/Log.h"
#include "runtime/Memtab/CorruptionException.h"

namespace Agent {
namespace {

constexpr unsigned limitPriority = 2;
constexpr timespec beforeNewBeginning = {0, 100'000'000};  // whoever spoils tables all the time gets no more
constexpr timespec beforeNextTry = {1, 0};

// The same damage is met again and again until it is mended; one line is enough, and a file says it too.
void logDamage(const std::string& table, const std::string& message) {
  static std::set<std::string> logged;
  constexpr std::size_t linesMax = 1000;
  const std::string line = "damage in table " + table + ": " + message;
  if (logged.size() < linesMax && logged.insert(line).second) {
    log(LogLevel::error, line);
  }
}

Memtab::Descriptor signalDescriptor() {
  sigset_t answered;
  sigemptyset(&answered);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    sigaddset(&answered, signal);
  }
  sigprocmask(SIG_BLOCK, &answered, nullptr);
  return Memtab::Descriptor(signalfd(-1, &answered, SFD_NONBLOCK | SFD_CLOEXEC));
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
    log(LogLevel::warning, "the wait is over: tables are taken as they are");
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
  for (const std::string& misfit : misfits_) {
    log(LogLevel::warning, misfit + "; it is set aside, and a new table takes its place");
  }
  forEachNamedTable([this](auto named) { host_.tables().table<typename decltype(named)::Table>()->follow(); });
  declaration_->follow();
  declarationListener_.channelIs(&declaration_->entryChannel());
  feed_ =
      std::make_unique<Statehub::TableFeed>(host_.entityManager(), host_.scheduler(), loop_, directoriesOfAllTables());
  const auto handleRescan = [this] {
    troubles_.look();
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
    controlTrouble_ = std::string("no control socket: ") + error.what();
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
  std::vector<std::string> lines;
  const auto add = [&lines](const std::string& prefix, const std::string& trouble) {
    if (!trouble.empty()) {
      lines.push_back(prefix + trouble);
    }
  };
  add("state directory: ", feed_->trouble());
  add("", status_.trouble());
  add("", controlTrouble_);
  if (host_.heldUp() != 0) {
    lines.push_back("tunnels wait for space, or for a table that can be read again; they are tried every second");
  }
  if (host_.ribConfigDirSm() != nullptr) {
    for (const auto& [name, reason] : host_.ribConfigDirSm()->unmadeRibs()) {
      lines.push_back("RIB " + printable(name) + " cannot be made, and is tried again every second: " + reason);
    }
  }
  if (lines != troubles_.others()) {
    troubles_.othersAre(std::move(lines));
    service_.look();
  }
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
      log(LogLevel::notice, "waiting: " + each);
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
  log(LogLevel::info, statusText());
  service_.ready();
}

std::string ServeCommand::statusText() const {
  if (gate_) {
    std::string text = "waiting: ";
    for (const std::string& each : waitingFor_) {
      text += (&each == &waitingFor_.front() ? "" : "; ") + each;
    }
    return text;
  }
  const std::size_t entries = host_.fib()->entry().size();
  std::string text =
      (isReady_ ? "ready: " : "working off the backlog: ") + counted(entries, "FIB entry", "FIB entries");
  for (const std::string& line : troubles_.others()) {
    text += "; " + line;
  }
  return text;
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
  const char* const state = gate_ ? "waiting" : isReady_ ? "ready" : "starting";
  return statsJson(
      {host_, loop_, latency_, control_ ? &*control_ : nullptr, startedAt_, state, waitingFor_, troubles_.others()});
}

void ServeLoop::run() {
  raiseDescriptorLimit();
  Memtab::MapBase::damageWitnessIs(logDamage);
  ConfigInForce config = configOf(options_);
  bool hasBegun = false;
  const auto tellUnlessFirst = [&hasBegun](const Zol::Exception& reason) {
    if (!hasBegun) {
      throw;
    }
    log(LogLevel::error, std::string(reason.what()) + "; trying again every second");
  };
  for (timespec pause = beforeNextTry;; pause = beforeNextTry) {
    try {
      ServeCommand command(options_, config);
      hasBegun = true;
      command.run();
      return;
    } catch (const Memtab::CorruptionException& lost) {
      log(LogLevel::error, std::string("a table of the agent is damaged: ") + lost.what() + "; beginning anew");
      pause = beforeNewBeginning;
    } catch (const Memtab::NoSpace& full) {
      tellUnlessFirst(full);
    } catch (const Memtab::FileRefused& refused) {
      tellUnlessFirst(refused);
    }
    if (endsWithin(pause)) {
      return;
    }
  }
}

}  // namespace Agent
