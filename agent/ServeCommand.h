// The command "tunnel-agent serve": an agent as a daemon over the tables of a state directory.
//
//     configuration read ──▶ tables mounted, RIBs and FIB taken over ──▶ waits until the tables can be believed
//         ──▶ reactors started ──▶ first backlog drained: RIBs and FIB declared complete ──▶ serves until SIGTERM
//
// RIBs and FIB stay when it stops. SIGHUP reads the configuration again; a wrong one is refused as a whole.
//
// A table that cannot be read any more, whatever was done to its file, is reported, and what came from it stays until
// its publisher has made it anew. RIBs and FIB are made again when their files are gone; when bytes of theirs are lost,
// the agent begins anew.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/AgentConfig.h"
#include "agent/AgentHost.h"
#include "agent/AgentStatus.h"
#include "agent/CommandLine.h"
#include "agent/ConfigTask.h"
#include "agent/ControlMethods.h"
#include "agent/ControlSocket.h"
#include "agent/CountLog.h"
#include "agent/PublishLatency.h"
#include "agent/Publishers.h"
#include "agent/Reasons.h"
#include "agent/ScrubbedTables.h"
#include "agent/ServiceManager.h"
#include "agent/StartGate.h"
#include "agent/TableTroubles.h"
#include "runtime/Memtab/Descriptor.h"
#include "runtime/Quor/EventLoop.h"
#include "runtime/Quor/RealTimeSource.h"
#include "runtime/Quor/TimeSlicePolicy.h"
#include "runtime/Quor/TimerTask.h"
#include "runtime/Statehub/TableFeed.h"

namespace Agent {

// How long a task works before it looks up. Backlogs pause for as long, so two of them share the processor.
inline constexpr double sliceSeconds = 0.01;

// What the agent goes by: kept when it begins anew, whatever its file says by then.
struct ConfigInForce {
  AgentConfig config;
  std::string source;
  Model::TableScrubber::Counters scrubbed = {};  // of the commands before
};

class ServeCommand final : private Quor::NewsSource, private ControlTarget {
 public:
  // Blocks the signals that it answers. config outlives the command, and follows what is configured. Raises what
  // mounting raises: TableBusy when another agent serves the directory, FileRefused, NoSpace.
  ServeCommand(ServeOptions options, ConfigInForce& config);
  ~ServeCommand();

  // Returns after SIGTERM or SIGINT. Raises CorruptionException when bytes of a RIB or the FIB are lost: who makes
  // another command of the same options and configuration goes on.
  void run();

 private:
  class WaitLimit;
  struct DeclarationListener final : Zol::Listener<std::uint32_t> {
    explicit DeclarationListener(ServeCommand& owner) : command(owner) {}
    using Listener::channelIs;
    void onKey(const std::uint32_t&) override { command.readDeclaration(); }
    ServeCommand& command;
  };

  void look() override;
  bool mayFallAsleep() override;
  void awake() override { feed_->awake(); }

  const AgentConfig& config() const override { return config_.config; }
  std::string configSource() const override { return config_.source; }
  bool isConfigurable() const override { return gate_ || troubles_.canReadAll(); }
  void configIs(AgentConfig config, const std::string& source) override;
  OrderedJson stats() const override;
  const char* stateWord() const;

  void mendControlSocket();
  void lookForTrouble();
  std::vector<Reason> reasonsNow() const;
  void startIfReady();
  void start();
  void handleFirstDrain();
  std::string statusText() const;
  void readDeclaration();
  bool isBgpLuComplete() const;
  void handleSignal();
  void reload();
  void handleConfigured();

  const ServeOptions options_;
  Memtab::Descriptor signals_;  // blocked before anything takes time
  ConfigInForce& config_;
  const std::vector<std::string> misfits_;  // found before the host took the tables over
  Quor::RealTimeSource time_;
  Quor::TimeSlicePolicy slicePolicy_{time_, sliceSeconds};
  AgentHost host_;
  TableTroubles troubles_{host_};
  Publishers publishers_{host_, host_.scheduler()};
  CountLog counts_{host_};
  Reasons reasons_;
  StatusWriter status_;
  Zol::Ptr<BgpLuDeclarationTable> declaration_;
  DeclarationListener declarationListener_{*this};
  Quor::EventLoop loop_;
  ServiceManager service_{host_.scheduler(), [this] { return statusText(); }};
  std::unique_ptr<Statehub::TableFeed> feed_;
  PublishLatency latency_{host_};
  ConfigTask configTask_{host_, [this] { handleConfigured(); }};
  std::optional<Model::TableScrubber> scrubber_;  // from the start on
  std::optional<ControlSocket> control_;
  std::string controlTrouble_;  // why there is none
  const double startedAt_ = time_.now();
  std::optional<StartGate> gate_;  // until the start
  std::unique_ptr<WaitLimit> waitLimit_;
  std::vector<std::string> waitingFor_;  // as logged last
  bool isReloadDue_ = false;             // when all tables can be read again
  bool isDeclarationInForce_ = false;
  bool isReady_ = false;
};

// Serves until a signal ends it; begins anew, over what is left, when bytes of a RIB or the FIB are lost, and tries
// that every second where there is no space for it.
class ServeLoop {
 public:
  explicit ServeLoop(ServeOptions options) : options_(std::move(options)) {}
  // Raises ScenarioError for the configuration, and what the first ServeCommand does.
  void run();

 private:
  const ServeOptions options_;
};

}  // namespace Agent
