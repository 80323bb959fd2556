// The commands that ask a shadow of the agent, over what real processes published; the agent is killed before most
// questions.

#include <algorithm>

#include "tests/tools/ShadowRouter.h"

namespace Tools {
namespace {

namespace Fib = Tunnel::TunnelFib;

class ShadowExample : public testing::TestWithParam<const char*>, protected ShadowRouter {};

// Fails if shadow and agent read configuration or tables differently, or if a comparison sees what is no difference.
TEST_P(ShadowExample, whatRealProcessesPublishIsRightAndSound) {
  Support::Process agent = serveExample(GetParam());
  ASSERT_TRUE(agent.says("ready")) << "or else verify finds nobody who could be behind";
  Support::Process publisher = publish({exampleFile(GetParam()), "--step"});
  const auto settles = [&publisher] {
    const std::string said = publisher.output();
    return std::count(said.begin(), said.end(), '\n');
  };
  for (int settle = 1; settle <= 3 && Support::becomes([&] { return settles() == settle; }, 2); ++settle) {
    const Answer answer = ask({"verify"});
    EXPECT_EQ(answer.status, 0) << answer.text.substr(0, 2000);
    publisher.tell("\n");
  }
  publisher.stop(SIGKILL);
  ASSERT_EQ(publishAll({exampleFile(GetParam())}), 0);
  ASSERT_TRUE(Support::becomes([&] { return isSame(); }, 60)) << agentLog();
  const Answer running = ask({"check"});
  EXPECT_EQ(running.status, 0) << running.text;
  agent.stop(SIGKILL);
  const Answer verified = ask({"verify"});
  EXPECT_EQ(verified.status, 0) << verified.text.substr(0, 2000);
  EXPECT_NE(verified.text.find(" 0 differences, 0 in flight; no agent is running"), std::string::npos) << verified.text;
  const Answer checked = ask({"check", "--json"});
  EXPECT_EQ(checked.status, 0) << checked.text;
  EXPECT_EQ(checked.json()["sound"], true);
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
    EXPECT_LE(verdict.wrong.size(), 12U) << "what is right is called wrong";
    EXPECT_TRUE(verdict.inFlight.empty());
  }
}

}  // namespace
}  // namespace Tools
