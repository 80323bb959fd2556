// "tunnelctl resolve" and "tunnelctl graph": ways through tunnels, out of the tables alone.

#include "tests/tools/Lab.h"

namespace Tools {
namespace {

class Resolve : public testing::Test, protected Lab {};

TEST_F(Resolve, fromTheAddressToNextHopsAndStacks) {
  publishLab();
  EXPECT_EQ(ask({"resolve", "10.0.0.9"}).text, R"(10.0.0.9: 10.0.0.9/32 in RIB system, preference 65
└─ srTunnel/9 to 10.0.0.9/32
   ├─ tunnel:ldpTunnel/5 adds [17]
   │  └─ ldpTunnel/5 to 10.0.0.5/32
   │     ├─ if12 192.0.2.1 [300123]
   │     └─ if13 192.0.2.5 [300124]
   └─ in the FIB
      ├─ if12 192.0.2.1 [300123, 17]
      └─ if13 192.0.2.5 [300124, 17]
)");
  const OrderedJson json = ask({"resolve", "10.0.0.9", "--json"}).json();
  EXPECT_EQ(json["tep"], "10.0.0.9/32");
  EXPECT_EQ(json["tunnels"], OrderedJson::array({"srTunnel/9"}));
  EXPECT_EQ(json["resolution"].size(), 2U);
}

TEST_F(Resolve, theLongestMatchCounts) {
  publishLab();
  struct Case {
    const char* address;
    const char* rib;
    const char* expected;  // null: none
  };
  for (const Case& each : {Case{"10.0.0.5", "system", "10.0.0.5/32"}, Case{"10.0.0.7", "system", "10.0.0.0/24"},
                           Case{"10.0.1.5", "system", nullptr}, Case{"2001:db8::4", "system", "2001:db8::4/128"},
                           Case{"10.0.0.7", "ldpTunnel", nullptr}, Case{"10.0.0.6", "ldpTunnel", "10.0.0.6/32"}}) {
    const Answer answer = ask({"resolve", each.address, "--rib", each.rib, "--json"});
    EXPECT_EQ(answer.status, each.expected == nullptr ? 1 : 0) << each.address;
    if (each.expected != nullptr) {
      EXPECT_EQ(answer.json()["tep"], each.expected);
    }
  }
  EXPECT_EQ(ask({"resolve", "10.0.0.0/8"}).status, 2);
}

// Fails if tunnels through each other are unfolded without end, or a next level that is not in the FIB looks usable.
TEST_F(Resolve, theGraphHasEveryTunnelAndMarksWhatLeadsNowhere) {
  publishLab();
  const std::string graph = ask({"graph"}).text;
  for (const char* const line : {"\"srTunnel/9\" -> \"ldpTunnel/5\" [label=\"[17]\"];",
                                 "\"srTunnel/8\" [shape=box, label=\"srTunnel/8\\n10.0.0.8/32\", color=red];",
                                 "\"srTunnel/8\" -> \"ldpTunnel/99\" [label=\"[17]\", color=red];",
                                 "\"ldpTunnel/5\" -> \"if13 192.0.2.5\" [label=\"[300124]\"];",
                                 "\"staticTunnel/3\" -> \"if12 192.0.2.1\" [label=\"[41]\", style=dashed];",
                                 "\"l3IntfTunnel/2\" -> \"if12 192.0.2.1\" [label=\"gre\"];"}) {
    EXPECT_NE(graph.find(line), std::string::npos) << line << "\n" << graph;
  }
  const OrderedJson nodes = ask({"graph", "--json"}).json()["nodes"];
  EXPECT_EQ(nodes.size(), 7U);
  EXPECT_EQ(ask({"graph", "--json", "--tunnel", "srTunnel/8"}).json()["nodes"][1].dump(),
            "{\"tunnel\":\"srTunnel/8\",\"tep\":\"10.0.0.8/32\",\"programmed\":false,\"edges\":[{\"tunnel\":"
            "\"ldpTunnel/99\",\"encap\":\"labelStack\",\"labels\":[17],\"backup\":false,\"programmed\":false}]}");
  const std::string part = ask({"graph", "--tunnel", "srTunnel/9"}).text;
  EXPECT_NE(part.find("ldpTunnel/5"), std::string::npos);
  EXPECT_EQ(part.find("ldpTunnel/6"), std::string::npos);
  ASSERT_EQ(publishAll({scratch().fileWith("cycle.jsonl", R"(
{"table": "sr", "put": {"index": 1, "tep": "10.0.0.1/32", "vias": [{"intf": "tunnel:srTunnel/2"}]}}
{"table": "sr", "put": {"index": 2, "tep": "10.0.0.2/32", "vias": [{"intf": "tunnel:srTunnel/1"}]}}
)")}),
            0);
  EXPECT_EQ(ask({"graph", "--tunnel", "srTunnel/1"}).status, 0);
}

TEST_F(Resolve, aDrawingNeedsGraphviz) {
  publishLab();
  const std::string path = std::getenv("PATH");
  setenv("PATH", "/nowhere", 1);
  const Answer answer = ask({"graph", "--svg"});
  setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(answer.status, 1);
  EXPECT_NE(answer.text.find("graphviz"), std::string::npos) << answer.text;
}

}  // namespace
}  // namespace Tools
