// What a shadow foretells is what the agent does; and the questions about reasons.

#include "tests/tools/ShadowRouter.h"
#include "tools/WhatIf.h"

namespace Tools {
namespace {

class WhatIf : public testing::Test, protected ShadowRouter {
 protected:
  void SetUp() override { publishExample("abilene"); }

  // The differences that the tables show between then and now.
  std::size_t differencesTo(const std::string& before) const {
    StateReading then(before);
    StateReading now(stateDirectory());
    then.status();
    now.status();
    std::size_t count = 0;
    compareStates(then.state(), now.state(), {}, [&](const Difference&) { return ++count > 0; });
    return count;
  }
  // The agent runs again, change is made, and what comes of it is as foretold, and as the command says it.
  template <class Make>
  void expectForetold(const OrderedJson& expected, const Answer& answer, Make&& make) const {
    ASSERT_EQ(answer.status, 0) << answer.text;
    const std::string before = copied();
    Support::Process agent = serveExample("abilene");
    make();
    EXPECT_TRUE(Support::becomes([&] { return comparable(document()) == comparable(expected); })) << agentLog();
    EXPECT_EQ(answer.json()["count"], differencesTo(before));
    EXPECT_GT(answer.json()["count"], 0);
  }
  void apply(Shadow& shadow, const std::string& file) const {
    std::ifstream in(file);
    Agent::ScenarioReader reader(in, file);
    while (const auto line = reader.next()) {
      shadow.apply(*line);
    }
  }
};

TEST_F(WhatIf, aScenarioDoesWhatWasForetold) {
  // A cycle between two levels, a stack that gets too deep, an endpoint's winner that goes, a new tunnel.
  const std::string change = scratch().fileWith(
      "change.jsonl",
      "{\"table\": \"tiLfa\", \"put\": {\"index\": 2, \"vias\": [{\"intf\": \"tunnel:srTunnel/8\"}]}}\n"
      "{\"table\": \"tiLfa\", \"put\": {\"index\": 3, \"vias\": [{\"nextHop\": \"10.64.0.13\", \"intf\": \"if11\", "
      "\"labels\": [1, 2, 3, 4, 5, 6, 7]}]}}\n"
      "{\"table\": \"static\", \"delete\": 1}\n"
      "{\"table\": \"ldp\", \"put\": {\"index\": 99, \"tep\": \"10.9.9.9/32\", \"vias\": [{\"nextHop\": "
      "\"10.64.0.8\", \"intf\": \"if10\", \"labels\": [18]}]}}\n");
  const OrderedJson expected = foretold([&](Shadow& shadow) { apply(shadow, change); });
  EXPECT_FALSE(expected["unprogrammable"].empty());
  const Answer answer = ask({"what-if", change, "--json"});
  // The publisher's successor has to say everything again.
  const std::string all =
      scratch().fileWith("all.jsonl", Support::contentsOf(exampleFile("abilene")) + "\n" + Support::contentsOf(change));
  expectForetold(expected, answer, [&] { EXPECT_EQ(publishAll({all}), 0); });
}

TEST_F(WhatIf, anInterfaceFailsAsForetold) {
  const auto intf = Ipkit::IntfId::fromText("if12");
  std::size_t entries = 0;
  const OrderedJson expected = foretold([&](Shadow& shadow) { failIntf(shadow.host().tables(), intf, entries); });
  EXPECT_GT(entries, 0U);
  expectForetold(expected, ask({"what-if", "--fail-intf", "if12", "--json"}), [&] {
    Statehub::EntityManager publisher(stateDirectory());
    const std::set<Agent::TableId> all(Agent::allTables().begin(), Agent::allTables().end());
    const Agent::ProtocolTables tables(publisher, all, Statehub::Access::write);
    failIntf(tables, intf, entries);
    Agent::forEachNamedTable(
        [&](auto named) { tables.table<typename decltype(named)::Table>()->collectionReadyIs(true); });
  });
}

TEST_F(WhatIf, aTunnelFailsAsForetold) {
  const auto tunnel = Model::TunnelId::fromText("tiLfaTunnel/2");
  std::size_t entries = 0;
  const OrderedJson expected = foretold([&](Shadow& shadow) { failTunnel(shadow.host().tables(), tunnel, entries); });
  EXPECT_EQ(entries, 1U);
  expectForetold(expected, ask({"what-if", "--fail-tunnel", "tiLfaTunnel/2", "--json"}), [&] {
    Statehub::EntityManager publisher(stateDirectory());
    const Agent::ProtocolTables tables(publisher, {Agent::TableId::tiLfa}, Statehub::Access::write);
    tables.table<Model::TiLfaTunnelTable>()->entryDel(tunnel);
    tables.table<Model::TiLfaTunnelTable>()->collectionReadyIs(true);
  });
}

// Fails if one interface's failure is not taken back before the next.
TEST_F(WhatIf, eachInterfaceCostsWhatItCostsAlone) {
  const OrderedJson ranked = ask({"what-if", "--each", "intf", "--json"}).json()["interfaces"];
  ASSERT_GE(ranked.size(), 3U);
  std::size_t last = SIZE_MAX;
  for (const OrderedJson& each : ranked) {
    const OrderedJson alone = ask({"what-if", "--fail-intf", each["intf"], "--json"}).json()["summary"];
    EXPECT_EQ(each["lost"], alone["fib"]["lost"]) << each;
    EXPECT_EQ(each["changed"], alone["fib"]["changed"]) << each;
    EXPECT_EQ(each["endpointsLost"], alone["rib system"]["lost"]) << each;
    EXPECT_EQ(each["lost"].get<int>() + each["changed"].get<int>(), alone["tunnelsTouched"]) << each;
    EXPECT_LE(each["lost"].get<std::size_t>(), last) << "most first";
    last = each["lost"];
  }
}

TEST_F(WhatIf, reasonsAreToldWithoutAnAgent) {
  const OrderedJson rib = ask({"why", "10.0.0.7/32", "--json"}).json()["ribs"][0];
  ASSERT_EQ(rib["winners"].size(), 1U);
  EXPECT_EQ(rib["winners"][0]["tunnel"], "staticTunnel/1");
  ASSERT_EQ(rib["losers"].size(), 3U);
  EXPECT_EQ(rib["losers"][0]["rival"]["decidedBy"], "preference");
  EXPECT_EQ(ask({"why", "srTunnel/7", "--json"}).json()["ribs"][0]["state"], "lost");
  const OrderedJson dependents = ask({"dependents", "tiLfaTunnel/2", "--json"}).json();
  EXPECT_EQ(dependents["total"], 6);
  EXPECT_EQ(dependents["depths"][0]["tunnels"], OrderedJson({"srTunnel/2", "srTunnel/8", "srTunnel/11"}));
  EXPECT_EQ(dependents["depths"][2]["count"], 1);
  EXPECT_EQ(ask({"why", "10.0.0.7"}).text, ask({"why", "10.0.0.7/32"}).text);
  EXPECT_EQ(ask({"dependents", "tiLfaTunnel/2", "--json", "--limit", "1"}).json()["depths"][0]["tunnels"].size(), 1U);
}

TEST_F(WhatIf, questionsThatMakeNoSenseAreRefused) {
  EXPECT_EQ(ask({"why", "nonsense"}).status, 2);
  EXPECT_EQ(ask({"dependents", "10.0.0.7/32"}).status, 2);
  EXPECT_EQ(ask({"what-if"}).status, 2);
  EXPECT_EQ(ask({"what-if", "--fail-intf", "eth0"}).status, 2);
  EXPECT_EQ(ask({"what-if", "--fail-tunnel", "ldpTunnel/4711"}).status, 2);
  const std::string wrong = scratch().fileWith("wrong.jsonl", "{\"settle\": true}\n{\"table\": \"ldp\"}\n");
  const Answer answer = ask({"what-if", wrong});
  EXPECT_EQ(answer.status, 2);
  EXPECT_NE(answer.text.find("wrong.jsonl:2:"), std::string::npos) << answer.text;
}

}  // namespace
}  // namespace Tools
