// An agent over tables that another process writes reads what it has not heard of yet: the tables are ahead of the
// news. Here both are in one process, so that a seed decides how far.

#include <random>

#include "agent/AgentConfig.h"
#include "agent/EntryDraft.h"
#include "runtime/Quor/SimulatedLoop.h"
#include "runtime/Quor/UnitSlicePolicy.h"
#include "tests/support/Seeds.h"
#include "tests/tools/ShadowRouter.h"
#include "tools/Shadow.h"
#include "tools/StateComparison.h"

namespace Tools {
namespace {

class LateNews : public testing::TestWithParam<const char*>, protected ShadowRouter {};

// An agent that does one step when it is told.
class SteppedAgent {
 public:
  SteppedAgent(const std::string& directory, const Agent::AgentConfig& config, std::uint64_t unitsInSlice)
      : policy_(unitsInSlice), host_(time_, policy_, Zol::make<Statehub::EntityManager>(directory)) {
    Agent::forEachNamedTable([this](auto named) { host_.tables().table<typename decltype(named)::Table>()->follow(); });
    Agent::applyConfig(config, *host_.ribConfigs());
    host_.start();
    status_.publishRibs(*host_.ribConfigs());
  }
  const Agent::AgentHost& host() const { return host_; }
  bool hears(std::size_t keys) {
    host_.entityManager()->rescan();
    return host_.entityManager()->poll(keys);
  }
  void runSlice() {
    if (!host_.scheduler()->runReadyTask() && host_.scheduler()->hasTasks()) {
      time_.nowIs(*host_.scheduler()->nextDeadline());
    }
  }
  void settle() {
    while (hears(1000)) {
    }
    Quor::settle(*host_.scheduler(), time_);
  }

 private:
  Quor::SimulatedTimeSource time_;
  Quor::UnitSlicePolicy policy_;
  Agent::AgentHost host_;
  Agent::StatusWriter status_{host_, host_.scheduler()};
};

// Fails if a review that reads ahead leaves something that the news behind it do not put right.
TEST_P(LateNews, doNotMatterInTheEnd) {
  const std::string file = exampleFile(GetParam());
  std::istringstream configText(configOf(file));
  const Agent::AgentConfig config = Agent::readConfig(configText, "config");
  Support::forEachSeed(30, [&](unsigned seed) {
    std::mt19937 random(seed);
    const Support::ScratchDirectory scratch;
    Statehub::EntityManager publisher(scratch / "state");
    const std::set<Agent::TableId> all(Agent::allTables().begin(), Agent::allTables().end());
    const Agent::ProtocolTables tables(publisher, all, Statehub::Access::write);
    SteppedAgent agent(scratch / "state", config, 1 + random() % 20);
    const unsigned pace = 2 + random() % 8;
    std::ifstream in(file);
    Agent::ScenarioReader reader(in, file);
    while (const auto line = reader.next()) {
      if (const auto* const put = std::get_if<Agent::PutLine>(&*line)) {
        Agent::putEntry(tables, put->table, put->entry);
      } else if (const auto* const del = std::get_if<Agent::DeleteLine>(&*line)) {
        Agent::deleteEntry(tables, del->table, del->index);
      }
      while (random() % pace == 0) {
        random() % 2 == 0 ? void(agent.hears(1 + random() % 5)) : agent.runSlice();
      }
    }
    agent.settle();
    StateReading reading(scratch / "state");
    compareStates(agent.host(), Shadow(reading).host(), {}, [](const Difference& each) {
      ADD_FAILURE() << each.where << ' ' << each.key << ": " << each.what;
      return true;
    });
  });
}

INSTANTIATE_TEST_SUITE_P(Examples, LateNews, testing::Values("abilene", "captured-isp"), [](const auto& name) {
  std::string word = name.param;
  std::replace(word.begin(), word.end(), '-', '_');
  return word;
});

}  // namespace
}  // namespace Tools
