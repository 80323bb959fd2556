// A small router with a tunnel of each kind that the commands tell apart.
#pragma once

#include "tests/tools/Router.h"

namespace Tools {

constexpr const char* labScenario = R"(
{"table": "ldp", "put": {"index": 5, "tep": "10.0.0.5/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [300123]}, {"nextHop": "192.0.2.5", "intf": "if13", "labels": [300124]}]}}
{"table": "ldp", "put": {"index": 6, "tep": "10.0.0.6/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [300125]}]}}
{"table": "sr", "put": {"index": 9, "tep": "10.0.0.9/32", "vias": [{"intf": "tunnel:ldpTunnel/5", "labels": [17]}]}}
{"table": "sr", "put": {"index": 8, "tep": "10.0.0.8/32", "vias": [{"intf": "tunnel:ldpTunnel/99", "labels": [17]}]}}
{"table": "static", "put": {"index": 3, "tep": "10.0.0.0/24", "vias": [{"nextHop": "192.0.2.9", "intf": "if14", "labels": [40]}], "backupVias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [41]}]}}
{"table": "nexthopGroup", "put": {"index": 4, "tep": "2001:db8::4/128", "nexthopGroupId": 7}}
{"table": "greTunnelInterface", "put": {"index": 2, "vias": [{"nextHop": "192.0.2.1", "intf": "if12"}], "source": "192.0.2.2", "destination": "192.0.2.3"}}
{"bgpLuConverged": true, "seqno": 0}
)";

class Lab : protected Router {
 protected:
  // Publishes the lab, waits for what becomes of it, and kills the agent: what follows is read from the tables alone.
  void publishLab() const {
    Support::Process agent = serve();
    ASSERT_EQ(publishAll({scratch().fileWith("lab.jsonl", labScenario)}), 0);
    ASSERT_TRUE(agent.says("ready"));
    ASSERT_TRUE(Support::becomes([&] { return document()["fib"].size() == 6; })) << agentLog();
    ASSERT_TRUE(Support::becomes([&] {
      const OrderedJson all = document();
      return all["unprogrammable"].size() == 1 && all["ribs"][0]["entries"].size() == 5;  // without that tunnel's
    })) << agentLog();
    agent.stop(SIGKILL);
  }
};

}  // namespace Tools
