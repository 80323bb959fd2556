// Damage seen from outside: the answers of the tools about an input table with a damaged record, and the repair of a
// running agent's FIB.
#include <fstream>
#include <set>

#include "runtime/Quor/SimulatedLoop.h"
#include "tests/tools/ShadowRouter.h"

namespace Tools {
namespace {

class DamageSeen : public testing::Test, protected ShadowRouter {
 protected:
  // Flips length bytes from the record of the tunnel on, in the file at path.
  template <class Map>
  void flip(const Map& map, const char* tunnel, const std::string& path, std::size_t length) const {
    const auto record = map.lookup(Model::TunnelId::fromText(tunnel));
    ASSERT_TRUE(record);
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    std::string content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const std::size_t at = content.find(std::string(reinterpret_cast<const char*>(record->data()), record->size()));
    ASSERT_NE(at, std::string::npos);
    for (std::size_t i = 0; i < length; ++i) {
      content[at + i] = static_cast<char>(content[at + i] ^ 0x55);
    }
    file.seekp(static_cast<std::streamoff>(at));
    file.write(content.data() + at, static_cast<std::streamsize>(length));
  }
  // An LDP tunnel, an SR tunnel through it, another LDP tunnel, and what an agent makes of them. All processes are
  // gone.
  void fill() const {
    {
      const auto publisher = Zol::make<Statehub::EntityManager>(stateDirectory());
      const std::set<Agent::TableId> all(Agent::allTables().begin(), Agent::allTables().end());
      const Agent::ProtocolTables tables(*publisher, all, Statehub::Access::write);
      put<Model::LdpTunnelTableEntry>(tables.table<Model::LdpTunnelTable>(), "ldpTunnel/1", "10.0.0.1/32", "if1", 101);
      put<Model::LdpTunnelTableEntry>(tables.table<Model::LdpTunnelTable>(), "ldpTunnel/2", "10.0.0.2/32", "if1", 102);
      put<Model::SrTunnelTableEntry>(tables.table<Model::SrTunnelTable>(), "srTunnel/9", "10.0.0.9/32",
                                     "tunnel:ldpTunnel/1", 17);
      for (const Agent::TableId id : all) {
        tables.withTable(id, [](auto& table) { table.collectionReadyIs(true); });
      }
    }
    Quor::SimulatedTimeSource time;
    Quor::TimeSlicePolicy slices{time};
    Agent::AgentHost host(time, slices, Zol::make<Statehub::EntityManager>(stateDirectory()));
    Agent::StatusWriter status(host, host.scheduler());
    host.ribConfigs()->configIs(Agent::defaultSystemConfig());
    host.start();
    status.publishRibs(*host.ribConfigs());
    Quor::settle(*host.scheduler(), time);
    host.stop();
  }
  template <class Entry, class Table>
  static void put(const Zol::Ptr<Table>& table, const char* id, const char* tep, const char* intf, unsigned label) {
    Entry entry{Model::TunnelId::fromText(id)};
    entry.tepIs(Ipkit::IpGenPrefix::fromText(tep));
    entry.viaRef().append(
        Model::MplsVia{Model::Via(Ipkit::IpGenAddr::fromText("192.0.2.1"), Ipkit::IntfId::fromText(intf)),
                       Ipkit::MplsLabelOperation(Ipkit::MplsLabelOperation::Op::push,
                                                 std::vector{Ipkit::MplsLabelOperation::Label(label)})});
    table->entryIs(entry);
  }
  std::string ldpFile() const { return stateDirectory() + "/tunnel/table/ldp"; }
};

// Fails if a tool calls the agent late or its entries stale because of a record that cannot be read.
TEST_F(DamageSeen, inputsAreNamedAndNotJudged) {
  fill();
  ASSERT_TRUE(isSame());
  {
    const Reading reading(stateDirectory());
    flip(*reading.state.tables().table<Model::LdpTunnelTable>(), "ldpTunnel/1", ldpFile(), 4);
  }
  const Verdict verdict = verify(stateDirectory());
  EXPECT_TRUE(verdict.wrong.empty()) << publishedWords(verdict.wrong.front());
  EXPECT_FALSE(verdict.unjudged.empty());
  ASSERT_EQ(verdict.damaged.size(), 1U);
  EXPECT_EQ(verdict.damaged.front().find("table ldp (" + ldpFile() + "): damaged: "), 0U) << verdict.damaged.front();
  EXPECT_NE(verdict.damaged.front().find("cannot be judged: 10.0.0.1/32, 10.0.0.9/32, ldpTunnel/1, srTunnel/9"),
            std::string::npos)
      << verdict.damaged.front();
  for (const std::vector<std::string>& question :
       {std::vector<std::string>{"why", "ldpTunnel/1"}, {"verify"}, {"check"}, {"verify", "--json"}}) {
    const Answer answer = ask(question);
    EXPECT_EQ(answer.status, 1) << answer.text;
    EXPECT_NE(answer.text.find("table ldp (" + ldpFile() + "): damaged: "), std::string::npos) << answer.text;
    for (const char* const falsehood : {"not due", "no entry in table", "is behind", "missing"}) {
      EXPECT_EQ(answer.text.find(falsehood), std::string::npos) << answer.text;
    }
  }
}

// Fails if the agent does not find damage to its own table, name it, repair it, and count it where operators look.
TEST_F(DamageSeen, anAgentRepairsItsFib) {
  Support::Process agent = serveExample("abilene");
  ASSERT_EQ(publishAll({exampleFile("abilene")}), 0);
  ASSERT_TRUE(agent.says("ready"));
  ASSERT_TRUE(Support::becomes([&] { return isSame(); }, 60)) << agentLog();
  const OrderedJson before = document();
  {
    const Reading reading(stateDirectory());
    flip(reading.state.fib()->entry(), "ldpTunnel/1", stateDirectory() + "/tunnel/tunnelFib", 40);
  }
  EXPECT_NE(document(), before);
  ASSERT_TRUE(agent.says("table fib (" + stateDirectory() + "/tunnel/tunnelFib) is damaged: ldpTunnel/1", 30))
      << agentLog();
  EXPECT_TRUE(becomes(before, 30)) << agentLog();
  EXPECT_TRUE(Support::becomes(
      [&] { return ask({"metrics"}).text.find("tunnel_agent_damage_repaired_total 0") == std::string::npos; }, 20));
  const Answer check = ask({"check"});
  EXPECT_NE(check.text.find("the agent has found"), std::string::npos) << check.text;
  EXPECT_EQ(check.status, 0) << check.text;
}

}  // namespace
}  // namespace Tools
