// What is due and what is published are told apart: an answer out of a shadow does not pass for the state of the
// router.

#include "tests/tools/Lab.h"

namespace Tools {
namespace {

constexpr const char* newTunnels = R"(
{"table": "ldp", "put": {"index": 700, "tep": "10.0.0.70/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [70]}]}}
{"table": "ldp", "delete": 6}
)";

class Lagging : public testing::Test, protected Lab {
 protected:
  // What the lab's publishers say later.
  void publishMore() const {
    ASSERT_EQ(publishAll({scratch().fileWith("more.jsonl", std::string(labScenario) + newTunnels)}), 0);
  }
  // Each question is answered as it is due, with what is published and why that is something else.
  void expectTold(const std::string& reason) const {
    struct Row {
      int line;
      std::vector<std::string> words;
      std::vector<std::string> says;
    };
    for (const Row& row :
         {Row{__LINE__,
              {"why", "ldpTunnel/700"},
              {"in the FIB with 1 via", "fib ldpTunnel/700: entry missing", "rib system 10.0.0.70/32: entry missing"}},
          {__LINE__,
           {"why", "ldpTunnel/6"},
           {"not in the FIB", "fib ldpTunnel/6: entry not due", "rib system 10.0.0.6/32: entry not due"}},
          {__LINE__, {"why", "10.0.0.70"}, {"ldpTunnel/700: in the entry", "rib system 10.0.0.70/32: entry missing"}},
          {__LINE__, {"what-if", "--fail-tunnel", "ldpTunnel/700"}, {"- fib ldpTunnel/700", "tunnels touched: 1,"}},
          {__LINE__, {"what-if", "--each", "intf"}, {"if12"}}}) {
      const Answer text = ask(row.words);
      EXPECT_EQ(text.status, 0) << text.text;
      EXPECT_NE(text.text.find(reason), std::string::npos) << "case in line " << row.line << ": " << text.text;
      for (const std::string& words : row.says) {
        EXPECT_NE(text.text.find(words), std::string::npos) << "case in line " << row.line << ": " << text.text;
      }
      std::vector<std::string> words = row.words;
      words.emplace_back("--json");
      const OrderedJson published = ask(words).json()["published"];
      EXPECT_EQ(published["asDue"], false) << "case in line " << row.line;
      EXPECT_EQ(published["reasons"], OrderedJson::array({reason})) << "case in line " << row.line;
    }
  }
};

TEST_F(Lagging, anAgentThatIsDeadStoppedOrWaits) {
  publishLab();
  EXPECT_EQ(ask({"why", "ldpTunnel/5", "--json"}).json()["published"]["asDue"], true);
  publishMore();
  expectTold("no agent is running");
  Support::Process agent = serve();
  ASSERT_TRUE(agent.says("ready"));
  ASSERT_TRUE(Support::becomes([&] { return ask({"verify"}).status == 0; }));
  ASSERT_EQ(publishAll({scratch().fileWith("lab.jsonl", labScenario)}), 0);
  ASSERT_TRUE(Support::becomes([&] { return ask({"verify"}).status == 0; }));
  ASSERT_EQ(kill(agent.pid(), SIGSTOP), 0);
  publishMore();
  expectTold("the agent is behind");
  agent.stop(SIGKILL);
  std::filesystem::remove(stateDirectory() + "/tunnel/table/ldp");
  const Answer absent = ask({"what-if", "--fail-tunnel", "staticTunnel/3"});
  EXPECT_NE(absent.text.find("table ldp is absent, 2 entries came from it"), std::string::npos) << absent.text;
  EXPECT_NE(ask({"why", "10.0.0.5"}).text.find("rib system 10.0.0.5/32: entry not due"), std::string::npos);
}

TEST_F(Lagging, anEndpointIsExplainedDownToTheCause) {
  publishLab();
  EXPECT_EQ(ask({"why", "10.0.0.8/32"}).text, R"(why 10.0.0.8/32
├─ RIB system: no entry, none of its tunnels is a candidate
│  └─ srTunnel/8: no candidate, it is not in the FIB
└─ not in the FIB
   └─ srTunnel/8 to 10.0.0.8/32: not in the FIB, its via cannot be used
      └─ tunnel:ldpTunnel/99 adds [17]: the next level is missing (recTunMissing)
         └─ ldpTunnel/99: not in the FIB, no entry in table ldp
)");
  EXPECT_EQ(ask({"why", "10.0.0.8/32", "--json"}).json()["notInFib"].size(), 2U);
}

// Fails if entries with backup vias are taken for withdrawn, or a nexthop group for no way out.
TEST_F(Lagging, whatAFailureLeavesOfAnEntry) {
  publishLab();
  const OrderedJson kept = ask({"what-if", "--fail-intf", "if14", "--json"}).json()["summary"];
  EXPECT_EQ(kept["becomeUnprogrammable"], 1);
  EXPECT_EQ(kept["fib"]["lost"], 1);
  EXPECT_EQ(ask({"what-if", "--fail-intf", "if12", "--json"}).json()["summary"]["becomeUnprogrammable"], 0);
  const OrderedJson group = ask({"what-if", "--fail-intf", "nexthopGroup:7", "--json"}).json()["summary"];
  EXPECT_EQ(group["rib system"]["lost"], 1);
  EXPECT_EQ(group["tunnelsTouched"], 1);
  const std::string change = scratch().fileWith("change.jsonl", R"(
{"table": "ldp", "put": {"index": 5, "tep": "10.0.0.5/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [500]}, {"nextHop": "192.0.2.5", "intf": "if13", "labels": [300124]}]}}
)");
  const OrderedJson stacks = ask({"what-if", change, "--json"}).json()["summary"];
  EXPECT_EQ(stacks["stacksChanged"], 2) << "of ldpTunnel/5 and of srTunnel/9 through it";
  EXPECT_EQ(stacks["tunnelsTouched"], 2);
}

}  // namespace
}  // namespace Tools
