#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "agent/AgentHost.h"
#include "tests/agent/Scene.h"

namespace Agent {
namespace {

const std::string ldpEntry =
    R"({"table": "ldp", "put": {"index": 1, "tep": "10.0.0.1/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if1", "labels": [101]}]}})"
    "\n";
const std::string srOverLdp =
    R"({"table": "sr", "put": {"index": 9, "tep": "10.0.0.1/32", "vias": [{"intf": "tunnel:ldpTunnel/1", "labels": [17]}]}})"
    "\n";

std::string textOf(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Fails if something of a refused line is applied, or a line is accepted that the state does not allow.
TEST(AgentHost, refusesWhatTheStateDoesNotAllow) {
  struct Row {
    int line;
    std::string text;
    std::string error;
  };
  const std::vector<Row> rows = {
      {__LINE__, R"({"table": "ldp", "delete": 2})", "file:1: delete: ldp has no entry 2"},
      {__LINE__, R"({"table": "sr", "delete": 1})", "file:1: delete: sr has no entry 1"},
      {__LINE__, R"({"ribDelete": "system"})", "file:1: ribDelete: the system RIB cannot be removed"},
      {__LINE__, R"({"ribDelete": "c2"})", "file:1: ribDelete: no RIB 'c2' is configured"},
      {__LINE__, R"({"rib": "c2", "tables": {"ldp": {}, "sr": {}}})", "file:1: tables.sr: not mounted"},
      {__LINE__, R"({"rib": "c1", "tables": {"sr": {}}})", "file:1: tables.sr: not mounted"},
      {__LINE__,
       R"({"table": "ldp", "put": {"index": 3, "tep": "10.0.0.1/32", "vias": [{"intf": "if1"}, {"intf": "x"}]}})",
       "file:1: put.vias[1].intf: 'x' is not an interface (if<n>, tunnel:<id>, nexthopGroup:<n>)"},
  };
  Scene scene;
  ASSERT_EQ(scene.apply(R"({"unmount": "sr"})"
                        "\n"
                        R"({"rib": "c1", "tables": {"ldp": {"pref": 7}}})"
                        "\n" +
                        ldpEntry),
            "");
  const OrderedJson before = scene.settled();
  for (const Row& row : rows) {
    EXPECT_EQ(scene.apply(row.text), row.error) << "case in line " << row.line;
    EXPECT_EQ(scene.settled(), before) << "case in line " << row.line;
  }
  EXPECT_EQ(before["ribs"][1]["entries"][0]["pref"], 7);
}

// Every table is written through the rows of its fields and read back as what its record should be.
TEST(AgentHost, writesEveryTable) {
  Scene scene;
  const std::string vias = R"("vias": [{"nextHop": "192.0.2.1", "intf": "if1"}])";
  const std::string ends = R"("source": "192.0.2.9", "destination": "192.0.2.10", "tos": 4, "ttl": 64)";
  for (const TableId table : allTables()) {
    std::string fields = R"("index": 5, "tep": "10.0.0.1/32", "tieBreaker": 18446744073709551615, "pref": 9)";
    fields += table == TableId::nexthopGroup ? R"(, "nexthopGroupId": 4)" : ", " + vias;
    const Model::TunnelType type = scene.host().tables().table(table).tunnelType();
    fields += type == Model::TunnelType::l3IntfTunnel ? ", " + ends : "";
    fields +=
        table == TableId::ipsecGreTunnelInterface || table == TableId::ipsecVtiTunnelInterface ? R"(, "spi": 7)" : "";
    const std::string name = Zol::stringOf(table);
    ASSERT_EQ(scene.apply(R"({"table": ")" + name + R"(", "put": {)" + fields + "}}"), "") << name;
    scene.host().tables().withTable(table, [&](const auto& target) {
      const auto entry = target.value(Model::TunnelId(type, 5));
      EXPECT_EQ(entry.tieBreaker(), UINT64_MAX) << name;
      EXPECT_EQ(entry.pref(), 9) << name;
      EXPECT_EQ(Zol::stringOf(entry.tep()), "10.0.0.1/32") << name;
      if constexpr (requires { entry.via(); }) {
        EXPECT_EQ(entry.via().size(), 1U) << name;
      }
      if constexpr (requires { entry.tunnelInfo().spi(); }) {
        EXPECT_EQ(entry.tunnelInfo().spi(), 7U) << name;
      }
      if constexpr (requires { entry.tunnelInfo(); }) {
        EXPECT_EQ(entry.tunnelInfo().ttl(), 64) << name;
      }
      // The text of a record is the same record.
      EXPECT_EQ(Zol::fromText<std::remove_cvref_t<decltype(entry)>>(Zol::stringOf(entry)), entry) << name;
    });
    EXPECT_EQ(scene.apply(R"({"table": ")" + name + R"(", "delete": 5})"), "") << name;
    EXPECT_EQ(scene.host().tables().table(table).size(), 0U) << name;
  }
}

// Fails if the preference mapper of a custom RIB meets a configured table that is gone.
TEST(AgentHost, aTableOfACustomRibCanBeUnmounted) {
  Scene scene;
  const std::string unmountAndChurn = R"({"rib": "c1", "tables": {"ldp": {"pref": 7}, "sr": {}}}
)" + ldpEntry + srOverLdp + R"({"settle": true}
{"unmount": "ldp"}
{"table": "ldp", "put": {"index": 1, "tep": "10.0.0.2/32", "vias": []}}
{"settle": true}
{"table": "ldp", "delete": 1}
{"rib": "system", "tables": {"ldp": {}, "sr": {}}}
{"advance": 200}
)";
  ASSERT_EQ(scene.apply(unmountAndChurn), "");
  scene.host().restart();
  const OrderedJson unmounted = scene.settled();
  EXPECT_TRUE(unmounted["protocolRibs"]["ldpTunnel"].empty());
  EXPECT_FALSE(scene.host().isMounted(TableId::ldp));
  ASSERT_EQ(scene.apply(ldpEntry + R"({"settle": true}
{"mount": "ldp"}
{"mount": "ldp"}
)"),
            "");
  EXPECT_EQ(scene.settled()["ribs"][1]["entries"][0]["tunnels"], OrderedJson({"ldpTunnel/1"}));
}

// Where two documents differ, encapsulation ids and sequence numbers aside: those depend on the order of the work.
std::string difference(OrderedJson a, OrderedJson b) {
  for (OrderedJson* const document : {&a, &b}) {
    document->erase("encaps");
    document->erase("convergence");
  }
  return a == b ? "" : Json::diff(Json::parse(a.dump()), Json::parse(b.dump())).dump().substr(0, 2000);
}

// Fails if the state depends on when tasks yield.
TEST(AgentHost, examplesDoNotDependOnYields) {
  for (const char* const name : {"abilene", "captured-isp", "geant"}) {
    Scene calm;
    Scene yielding(1);
    const std::string text = textOf(std::string(EXAMPLES_DIR) + "/" + name + ".jsonl");
    ASSERT_EQ(calm.apply(text), "") << name;
    ASSERT_EQ(yielding.apply(text), "") << name;
    EXPECT_EQ(difference(calm.settled(), yielding.settled()), "") << name;
  }
}

// Fails if a restart over unchanged tables changes anything that others see, or writes what stands already.
TEST(AgentHost, restartWritesNothing) {
  for (const char* const name : {"abilene", "captured-isp", "geant"}) {
    Scene scene;
    ASSERT_EQ(scene.apply(textOf(std::string(EXAMPLES_DIR) + "/" + name + ".jsonl")), "") << name;
    const OrderedJson before = scene.settled();
    const auto written = [&scene] {
      return std::pair(scene.host().rib(0)->collectionControl().sequence(),
                       scene.host().fib()->entry().collectionControl().sequence());
    };
    const auto writtenBefore = written();
    scene.host().restart();
    const OrderedJson after = scene.settled();
    EXPECT_EQ(difference(before, after), "") << name;
    EXPECT_EQ(after["encaps"], before["encaps"]) << name;
    EXPECT_EQ(written(), writtenBefore) << name;
  }
}

// The form, keys and order of a document, byte by byte.
TEST(StateDocument, form) {
  Scene scene;
  ASSERT_EQ(scene.apply(textOf(std::string(TEST_DATA_DIR) + "/documents/everyKind.jsonl")), "");
  scene.settled();
  std::ostringstream document;
  writeStateDocument(document, scene.host());
  EXPECT_EQ(document.str(), textOf(std::string(TEST_DATA_DIR) + "/documents/everyKind.json"));
}

TEST(StateDocument, narrowedToAnEndpoint) {
  Scene scene;
  ASSERT_EQ(scene.apply(R"({"rib": "c1", "tables": {"sr": {}}})"
                        "\n" +
                        ldpEntry + srOverLdp +
                        R"({"table": "nexthopGroup", "put": {"index": 2, "tep": "10.0.0.2/32", "nexthopGroupId": 1}})"),
            "");
  scene.settled();
  DocumentFilter filter;
  filter.rib = "c1";
  filter.tep = Ipkit::IpGenPrefix::fromText("10.0.0.1/32");
  const OrderedJson document = stateDocument(scene.host(), filter);
  ASSERT_EQ(document["ribs"].size(), 1U);
  EXPECT_EQ(document["ribs"][0]["entries"][0]["tunnels"], OrderedJson({"srTunnel/9"}));
  EXPECT_EQ(document["fib"].size(), 2U);  // srTunnel/9, and ldpTunnel/1 which is filed at the endpoint too
  EXPECT_EQ(document["encaps"].size(), 2U);
}

}  // namespace
}  // namespace Agent
