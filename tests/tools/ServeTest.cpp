// The agent as a daemon, with publishers as processes of their own.

#include <random>
#include <set>

#include "agent/FibView.h"
#include "tests/support/Seeds.h"
#include "tests/tools/Played.h"

namespace Tools {
namespace {

namespace Model = Tunnel::TunnelTable;

std::string exampleFile(const std::string& name) { return std::string(EXAMPLES_DIR) + "/" + name + ".jsonl"; }

class Serve : public testing::Test, protected Router {};

// How long an agent lives at most before it is killed, in microseconds: some are to be killed while they start.
#ifdef __SANITIZE_ADDRESS__
constexpr unsigned lifeMax = 400000;
#else
constexpr unsigned lifeMax = 60000;
#endif

struct Scenario {
  std::string name;
  std::string file;
  bool isLong = false;  // too long to be looked at after every settle, but with SERVE_EVERY_SETTLE set
};

std::ostream& operator<<(std::ostream& out, const Scenario& scenario) { return out << scenario.name; }

std::vector<Scenario> sharedScenarios() {
  std::vector<Scenario> all = {{"abilene", exampleFile("abilene")},
                               {"captured_isp", exampleFile("captured-isp")},
                               {"geant", exampleFile("geant"), true},
                               {"cogent", exampleFile("cogent"), true},
                               {"kdl", exampleFile("kdl"), true}};
  // Configuration that is refused, tables that the agent is told to withdraw, and tunnels of which the first to come
  // find a place are no matter of publishers.
  const std::set<std::string> others = {"custom-rib-before-table", "unmount-while-waiting", "too-many-for-a-tep"};
  for (const auto& hazard : std::filesystem::directory_iterator(std::string(TEST_DATA_DIR) + "/hazards")) {
    const std::string name = hazard.path().stem().string();
    if (!others.contains(name)) {
      all.push_back({name, hazard.path().string()});
      std::replace(all.back().name.begin(), all.back().name.end(), '-', '_');
    }
  }
  return all;
}

class ServeScenario : public testing::TestWithParam<Scenario>, protected Router {
 protected:
  void configure(const std::string& lines) const { scratch().fileWith("rib.jsonl", lines); }
  testing::AssertionResult reaches(const Played& played, const Played::Settled& settled) const {
    const auto now = [&] { return comparable(document(), played.isConfiguredOnce); };
    if (Support::becomes([&] { return now() == settled.document; }, 60)) {
      return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << agentLog() << OrderedJson::diff(settled.document, now());
  }
};

TEST_P(ServeScenario, processesReachWhatOneProcessReachesAndARestartWritesNothing) {
  const Played played(GetParam().file);
  const bool steps = !GetParam().isLong || std::getenv("SERVE_EVERY_SETTLE") != nullptr;
  configure((steps ? played.settled.front() : played.end()).config);
  const std::vector<std::string> config = {"--config", scratch() / "rib.jsonl"};
  {
    Support::Process agent = serve(config);
    ASSERT_TRUE(agent.says("ready"));
    Support::Process publisher = steps ? publish({GetParam().file, "--step"}) : publish({GetParam().file});
    for (std::size_t i = 0; steps && i + 1 < played.settled.size(); ++i) {
      const Played::Settled& settled = played.settled[i];
      ASSERT_TRUE(Support::becomes([&] {
        const std::string said = publisher.output();
        return std::count(said.begin(), said.end(), '\n') == static_cast<std::ptrdiff_t>(i) + 1;
      })) << publisher.output();
      if (i > 0 && settled.config != played.settled[i - 1].config) {
        configure(settled.config);
        agent.signal(SIGHUP);
      }
      if (settled.isWhole) {
        ASSERT_TRUE(reaches(played, settled)) << publisher.output();
      }
      publisher.tell("\n");
    }
    ASSERT_EQ(publisher.wait(), 0) << publisher.output();
    configure(played.end().config);
    agent.signal(SIGHUP);
    ASSERT_TRUE(reaches(played, played.end()));
    EXPECT_EQ(agent.stop(), 0) << agentLog();
  }
  const auto before = sequences();
  Support::Process again = serve(config);
  ASSERT_TRUE(Support::becomes([&] {
    const std::string log = agentLog();
    return log.find("ready", log.find("stopped")) != std::string::npos;
  })) << agentLog();
  EXPECT_EQ(sequences(), before);
  EXPECT_EQ(again.stop(SIGKILL), 128 + SIGKILL);
  EXPECT_EQ(comparable(document(), played.isConfiguredOnce), played.end().document) << "RIBs and FIB outlive the agent";
}

INSTANTIATE_TEST_SUITE_P(Shared, ServeScenario, testing::ValuesIn(sharedScenarios()),
                         [](const auto& scenario) { return scenario.param.name; });

// Both are killed at random; what is published in the end is what counts.
TEST_F(Serve, killedAtAnyTimeItEndsWhereItWouldHave) {
  const Played played(exampleFile("geant"));
  const std::string config = scratch().fileWith("rib.jsonl", played.end().config);
  Support::forEachSeed(12, [&](unsigned seed) {
    std::mt19937 random(seed);
    Support::Process agent = serve({"--config", config});
    Support::Process publisher = publish({exampleFile("geant")});
    usleep(static_cast<useconds_t>(random() % 60000));
    (random() % 2 == 0 ? agent : publisher).stop(SIGKILL);
  });
  Support::Process agent = serve({"--config", config});
  ASSERT_EQ(publishAll({exampleFile("geant")}), 0);
  EXPECT_TRUE(Support::becomes([&] { return comparable(document()) == played.end().document; })) << agentLog();
}

// What a reader of the FIB sees of an entry: each via with its encapsulation's content. Nothing when it is absent.
std::optional<std::string> wayOf(const Tunnel::TunnelFib::TunnelFib& fib, const Model::TunnelId& id) {
  for (;;) {
    Tunnel::TunnelFib::TunnelFibEntry entry;
    if (!fib.entry().read(id, entry)) {
      return std::nullopt;
    }
    const std::string way = Agent::textOf(Agent::fibEntryJson(fib, entry));
    Tunnel::TunnelFib::TunnelFibEntry again;
    if (way.find("missing") == std::string::npos || (fib.entry().read(id, again) && again == entry)) {
      return way;
    }
  }
}

// Lines that put and delete LDP tunnels beside those of the example, again and again.
std::string churnLines(int rounds) {
  std::string lines;
  for (int i = 0; i < rounds; ++i) {
    const std::string index = std::to_string(5000 + i % 50);
    if (i % 100 < 50) {
      lines += R"({"table": "ldp", "put": {"index": )" + index + R"(, "tep": "10.9.0.)" + std::to_string(i % 50) +
               R"(/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [)" +
               std::to_string(1000 + i % 977) + "]}]}}\n";
    } else {
      lines += R"({"table": "ldp", "delete": )" + index + "}\n";
    }
  }
  return lines;
}

// The agent dies at random moments while it has work; what its inputs leave alone stays as it is, whole, at every look.
TEST_F(Serve, aReaderAtFullSpeedSeesNoGapWhileTheAgentIsKilled) {
  ASSERT_EQ(publishAll({exampleFile("abilene")}), 0);
  const std::string scenario =
      scratch().fileWith("churn.jsonl", Support::contentsOf(exampleFile("abilene")) + churnLines(200000));
  auto agent = std::make_unique<Support::Process>(serve());
  ASSERT_TRUE(agent->says("ready"));
  ASSERT_TRUE(Support::becomes([&] { return !document()["fib"].empty(); }));
  usleep(200000);
  const Reading reading(stateDirectory());
  const auto& fib = *reading.state.fib();
  const auto& rib = *reading.state.rib(0);
  std::map<Model::TunnelId, std::string> ways;
  for (const Model::TunnelId& id : Agent::sortedKeys(fib.entry())) {
    ways[id] = wayOf(fib, id).value();
  }
  std::map<Ipkit::IpGenPrefix, Model::TunnelRibEntry> ribEntries;
  for (const Ipkit::IpGenPrefix& tep : Agent::sortedKeys(rib)) {
    ribEntries[tep] = rib.value(tep);
  }
  const Support::Process publisher = publish({scenario, "--hold"});
  // The example's own events come again first, and do change its tunnels.
  const auto isChurning = [&] {
    for (std::uint64_t index = 5000; index < 5050; ++index) {
      if (fib.entry().has(Model::TunnelId(Model::TunnelType::ldpTunnel, index))) {
        return std::all_of(ways.begin(), ways.end(),
                           [&fib](const auto& each) { return wayOf(fib, each.first) == each.second; }) &&
               std::all_of(ribEntries.begin(), ribEntries.end(),
                           [&rib](const auto& each) { return rib.value(each.first) == each.second; });
      }
    }
    return false;
  };
  ASSERT_TRUE(Support::becomes(isChurning)) << agentLog();
  const std::uint64_t before = fib.entry().collectionControl().sequence();
  std::uint64_t looks = 0;
  const bool isWhole = Support::forEachSeed(25, [&](unsigned seed) {
    std::mt19937 random(seed);
    const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(random() % lifeMax);
    do {
      for (const auto& [id, way] : ways) {
        ASSERT_EQ(wayOf(fib, id), way) << id;
      }
      for (const auto& [tep, entry] : ribEntries) {
        ASSERT_EQ(rib.value(tep), entry) << tep;
      }
      ++looks;
    } while (std::chrono::steady_clock::now() < end);
    agent->stop(SIGKILL);
    agent = std::make_unique<Support::Process>(serve());
  });
  std::cout << looks << " looks at " << ways.size() << " tunnels and " << ribEntries.size() << " endpoints\n";
  EXPECT_TRUE(!isWhole || fib.entry().collectionControl().sequence() > before + 100) << "no work to die in";
}

constexpr const char* ldp5 =
    R"({"table": "ldp", "put": {"index": 5, "tep": "10.0.0.5/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [300123]}]}})";
