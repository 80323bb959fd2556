// The daemon's log about publishers, permissions and reasons; stats.get, metrics and status text agree with it.

#include "tests/support/NotifySocket.h"
#include "tests/tools/Lab.h"
#include "tools/ControlClient.h"

namespace Tools {
namespace {

constexpr const char* ldp5 =
    R"({"table": "ldp", "put": {"index": 5, "tep": "10.0.0.5/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [300123]}]}})"
    "\n";
constexpr const char* sr9 =
    R"({"table": "sr", "put": {"index": 9, "tep": "10.0.0.9/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [17]}]}})"
    "\n";

class ServeLog : public testing::Test, protected Router {
 protected:
  ~ServeLog() override { unsetenv("NOTIFY_SOCKET"); }

  OrderedJson stats() const { return ControlClient(stateDirectory(), 20).ask("stats.get"); }
  bool hasReason(const std::string& text) const {
    const OrderedJson reasons = stats()["degraded"];
    return std::any_of(reasons.begin(), reasons.end(), [&](const std::string& each) { return each == text; });
  }
  static std::size_t count(const std::string& text, const std::string& part) {
    std::size_t times = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
      ++times;
    }
    return times;
  }
};

// Fails if a publisher that comes, leaves or dies is not logged once, or if a place that shows the agent's state says
// nothing of the table that the dead one left incomplete.
TEST_F(ServeLog, aPublisherThatDiesInMidPublicationDegradesTheAgentUntilTheTableIsComplete) {
  Support::NotifySocket socket(scratch() / "notify");
  setenv("NOTIFY_SOCKET", (scratch() / "notify").c_str(), 1);
  const Support::Process agent = serve();
  ASSERT_TRUE(agent.says("ready: 0 FIB entries, 0 RIB entries")) << agent.output();
  Support::Process publisher = publish({"-"});
  publisher.tell(std::string(ldp5) + sr9);
  const std::string pid = "publisher pid " + std::to_string(publisher.pid());
  ASSERT_TRUE(agent.says(": " + pid + " came\n")) << agent.output();
  ASSERT_TRUE(Support::becomes([&] { return document()["fib"].size() == 2; })) << agent.output();
  publisher.stop(SIGKILL);
  const std::string reason = "table ldp: incomplete: " + pid +
                             " died; entries that it did not publish again stay installed until a publisher "
                             "completes the table";
  ASSERT_TRUE(agent.says(reason + "\n")) << agent.output();
  ASSERT_TRUE(agent.says("table sr: incomplete: " + pid + " died; ")) << agent.output();
  EXPECT_TRUE(Support::becomes([&] { return hasReason(reason) && stats()["degraded"].size() == 2; })) << stats();
  EXPECT_EQ(stats()["state"], "degraded");
  EXPECT_NE(socket.nextWith("STATUS=degraded: 2 FIB entries, 2 RIB entries; " + reason), "") << socket.seen();
  const std::string metrics = ask({"metrics"}).text;
  EXPECT_NE(metrics.find("\ntunnel_agent_ready 0\n"), std::string::npos) << metrics;
  EXPECT_NE(metrics.find("\ntunnel_agent_degraded 2\n"), std::string::npos) << metrics;
  EXPECT_NE(metrics.find("\ntunnel_agent_degraded_reason{reason=\"" + reason + "\"} 1\n"), std::string::npos);
  const Answer check = ask({"check"});
  EXPECT_EQ(check.status, 1);
  EXPECT_NE(check.text.find("/tunnel/table/sr: incomplete: its publisher has gone"), std::string::npos) << check.text;

  ASSERT_EQ(publishAll({scratch().fileWith("both.jsonl", std::string(ldp5) + sr9)}), 0);
  EXPECT_TRUE(agent.says("resolved: table ldp: incomplete: " + pid + " died\n")) << agent.output();
  EXPECT_TRUE(agent.says("left; complete, ")) << agent.output();
  EXPECT_TRUE(Support::becomes([&] { return stats()["state"] == "ready"; })) << stats();
  EXPECT_NE(socket.nextWith("STATUS=ready: 2 FIB entries, 2 RIB entries"), "") << socket.seen();
  EXPECT_EQ(count(agent.output(), reason), 1U) << agent.output();
}

// Fails if one wrong permission fills the log, or calls intact tables damaged.
TEST_F(ServeLog, onePermissionIsOneLineWithAllTables) {
  const Support::Process agent = serve();
  ASSERT_EQ(publishAll({scratch().fileWith("both.jsonl", std::string(ldp5) + sr9)}), 0);
  ASSERT_TRUE(Support::becomes([&] { return document()["fib"].size() == 2; })) << agent.output();
  const std::string refused = stateDirectory() + ": refused: group or world may write to it (mode 777)";
  chmod(stateDirectory().c_str(), 0777);
  ASSERT_TRUE(agent.says("tables ldp, sr: cannot be read: " + refused + "; the contents read last stay in use\n"))
      << agent.output();
  ASSERT_TRUE(agent.says("state directory: " + refused)) << agent.output();
  EXPECT_TRUE(Support::becomes([&] { return stats()["degraded"].size() == 3; })) << stats();
  chmod(stateDirectory().c_str(), 0750);
  EXPECT_TRUE(agent.says("resolved: state directory: " + refused)) << agent.output();
  EXPECT_TRUE(Support::becomes([&] { return stats()["state"] == "ready"; })) << stats();
  const std::string said = agent.output();
  EXPECT_EQ(count(said, refused), 4U) << said;
  EXPECT_EQ(count(said, "readable again"), 1U) << said;
  EXPECT_EQ(said.find("damage"), std::string::npos) << said;
}

}  // namespace
}  // namespace Tools
