// The agent under a service manager: what it tells, and when.

#include <sys/stat.h>

#include <regex>

#include "tests/support/NotifySocket.h"
#include "tests/tools/Router.h"

namespace Tools {
namespace {

constexpr const char* ldp5 =
    R"({"table": "ldp", "put": {"index": 5, "tep": "10.0.0.5/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [300123]}]}})";

class Supervised : protected Router {
 protected:
  Support::Process supervised(const std::vector<std::string>& environment,
                              std::vector<std::string> options = {}) const {
    std::vector<std::string> words = {"/usr/bin/env"};
    words.insert(words.end(), environment.begin(), environment.end());
    words.insert(words.end(), {TUNNEL_AGENT_PATH, "serve", "--state-dir", stateDirectory()});
    words.insert(words.end(), options.begin(), options.end());
    return Support::Process(words, scratch() / "agent.log");
  }
};

class Notifying : public testing::TestWithParam<const char*>, protected Supervised {};
class Logging : public testing::Test, protected Supervised {};

// Fails if READY comes while tables are waited for, if a reload is not ended by READY (the service manager waits for it
// for ever), or if a wrong configuration takes readiness away.
TEST_P(Notifying, isReadyAfterTheFirstDrainAndAfterEachReload) {
  const std::string line = scratch().fileWith("one.jsonl", ldp5);
  {
    Support::Process agent = serve();
    ASSERT_EQ(publishAll({line}), 0);
    ASSERT_TRUE(Support::becomes([&] { return document()["fib"].size() == 1; })) << agentLog();
  }
  std::filesystem::remove(stateDirectory() + "/tunnel/table/ldp");
  const std::string name =
      *GetParam() == '@' ? GetParam() + std::to_string(getpid()) : std::string(scratch() / GetParam());
  Support::NotifySocket socket(name);
  ASSERT_TRUE(socket.isBound());
  const std::string config = scratch().fileWith("rib.jsonl", "");
  Support::Process agent = supervised({"NOTIFY_SOCKET=" + name, "WATCHDOG_USEC=6000000"}, {"--config", config});
  EXPECT_NE(socket.nextWith("STATUS=waiting: table ldp is absent, 1 entry came from it\n"), "") << socket.seen();
  EXPECT_NE(socket.nextWith("WATCHDOG=1\n"), "") << "it is alive while it waits";
  agent.signal(SIGHUP);
  ASSERT_TRUE(agent.says("configuration read")) << agent.output();
  EXPECT_EQ(socket.seen().find("READY=1"), std::string::npos) << socket.seen();
  ASSERT_EQ(publishAll({line}), 0);
  EXPECT_EQ(socket.nextWith("READY=1"), "READY=1\nSTATUS=ready: 1 FIB entry, 1 RIB entry\n") << socket.seen();
  EXPECT_EQ(socket.seen().find("RELOADING"), std::string::npos) << "before it is ready there is nothing to reload";

  for (const char* const text : {"{\"rib\": \"a\", \"tables\": {\"ldp\": {}}}", "nonsense"}) {
    scratch().fileWith("rib.jsonl", text);
    agent.signal(SIGHUP);
    const std::string reloading = socket.nextWith("RELOADING=1\n");
    EXPECT_NE(reloading.find("MONOTONIC_USEC="), std::string::npos) << reloading;
    EXPECT_NE(socket.nextWith("READY=1"), "") << text << agent.output();
  }
  agent.signal(SIGTERM);
  EXPECT_NE(socket.nextWith("STOPPING=1\n"), "");
  EXPECT_EQ(agent.wait(), 0);
}

INSTANTIATE_TEST_SUITE_P(Addresses, Notifying, testing::Values("notify", "@tunnel-agent-test"),
                         [](const auto& name) { return *name.param == '@' ? "abstract" : "path"; });

// Fails if the level of a message is lost in the journal, if a line elsewhere has no time, or if a line that ends the
// agent names no program.
TEST_F(Logging, theJournalGetsLevelsAndOtherOutputsTimes) {
  struct Case {
    const char* line;
    std::uint64_t deviceOff;
    const char* begin;
  };
  for (const Case& c :
       {Case{"{\"rib\": 1}", 0, "<3>/"}, Case{"", 0, "<6>started over "},
        Case{"{\"rib\": 1}", 1, "TIME tunnel-agent: /"}, Case{"", 1, "TIME tunnel-agent: started over "}}) {
    const std::string log = scratch().fileWith("agent.log", "");
    struct stat facts {};
    ASSERT_EQ(stat(log.c_str(), &facts), 0);
    const std::string stream = std::to_string(facts.st_dev + c.deviceOff) + ":" + std::to_string(facts.st_ino);
    Support::Process agent =
        supervised({"JOURNAL_STREAM=" + stream}, {"--config", scratch().fileWith("rib.jsonl", c.line)});
    ASSERT_TRUE(agent.says("\n"));
    const std::regex stamp(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )");
    EXPECT_TRUE(std::regex_replace(agent.output(), stamp, "TIME ").starts_with(c.begin)) << agent.output();
  }
}

}  // namespace
}  // namespace Tools