constexpr const char* ldp6 =
    R"({"table": "ldp", "put": {"index": 6, "tep": "10.0.0.6/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [300124]}]}})";

TEST_F(Serve, oneAgentOnePublisherATableAndTheHolderIsNamed) {
  const std::string one = scratch().fileWith("one.jsonl", ldp5);
  Support::Process agent = serve();
  ASSERT_TRUE(agent.says("ready")) << agent.output();
  Support::Process second = serveAs("second.log");
  EXPECT_EQ(second.wait(), 1);
  EXPECT_NE(second.output().find("another agent serves this directory: "), std::string::npos) << second.output();
  EXPECT_NE(second.output().find("pid " + std::to_string(agent.pid()) + " (tunnel-agent)"), std::string::npos);

  Support::Process publisher = publish({one, "--hold"});
  ASSERT_TRUE(publisher.says("ldp: 1"));
  Support::Process other = publish({one}, "other.log");
  EXPECT_EQ(other.wait(), 1);
  EXPECT_NE(other.output().find("pid " + std::to_string(publisher.pid())), std::string::npos) << other.output();
  publisher.stop(SIGKILL);
  EXPECT_EQ(publishAll({one}), 0) << "a dead publisher's table can be taken over";
}

// What the successor does not mention goes when it declares its table complete, not before.
TEST_F(Serve, aPublishersTableStaysInForceUntilItsSuccessorIsComplete) {
  Support::Process agent = serve();
  ASSERT_EQ(publishAll({scratch().fileWith("both.jsonl", std::string(ldp5) + "\n" + ldp6)}), 0);
  const auto fibSize = [&] { return document()["fib"].size(); };
  ASSERT_TRUE(Support::becomes([&] { return fibSize() == 2; })) << agentLog();
  Support::Process successor = publish({"-"}, "successor.log");
  std::string ldp7 = ldp6;
  ldp7.replace(ldp7.find("6"), 1, "7");
  successor.tell(std::string(ldp6) + "\n" + ldp7 + "\n");
  EXPECT_TRUE(Support::becomes([&] { return fibSize() == 3; })) << "the agent follows the successor, ldp/5 is there";
  successor.tell("{\"settle\": true}\n");
  EXPECT_TRUE(Support::becomes([&] { return fibSize() == 2; }));
}

