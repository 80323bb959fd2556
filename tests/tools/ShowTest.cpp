// "tunnelctl show": lists out of the tables, with the agent dead.

#include "agent/Terminal.h"
#include "tests/tools/Lab.h"

namespace Tools {
namespace {

class Show : public testing::Test, protected Lab {
 protected:
  // The first cells of what is listed as JSON, sorted.
  std::set<std::string> keys(std::vector<std::string> words, const char* list, const char* key) const {
    words.emplace_back("--json");
    const Answer answer = ask(words);
    EXPECT_EQ(answer.status, 0) << answer.text;
    std::set<std::string> found;
    const OrderedJson json = answer.json();
    for (const OrderedJson& row : json.at(list)) {
      EXPECT_TRUE(found.insert(row.at(key).get<std::string>()).second) << answer.text;
    }
    return found;
  }
};

std::multiset<std::string> rowsOf(const OrderedJson& list) {
  std::multiset<std::string> rows;
  for (const OrderedJson& row : list) {
    rows.insert(row.dump());
  }
  return rows;
}

TEST_F(Show, listsHoldWhatTheStateDocumentHolds) {
  publishLab();
  const OrderedJson document = ask({"state"}).json();
  EXPECT_EQ(rowsOf(ask({"show", "fib", "--json"}).json()["fib"]), rowsOf(document["fib"]));
  EXPECT_EQ(rowsOf(ask({"show", "encaps", "--json"}).json()["encaps"]), rowsOf(document["encaps"]));
  EXPECT_EQ(rowsOf(ask({"show", "rib", "system", "--json"}).json()["entries"]), rowsOf(document["ribs"][0]["entries"]));
  EXPECT_EQ(rowsOf(ask({"show", "rib", "srTunnel", "--json"}).json()["entries"]),
            rowsOf(document["protocolRibs"]["srTunnel"]));
  EXPECT_EQ(ask({"show", "unprogrammable", "--json"}).json()["unprogrammable"], document["unprogrammable"]);
  EXPECT_EQ(ask({"show", "ribs", "--json"}).json()["ribs"][0]["entries"], document["ribs"][0]["entries"].size());
}

constexpr const char* fullScenario = R"(
{"table": "bgpLu", "put": {"index": 1, "tep": "10.1.0.1/32", "vias": [{"intf": "tunnel:ldpTunnel/5"}], "labels": [5, 6], "metrics": [1, 2, 3, 4], "contribution": "notContributing"}}
{"table": "bgpLuPush", "put": {"index": 2, "vias": [{"nextHop": "fe80::1", "intf": "if7"}], "labels": [9], "op": "swap"}}
{"table": "ldp", "put": {"index": 5, "tep": "10.0.0.5/32", "pref": 3, "tieBreaker": 18446744073709551615, "vias": [{"nextHop": "192.0.2.1", "intf": "if12", "labels": [300123]}], "metrics": [9, 8, 7, 6]}}
{"table": "static", "put": {"index": 3, "tep": "10.0.0.3/32", "vias": [{"intf": "if14", "labels": [40], "op": "pop"}], "backupVias": [{"intf": "if12"}]}}
{"table": "nexthopGroup", "put": {"index": 4, "tep": "2001:db8::4/128", "nexthopGroupId": 7}}
{"table": "tiLfa", "put": {"index": 6, "vias": [{"intf": "if1"}], "backupVias": [{"intf": "if2", "labels": [1]}]}}
{"table": "ipsecGreTunnelInterface", "put": {"index": 2, "vias": [], "source": "192.0.2.2", "destination": "192.0.2.3", "tos": 1, "ttl": 2, "spi": 4294967295}}
)";

// Fails if a field of a record is left out or written in another form than scenarios have.
TEST_F(Show, aTableIsShownSoThatItCanBePublishedAgain) {
  const std::string path = scratch().fileWith("all.jsonl", fullScenario);
  ASSERT_EQ(publishAll({path}), 0);
  const Router other;
  for (const std::string table :
       {"bgpLu", "bgpLuPush", "ldp", "static", "nexthopGroup", "tiLfa", "ipsecGreTunnelInterface"}) {
    const OrderedJson shown = ask({"show", "table", table, "--json"}).json();
    ASSERT_EQ(shown["entries"].size(), 1U) << table;
    const OrderedJson line = {{"table", table}, {"put", shown["entries"][0]}};
    ASSERT_EQ(other.publishAll({other.scratch().fileWith("again.jsonl", line.dump())}), 0) << line;
    EXPECT_EQ(other.ask({"show", "table", table, "--json"}).json(), shown);
  }
}

// Fails if words hide what a filter has found, or what keeps an entry out of the FIB.
TEST_F(Show, wordsTellBackupsOperationsAndWraps) {
  publishLab();
  EXPECT_NE(ask({"show", "fib"}).text.find("if12 192.0.2.1 gre 192.0.2.2 -> 192.0.2.3\n"), std::string::npos);
  ASSERT_EQ(publishAll({scratch().fileWith("all.jsonl", fullScenario)}), 0);
  for (const auto& [table, words] : std::map<std::string, std::string>{
           {"bgpLu", "tunnel:ldpTunnel/5 [5, 6], not contributing\n"},
           {"bgpLuPush", "if7 fe80::1 swap [9]\n"},
           {"static", "if14 pop [40] backup if12 []\n"},
           {"tiLfa", "if1 [] backup if2 [1]\n"},
           {"ipsecGreTunnelInterface", "no vias, 192.0.2.2 -> 192.0.2.3 spi 4294967295\n"}}) {
    EXPECT_NE(ask({"show", "table", table}).text.find(words), std::string::npos) << ask({"show", "table", table}).text;
  }
}

// Fails if an address is looked for among endpoints that are not listed.
TEST_F(Show, anAddressFindsTheLongestPrefixOfItsList) {
  const std::string config = scratch().fileWith("rib.jsonl", R"({"rib": "onlyldp", "tables": {"ldp": {}}})");
  const Support::Process agent = serve({"--config", config});
  ASSERT_EQ(publishAll({scratch().fileWith("nested.jsonl", R"(
{"table": "ldp", "put": {"index": 2, "tep": "10.9.0.0/16", "vias": [{"nextHop": "192.0.2.1", "intf": "if12"}]}}
{"table": "sr", "put": {"index": 5, "tep": "10.9.9.0/24", "vias": [{"nextHop": "192.0.2.1", "intf": "if12"}]}}
{"table": "sr", "put": {"index": 6, "tep": "10.9.9.128/25", "vias": [{"intf": "tunnel:ldpTunnel/99"}]}}
{"table": "static", "put": {"index": 7, "tep": "10.8.0.0/16", "vias": [{"intf": "if12", "labels": [9], "op": "pop"}]}}
)")}),
            0);
  ASSERT_TRUE(Support::becomes([&] {
    const OrderedJson now = document();
    return now["fib"].size() == 2 && now["unprogrammable"].size() == 2;
  })) << agentLog();
  const std::string address = "10.9.9.200";
  EXPECT_EQ(keys({"show", "fib", "--tep", address}, "fib", "tunnel"), std::set<std::string>{"srTunnel/5"});
  EXPECT_EQ(keys({"show", "fib", "--tep", address, "--rib", "onlyldp"}, "fib", "tunnel"),
            std::set<std::string>{"ldpTunnel/2"});
  EXPECT_EQ(ask({"show", "unprogrammable", "--tep", address, "--json"}).json()["unprogrammable"],
            OrderedJson::array({"srTunnel/6"}));
  EXPECT_EQ(keys({"show", "unprogrammable", "--reason", "noPush"}, "unprogrammable", "tunnel"),
            std::set<std::string>{"staticTunnel/7"})
      << "a reason that is shown can be asked for";

  Support::Process watch(
      {TUNNELCTL_PATH, "watch", "--rib", "onlyldp", "--tep", address, "--limit", "1", "--state-dir", stateDirectory()},
      scratch() / "watch.log");
  ASSERT_TRUE(watch.says("watching"));
  ASSERT_EQ(publishAll({"--table", "ldp"}), 0);
  EXPECT_TRUE(watch.says("10.9.0.0/16: gone")) << watch.output();
}

// Fails if a line is longer than the terminal, or an address is broken.
TEST_F(Show, linesFitTheTerminal) {
  publishLab();
  setenv("COLUMNS", "44", 1);
  for (const std::vector<std::string>& words : {std::vector<std::string>{"show", "fib"},
                                                {"dependents", "ldpTunnel/5"},
                                                {"why", "srTunnel/8"},
                                                {"resolve", "10.0.0.5"}}) {
    std::istringstream text(ask(words).text);
    for (std::string line; std::getline(text, line);) {
      EXPECT_LE(Agent::widthOf(line), 44U) << line;
    }
  }
  const std::string fib = ask({"show", "fib", "--tunnel", "ldpTunnel/5"}).text;
  unsetenv("COLUMNS");
  EXPECT_EQ(fib,
            "tunnel       vias\n"
            "ldpTunnel/5  if12 192.0.2.1 [300123], if13\n"
            "             192.0.2.5 [300124]\n");
}

TEST_F(Show, filtersNarrow) {
  publishLab();
  struct Case {
    int line;
    std::vector<std::string> words;
    std::set<std::string> expected;
  };
  const Case fibCases[] = {
      {__LINE__, {"--tunnel", "srTunnel/9"}, {"srTunnel/9"}},
      {__LINE__, {"--tunnel", "srTunnel/8"}, {}},
      {__LINE__, {"--type", "ldpTunnel"}, {"ldpTunnel/5", "ldpTunnel/6"}},
      {__LINE__, {"--tep", "10.0.0.9/32"}, {"srTunnel/9"}},
      {__LINE__, {"--tep", "10.0.0.9/32", "--tunnel", "ldpTunnel/5"}, {}},
      {__LINE__, {"--intf", "if13"}, {"ldpTunnel/5", "srTunnel/9"}},
      {__LINE__, {"--label", "41"}, {"staticTunnel/3"}},
      {__LINE__, {"--next-hop", "192.0.2.5", "--label", "300123"}, {}},
      {__LINE__, {"--next-hop", "192.0.2.1", "--label", "300123"}, {"ldpTunnel/5", "srTunnel/9"}},
  };
  for (const Case& each : fibCases) {
    std::vector<std::string> words = {"show", "fib"};
    words.insert(words.end(), each.words.begin(), each.words.end());
    EXPECT_EQ(keys(words, "fib", "tunnel"), each.expected) << "case in line " << each.line;
  }
  const Case ribCases[] = {
      {__LINE__, {"--tunnel", "srTunnel/9"}, {"10.0.0.9/32"}},
      {__LINE__, {"--tunnel", "srTunnel/8"}, {}},
      {__LINE__, {"--tep", "10.0.0.9/32", "--tunnel", "ldpTunnel/5"}, {}},
      {__LINE__, {"--type", "ldpTunnel", "--label", "300125"}, {"10.0.0.6/32"}},
      {__LINE__, {"--intf", "if14"}, {"10.0.0.0/24"}},
  };
  for (const Case& each : ribCases) {
    std::vector<std::string> words = {"show", "rib", "system"};
    words.insert(words.end(), each.words.begin(), each.words.end());
    EXPECT_EQ(keys(words, "entries", "tep"), each.expected) << "case in line " << each.line;
  }
  EXPECT_EQ(keys({"show", "table", "sr", "--intf", "tunnel:ldpTunnel/99"}, "entries", "tep"),
            std::set<std::string>{"10.0.0.8/32"});
  EXPECT_EQ(keys({"show", "rib", "srTunnel"}, "entries", "tep"), std::set<std::string>{"10.0.0.9/32"});
  EXPECT_EQ(keys({"show", "table", "sr", "--rib", "system"}, "entries", "tep"), std::set<std::string>{"10.0.0.9/32"});
  for (const char* const reason : {"any", "recTunMissing"}) {
    EXPECT_EQ(keys({"show", "table", "sr", "--reason", reason}, "entries", "tep"),
              std::set<std::string>{"10.0.0.8/32"});
  }
  EXPECT_TRUE(keys({"show", "table", "sr", "--reason", "recTunCycle"}, "entries", "tep").empty());
  const auto stacks = [&](std::vector<std::string> words) {
    words.insert(words.begin(), {"show", "encaps", "--json"});
    std::set<std::string> labels;
    const OrderedJson shown = ask(words).json();
    for (const OrderedJson& encap : shown["encaps"]) {
      labels.insert(encap.contains("labels") ? encap["labels"].dump() : encap["id"].get<std::string>().substr(0, 3));
    }
    return labels;
  };
  EXPECT_EQ(stacks({"--tunnel", "srTunnel/9"}), (std::set<std::string>{"[300123,17]", "[300124,17]"}));
  EXPECT_EQ(stacks({"--tep", "10.0.0.9", "--intf", "if13"}), std::set<std::string>{"[300124,17]"});
  EXPECT_EQ(stacks({"--type", "l3IntfTunnel"}), std::set<std::string>{"gre"});
  EXPECT_EQ(stacks({"--rib", "ldpTunnel", "--label", "300123"}), std::set<std::string>{"[300123]"});
}

// Fails if a page leaves out what stands behind the last row, or shows a row again.
TEST_F(Show, pagesPutTogetherAreTheWhole) {
  publishLab();
  for (const std::vector<std::string>& list : {std::vector<std::string>{"fib"},
                                               {"encaps"},
                                               {"fib", "--intf", "if12"},
                                               {"fib", "--type", "ldpTunnel"},
                                               {"rib", "system"},
                                               {"table", "ldp"},
                                               {"tables"},
                                               {"ribs"},
                                               {"convergence"},
                                               {"unprogrammable"}}) {
    std::vector<std::string> all = {"show"};
    all.insert(all.end(), list.begin(), list.end());
    all.emplace_back("--json");
    const OrderedJson whole = ask(all).json();
    const std::string member = (--whole.end()).key();
    OrderedJson together = OrderedJson::array();
    all.insert(all.end(), {"--limit", "1"});
    for (auto page = all; !page.empty();) {
      const Answer answer = ask(page);
      ASSERT_EQ(answer.status, 0) << answer.text;
      const OrderedJson json = answer.json();
      together.insert(together.end(), json[member].begin(), json[member].end());
      ASSERT_LE(together.size(), whole[member].size());
      page.clear();
      if (json.contains("after")) {
        page = all;
        page.insert(page.end(), {"--after", json["after"]});
      }
    }
    EXPECT_EQ(together, whole[member]) << list[0];
  }
}

TEST_F(Show, tablesAndProcessesTellWhoHoldsWhat) {
  Support::Process agent = serve();
  ASSERT_EQ(publishAll({scratch().fileWith("lab.jsonl", labScenario)}), 0);
  ASSERT_TRUE(agent.says("ready"));
  const auto row = [&](const std::string& name) {
    const OrderedJson shown = ask({"show", "tables", "--json"}).json();
    for (const OrderedJson& each : shown["tables"]) {
      if (each["table"] == name) {
        return each;
      }
    }
    return OrderedJson();
  };
  EXPECT_EQ(row("ldp")["entries"], 2);
  EXPECT_EQ(row("ldp")["state"], "complete");
  EXPECT_EQ(row("ldp")["writer"], "gone");
  EXPECT_EQ(row("rsvp")["state"], "absent");
  EXPECT_EQ(row("fib")["writer"], "alive");
  EXPECT_EQ(row("fib")["file"], stateDirectory() + "/tunnel/tunnelFib");
  const OrderedJson shown = ask({"show", "processes", "--json"}).json();
  EXPECT_EQ(shown["processes"].size(), 10U) << shown;
  for (const OrderedJson& each : shown["processes"]) {
    EXPECT_EQ(each["pid"], agent.pid());
    EXPECT_EQ(each["name"], "tunnel-agent");
  }
  agent.stop(SIGKILL);
  EXPECT_EQ(row("fib")["writer"], "gone");
  EXPECT_TRUE(ask({"show", "processes", "--json"}).json()["processes"].empty());
}

TEST_F(Show, whatCannotBeShownIsToldWithItsPath) {
  const std::string directory = stateDirectory();
  EXPECT_EQ(ask({"show", "fib"}).status, 1);
  EXPECT_NE(ask({"show", "fib"}).text.find(directory + ": no such state directory"), std::string::npos);
  ASSERT_EQ(publishAll({scratch().fileWith("lab.jsonl", labScenario)}), 0);
  const Answer absent = ask({"show", "table", "rsvp", "--json"});
  EXPECT_EQ(absent.status, 1);
  EXPECT_EQ(absent.json()["error"]["reason"], directory + "/tunnel/table/rsvp: no such table");
  std::ofstream(directory + "/tunnel/table/rsvp") << "no table";
  chmod((directory + "/tunnel/table/rsvp").c_str(), 0640);
  const Answer foreign = ask({"show", "table", "rsvp"});
  EXPECT_EQ(foreign.status, 1);
  EXPECT_NE(foreign.text.find(directory + "/tunnel/table/rsvp: its 8 bytes are too few"), std::string::npos)
      << foreign.text;
  EXPECT_EQ(ask({"show", "tables"}).status, 1);
  EXPECT_EQ(ask({"show", "rib", "blue"}).status, 1);
  for (const std::vector<std::string>& words : {std::vector<std::string>{"show", "table", "gre"},
                                                {"show", "table", "ldp", "--tunnel", "ldp/5"},
                                                {"show", "table", "ldp", "--label", "1048576"},
                                                {"show", "table", "ldp", "--after", "x"}}) {
    EXPECT_EQ(ask(words).status, 2) << words.back();
  }
  EXPECT_EQ(ask({"show", "table", "ldp", "--tep", "10.0.0.1/8", "--json"}).json()["error"]["status"], 2);
}

}  // namespace
}  // namespace Tools
