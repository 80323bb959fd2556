// The commands that ask a shadow of the agent, over what real processes published; the agent is killed before most
// questions.

#include <algorithm>

#include "runtime/Quor/RealTimeSource.h"
#include "runtime/Quor/TimeSlicePolicy.h"
#include "tests/tools/ShadowRouter.h"

namespace Tools {
namespace {

namespace Fib = Tunnel::TunnelFib;

class ShadowExample : public testing::TestWithParam<const char*>, protected ShadowRouter {
 protected:
  void expectRightAndSound() const {
    ASSERT_TRUE(Support::becomes([&] { return isSame(); }, 60)) << agentLog();
    const Answer verified = ask({"verify"});
    EXPECT_EQ(verified.status, 0) << verified.text.substr(0, 2000);
    const Answer checked = ask({"check"});
    EXPECT_EQ(checked.status, 0) << checked.text;
  }
};

// What publishers do between one settle of the file and the next.
std::vector<std::vector<Agent::ScenarioLine>> stepsOf(const std::string& file) {
  std::ifstream in(file);
  Agent::ScenarioReader reader(in, file);
  std::vector<std::vector<Agent::ScenarioLine>> steps(1);
  while (auto line = reader.next()) {
    if (std::holds_alternative<Agent::SettleLine>(*line)) {
      steps.emplace_back();
    } else if (std::holds_alternative<Agent::PutLine>(*line) || std::holds_alternative<Agent::DeleteLine>(*line)) {
      steps.back().push_back(std::move(*line));
    }
  }
  return steps;
}

// Fails if shadow and agent read configuration or tables differently, if a comparison sees what is no difference, or if
// what a shadow foretells of the next changes is not what becomes of them.
TEST_P(ShadowExample, everySettleIsRightAndSoundAndAsForetold) {
  const char* const limit = std::getenv("SHADOW_STEPS");
  const std::size_t usual = std::filesystem::file_size(exampleFile(GetParam())) < 200000 ? 4 : 2;
  const auto steps = stepsOf(exampleFile(GetParam()));
  const std::size_t count =
      std::min<std::size_t>(steps.size(), limit == nullptr ? usual : std::strtoul(limit, nullptr, 10));
  Support::Process agent = serveExample(GetParam());
  ASSERT_TRUE(agent.says("ready")) << "or else verify finds nobody who could be behind";
  Support::Process publisher = publish({exampleFile(GetParam()), "--step"});
  const auto settles = [&publisher](std::size_t wanted) {
    const std::string said = publisher.output();
    return std::size_t(std::count(said.begin(), said.end(), '\n')) >= wanted;
  };
  for (std::size_t step = 1; step < count; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    ASSERT_TRUE(Support::becomes([&] { return settles(step); }, 60));
    expectRightAndSound();
    const OrderedJson expected = comparable(foretold([&](Shadow& shadow) {
      for (const Agent::ScenarioLine& line : steps[step]) {
        shadow.apply(line);
      }
    }));
    publisher.tell("\n");
    ASSERT_TRUE(Support::becomes([&] { return comparable(document()) == expected; }, 60)) << agentLog();
  }
  publisher.stop(SIGKILL);
  ASSERT_EQ(publishAll({exampleFile(GetParam())}), 0);
  expectRightAndSound();
  agent.stop(SIGKILL);
  expectRightAndSound();
}

INSTANTIATE_TEST_SUITE_P(Examples, ShadowExample, testing::Values("abilene", "captured-isp", "geant", "cogent", "kdl"),
                         [](const auto& name) {
                           std::string word = name.param;
                           std::replace(word.begin(), word.end(), '-', '_');
                           return word;
                         });

class ShadowOf : public testing::Test, protected ShadowRouter {};

// What a program gone wrong could have written into RIBs and FIB.
struct Spoiling {
  int line;
  const char* where;
  const char* what;
  std::function<void(Agent::AgentState&)> spoil;
};

Model::TunnelId id(const char* text) { return Model::TunnelId::fromText(text); }
Ipkit::IpGenPrefix tep(const char* text) { return Ipkit::IpGenPrefix::fromText(text); }

// Writes the entry of ldpTunnel/1 changed.
template <class Change>
auto fibEntry(const char* tunnel, Change change) {
  return [=](Agent::AgentState& state) {
    Fib::TunnelFibEntry entry = state.fib()->entry().value(id(tunnel));
    change(entry);
    state.fib()->entry().entryIs(entry);
  };
}
// The same of a first via; backup: among the backup vias.
template <class Change>
auto fibVia(const char* tunnel, bool isBackup, Change change) {
  return fibEntry(tunnel, [=](Fib::TunnelFibEntry& entry) {
    Fib::TunnelViaArray vias = isBackup ? entry.backupTunnelVia() : entry.tunnelVia();
    Fib::TunnelVia via = vias[0];
    change(via);
    vias.swapRemove(0);
    vias.append(via);
    isBackup ? entry.backupTunnelViaIs(vias) : entry.tunnelViaIs(vias);
  });
}
template <class Change>
auto ribEntry(const char* endpoint, Change change) {
  return [=](Agent::AgentState& state) {
    Model::TunnelRibEntry entry = state.rib(0)->value(tep(endpoint));
    change(entry);
    state.rib(0)->entryIs(entry);
  };
}
Model::TunnelRib& ldpRib(Agent::AgentState& state) {
  return *state.protocolRibs()->protocolTunnelRib(Model::TunnelType::ldpTunnel)->tunnelRib();
}
Model::TunnelRib& customRib(Agent::AgentState& state) {
  const std::string path = Model::tunnelRibStatusPathPrefix + std::string("1");
  state.entityManager()->doMount(path, Model::TunnelRib::entityTypeName, Model::sharedTable(Statehub::Access::write));
  return *Zol::dynamicPtrCast<Model::TunnelRib>(state.entityManager()->getEntity(path));
}
Fib::EncapId otherEncap(Agent::AgentState& state, const char* tunnel) {
  return state.fib()->entry().value(id(tunnel)).tunnelVia(0).encapId();
}

// Of a custom RIB another preference is published than its entries were made with.
void reconfigured(Agent::AgentState& state) {
  const auto table =
      Agent::statusTable<Agent::RibStatus>(*state.entityManager(), Agent::ribStatusPath, Statehub::Access::write);
  Agent::RibLine line = Agent::ribLine(table->value(1));
  for (auto& [name, preference] : line.tables) {
    preference = 3;
  }
  Agent::RibConfigText text;
  for (const char c : Agent::ribLineText(*Agent::ribConfig(line.name, line.tables))) {
    text.append(static_cast<std::uint8_t>(c));
  }
  Agent::RibStatus status;
  status.ribIdIs(1);
  status.configIs(text);
  table->entryIs(status);
}

// A publisher changes its table, and no agent hears of it.
template <class F>
void publisherDoes(const Agent::AgentState& state, F&& change) {
  Statehub::EntityManager publisher(state.entityManager()->stateDirectory());
  const Agent::ProtocolTables tables(publisher, {Agent::TableId::ldp}, Statehub::Access::write);
  change(*tables.table<Model::LdpTunnelTable>());
  tables.table<Model::LdpTunnelTable>()->collectionReadyIs(true);
}
void addTunnel(Model::LdpTunnelTable& ldp) {
  Model::LdpTunnelTableEntry entry = ldp.value(id("ldpTunnel/1"));
  entry.tunnelIdIs(id("ldpTunnel/999"));
  entry.tepIs(tep("10.99.0.9/32"));
  ldp.entryIs(entry);
}

const std::vector<Spoiling> spoilings = {
    {__LINE__, "fib", "entry", [](auto& state) { state.fib()->entry().entryDel(id("ldpTunnel/1")); }},
    {__LINE__, "fib", "entry",
     [](auto& state) {
       Fib::TunnelFibEntry entry(id("ldpTunnel/777"));
       entry.tunnelViaIs(state.fib()->entry().value(id("ldpTunnel/1")).tunnelVia());
       state.fib()->entry().entryIs(entry);
     }},
    {__LINE__, "fib", "via", fibEntry("ldpTunnel/1", [](auto& entry) { entry.tunnelViaIs({}); })},
    {__LINE__, "fib", "via",
     fibEntry("ldpTunnel/1",
              [](auto& entry) {
                Fib::TunnelViaArray vias = entry.tunnelVia();
                vias.append(vias[0]);
                entry.tunnelViaIs(vias);
              })},
    {__LINE__, "fib", "via",
     fibVia("ldpTunnel/1", false, [](auto& via) { via.intfIs(Ipkit::IntfId::fromText("if99")); })},
    {__LINE__, "fib", "via",
     fibVia("ldpTunnel/1", false, [](auto& via) { via.nextHopIs(Ipkit::IpGenAddr::fromText("10.64.0.99")); })},
    {__LINE__, "fib", "via", fibVia("ldpTunnel/1", false, [](auto& via) { via.encapIdIs(Fib::EncapId()); })},
    {__LINE__, "fib", "via",
     fibVia("ldpTunnel/1", false, [](auto& via) { via.encapIdIs(Fib::EncapId(Fib::EncapType::labelStack, 4000)); })},
    {__LINE__, "fib", "via",
     [](auto& state) {
       const Fib::EncapId other = otherEncap(state, "ldpTunnel/2");
       fibVia("ldpTunnel/1", false, [other](auto& via) { via.encapIdIs(other); })(state);
     }},
    {__LINE__, "fib", "via",
     [](auto& state) {  // the record itself, under the same number
       const Fib::EncapId mine = otherEncap(state, "ldpTunnel/1");
       const auto labels = state.fib()->labelStackEncap().value(otherEncap(state, "ldpTunnel/2")).info();
       state.fib()->labelStackEncap().entryIs(Fib::LabelStackEncap(mine, labels));
     }},
    {__LINE__, "fib", "via",
     [](auto& state) {
       const Fib::EncapId mine = otherEncap(state, "l3IntfTunnel/1");
       auto info = state.fib()->greEncap().value(mine).info();
       info.tosIs(77);
       state.fib()->greEncap().entryIs(Fib::GreEncap(mine, info));
     }},
    {__LINE__, "fib", "backup via", fibEntry("staticTunnel/1", [](auto& entry) { entry.backupTunnelViaIs({}); })},
    {__LINE__, "fib", "backup via",
     fibVia("staticTunnel/1", true, [](auto& via) { via.intfIs(Ipkit::IntfId::fromText("if99")); })},
    {__LINE__, "fib", "usable", fibEntry("ldpTunnel/1", [](auto& entry) { entry.arePrimaryViasUsableIs(false); })},
    {__LINE__, "rib system", "entry", [](auto& state) { state.rib(0)->entryDel(tep("10.0.0.1/32")); }},
    {__LINE__, "rib system", "entry",
     [](auto& state) {
       Model::TunnelRibEntry entry = state.rib(0)->value(tep("10.0.0.1/32"));
       entry.tepIs(tep("10.99.0.1/32"));
       state.rib(0)->entryIs(entry);
     }},
    {__LINE__, "rib system", "preference", ribEntry("10.0.0.1/32", [](auto& entry) { entry.prefIs(3); })},
    {__LINE__, "rib system", "metrics", ribEntry("10.0.0.1/32", [](auto& entry) { entry.metricsIs({}); })},
    {__LINE__, "rib system", "tunnel",
     ribEntry("10.0.0.1/32", [](auto& entry) { entry.addTunnelId(id("ldpTunnel/2")); })},
    {__LINE__, "rib system", "tunnel",
     ribEntry("10.0.0.1/32",
              [](auto& entry) {
                entry.delTunnelId(entry.tunnelId(0));
                entry.addTunnelId(id("ldpTunnel/3"));
              })},
    {__LINE__, "rib te-custom", "entry", [](auto& state) { customRib(state).entryDel(tep("10.0.0.1/32")); }},
    {__LINE__, "protocolRib ldpTunnel", "entry", [](auto& state) { ldpRib(state).entryDel(tep("10.0.0.1/32")); }},
    {__LINE__, "protocolRib ldpTunnel", "tunnel",
     [](auto& state) {
       Model::TunnelRibEntry entry = ldpRib(state).value(tep("10.0.0.1/32"));
       entry.addTunnelId(id("ldpTunnel/2"));
       ldpRib(state).entryIs(entry);
     }},
    {__LINE__, "unprogrammable", "tunnel",
     [](auto& state) {
       const Quor::RealTimeSource time;
       Quor::TimeSlicePolicy slices(time);
       Agent::StatusWriter status(state, Zol::make<Quor::TaskScheduler>(time, slices));
       state.unprogrammable()->entryIs(id("ldpTunnel/1"), true);
     }},
    {__LINE__, "rib te-custom", "preference", reconfigured},
    {__LINE__, "fib", "entry",
     [](auto& state) { publisherDoes(state, [](auto& ldp) { ldp.entryDel(id("ldpTunnel/1")); }); }},
    {__LINE__, "fib", "entry", [](auto& state) { publisherDoes(state, addTunnel); }},
    {__LINE__, "protocolRib ldpTunnel", "entry", [](auto& state) { publisherDoes(state, addTunnel); }},
};

TEST_F(ShadowOf, verifyNamesEveryPlantedDivergence) {
  publishExample("abilene");
  for (const Spoiling& each : spoilings) {
    SCOPED_TRACE("case in line " + std::to_string(each.line));
    const std::string directory = copied();
    {
      Agent::AgentState state(Zol::make<Statehub::EntityManager>(directory), Statehub::Access::write);
      each.spoil(state);
    }
    const Verdict verdict = verify(directory);
    EXPECT_TRUE(std::any_of(verdict.wrong.begin(), verdict.wrong.end(), [&](const Difference& found) {
      return found.where == each.where && found.what == each.what;
    })) << verdict.wrong.size();
    EXPECT_LE(verdict.wrong.size(), 45U) << "what is right is called wrong";
    EXPECT_TRUE(verdict.inFlight.empty());
  }
}

// Fails if a churning table hides what is wrong elsewhere, or what churns is called wrong.
TEST_F(ShadowOf, whatMovesIsInFlightAndWhatStandsIsWrong) {
  publishExample("abilene");
  // An agent that runs, and does nothing.
  Agent::AgentState state(Zol::make<Statehub::EntityManager>(stateDirectory()), Statehub::Access::write);
  fibVia("ldpTunnel/1", false, [](auto& via) { via.intfIs(Ipkit::IntfId::fromText("if99")); })(state);
  Statehub::EntityManager publisher(stateDirectory());
  const Agent::ProtocolTables tables(publisher, {Agent::TableId::ldp}, Statehub::Access::write);
  Model::LdpTunnelTable& ldp = *tables.table<Model::LdpTunnelTable>();
  ldp.collectionReadyIs(true);
  Support::Process asked({TUNNELCTL_PATH, "verify", "--json", "--state-dir", stateDirectory()}, scratch() / "verdict");
  Model::LdpTunnelTableEntry entry = ldp.value(id("ldpTunnel/2"));
  for (unsigned host = 0; asked.output().empty(); host = (host + 1) % 250) {
    Model::MplsViaArray vias = entry.via();
    vias[0].nextHopIs(Ipkit::IpGenAddr::fromText("10.65.0." + std::to_string(host)));
    entry.viaIs(vias);
    ldp.entryIs(entry);
    usleep(20000);
  }
  EXPECT_EQ(asked.wait(), 1);
  const OrderedJson verdict = OrderedJson::parse(asked.output());
  const auto names = [&](const char* list, const char* tunnel) {
    return std::any_of(verdict[list].begin(), verdict[list].end(),
                       [&](const OrderedJson& each) { return each["key"] == tunnel; });
  };
  EXPECT_TRUE(names("wrong", "ldpTunnel/1")) << verdict;
  EXPECT_FALSE(names("inFlight", "ldpTunnel/1")) << verdict;
  EXPECT_TRUE(names("inFlight", "ldpTunnel/2")) << verdict;
  EXPECT_FALSE(names("wrong", "ldpTunnel/2")) << verdict;
}

TEST_F(ShadowOf, verifyGoesOnUntilASignalEndsIt) {
  publishExample("abilene");
  Support::Process asked({TUNNELCTL_PATH, "verify", "--json", "--every", "0.05", "--state-dir", stateDirectory()},
                         scratch() / "rounds");
  EXPECT_TRUE(Support::becomes([&] {
    const std::string said = asked.output();
    return std::count(said.begin(), said.end(), '\n') >= 3;
  }));
  EXPECT_EQ(asked.stop(), 0) << asked.output();
}

}  // namespace
}  // namespace Tools