TEST_F(Serve, anIncompleteTableThatEntriesCameFromHoldsTheStartUp) {
  const std::string both = scratch().fileWith("both.jsonl", std::string(ldp5) + "\n" + ldp6);
  {
    Support::Process agent = serve();
    ASSERT_EQ(publishAll({both}), 0);
    ASSERT_TRUE(Support::becomes([&] { return document()["fib"].size() == 2; })) << agentLog();
  }
  const auto before = sequences();
  std::filesystem::remove(stateDirectory() + "/tunnel/table/ldp");
  Support::Process agent = serve();
  ASSERT_TRUE(agent.says("waiting: table ldp is absent, 2 entries came from it")) << agent.output();
  Support::Process publisher = publish({"-"}, "publisher.log");
  publisher.tell(std::string(ldp5) + "\n");
  ASSERT_TRUE(agent.says("waiting: table ldp is not complete")) << agent.output();
  EXPECT_EQ(sequences(), before);
  publisher.tell(std::string(ldp6) + "\n{\"settle\": true}\n");
  ASSERT_TRUE(agent.says("ready: 2 FIB entries")) << agent.output();
  EXPECT_EQ(sequences(), before);
}

TEST_F(Serve, theWaitEndsAtItsLimit) {
  {
    Support::Process agent = serve();
    ASSERT_EQ(publishAll({scratch().fileWith("one.jsonl", ldp5)}), 0);
    ASSERT_TRUE(Support::becomes([&] { return document()["fib"].size() == 1; })) << agentLog();
  }
  std::filesystem::remove(stateDirectory() + "/tunnel/table/ldp");
  Support::Process agent = serve({"--wait-limit", "0.2"});
  EXPECT_TRUE(Support::becomes([&] { return document()["fib"].empty(); })) << agentLog();
}

TEST_F(Serve, configurationIsReadAgainAndAWrongOneRefusedAsAWhole) {
  const std::string config = scratch().fileWith("rib.jsonl", R"({"rib": "a", "tables": {"ldp": {"pref": 7}}})");
  Support::Process agent = serve({"--config", config});
  ASSERT_EQ(publishAll({scratch().fileWith("one.jsonl", ldp5)}), 0);
  const auto pref = [&](const std::string& name) {
    const OrderedJson now = document();
    for (const OrderedJson& rib : now["ribs"]) {
      if (rib["name"] == name && !rib["entries"].empty()) {
        return rib["entries"][0]["pref"].get<int>();
      }
    }
    return -1;
  };
  ASSERT_TRUE(Support::becomes([&] { return pref("a") == 7; })) << agentLog();
  scratch().fileWith(
      "rib.jsonl",
      "{\"rib\": \"b\", \"tables\": {\"ldp\": {\"pref\": 8}}}\n{\"rib\": \"a\", \"tables\": {\"gre\": {}}}");
  agent.signal(SIGHUP);
  EXPECT_TRUE(agent.says("rib.jsonl:2: tables.gre")) << agent.output();
  EXPECT_EQ(pref("a"), 7);
  EXPECT_EQ(pref("b"), -1);
  scratch().fileWith("rib.jsonl", R"({"rib": "b", "tables": {"ldp": {"pref": 8}}})");
  agent.signal(SIGHUP);
  EXPECT_TRUE(Support::becomes([&] { return pref("b") == 8 && pref("a") == -1; })) << agentLog();
}

// How often the process has gone to sleep so far.
std::uint64_t sleepsOf(const Support::Process& process) {
  const std::string status = Support::contentsOf("/proc/" + std::to_string(process.pid()) + "/status");
  return std::stoull(status.substr(status.find(':', status.find("\nvoluntary_ctxt_switches")) + 1));
}

// Fails if the agent polls, or if publishers that look over their files every second wake it.
TEST_F(Serve, anIdleAgentUsesNoProcessorTime) {
  Support::Process agent = serve();
  ASSERT_EQ(publishAll({exampleFile("abilene")}), 0);
  std::vector<Support::Process> holders;
  for (const char* const table : {"sr", "rsvp", "tiLfa"}) {
    holders.push_back(publish({"--table", table, "--hold"}, table));
    ASSERT_TRUE(holders.back().says("entries"));
  }
  ASSERT_TRUE(agent.says("ready"));
  // One sleep that spans a period of everything that comes round each second. The agent may need some time to get
  // there.
  const auto sleepsOn = [&agent] {
    const double before = agent.cpuSeconds();
    const std::uint64_t sleepsBefore = sleepsOf(agent);
    usleep(1500000);
    return sleepsOf(agent) <= sleepsBefore + 8 && agent.cpuSeconds() - before <= 0.01;  // a pass of the scrubber
  };
  EXPECT_TRUE(Support::becomes(sleepsOn)) << agent.output();
}

// Long with SERVE_RESTART_TUNNELS=100000. Fails if a restart writes what stands, or takes its time for that.
TEST_F(Serve, aRestartOverManyTunnelsWritesNothing) {
  const char* const configured = std::getenv("SERVE_RESTART_TUNNELS");
  const int tunnels = configured == nullptr ? 2000 : std::atoi(configured);
  std::ofstream lines(scratch() / "many.jsonl");
  for (int i = 0; i < tunnels; ++i) {
    lines << R"({"table": "ldp", "put": {"index": )" << i << R"(, "tep": "10.)" << i / 62500 << '.' << i / 250 % 250
          << '.' << i % 250 << R"(/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [)" << 1000 + i
          << "]}]}}\n";
  }
  lines.close();
  const auto fibEntries = [this] { return Reading(stateDirectory()).state.fib()->entry().size(); };
  Support::Process agent = serve();
  ASSERT_EQ(publishAll({scratch() / "many.jsonl"}), 0);
  ASSERT_TRUE(Support::becomes([&] { return fibEntries() == static_cast<std::size_t>(tunnels); }, 120)) << agentLog();
  EXPECT_EQ(agent.stop(), 0) << agentLog();
  const auto before = sequences();
  Support::Process again = serveAs("again.log");
  ASSERT_TRUE(again.says("ready: " + std::to_string(tunnels) + " FIB entries", 120)) << again.output();
  const double seconds = again.cpuSeconds();
  std::cout << "restart over " << tunnels << " tunnels: " << seconds << " s of processor time\n";
  EXPECT_LT(seconds, 10);
  EXPECT_EQ(sequences(), before);
}

}  // namespace
}  // namespace Tools
