// A router whose state is looked at by a shadow of its agent.
#pragma once

#include "agent/AgentHost.h"
#include "agent/ScenarioReader.h"
#include "tests/tools/Router.h"
#include "tools/Shadow.h"
#include "tools/Verification.h"

namespace Tools {

inline std::string exampleFile(const std::string& name) { return std::string(EXAMPLES_DIR) + "/" + name + ".jsonl"; }

// The RIBs that are configured at the end of a scenario.
inline std::string configOf(const std::string& file) {
  std::ifstream in(file);
  Agent::ScenarioReader reader(in, file);
  std::map<std::string, std::string> ribs;
  while (const auto line = reader.next()) {
    if (const auto* const rib = std::get_if<Agent::RibLine>(&*line)) {
      ribs[rib->name] = Agent::ribLineText(*Agent::ribConfig(rib->name, rib->tables)) + "\n";
    } else if (const auto* const gone = std::get_if<Agent::RibDeleteLine>(&*line)) {
      ribs.erase(gone->name);
    }
  }
  std::string text;
  for (const auto& [name, line] : ribs) {
    text += line;
  }
  return text;
}

class ShadowRouter : protected Router {
 protected:
  Support::Process serveExample(const std::string& name) const {
    return serve({"--config", scratch().fileWith("rib.jsonl", configOf(exampleFile(name)))});
  }
  // Published and settled; nobody runs afterwards.
  void publishExample(const std::string& name) const {
    Support::Process agent = serveExample(name);
    ASSERT_EQ(publishAll({exampleFile(name)}), 0);
    ASSERT_TRUE(agent.says("ready"));
    ASSERT_TRUE(Support::becomes([&] { return isSame(); }, 60)) << agentLog();
    agent.stop(SIGKILL);
  }
  bool isSame() const {
    const Verdict verdict = verify(stateDirectory());
    return verdict.wrong.empty() && verdict.inFlight.empty() && verdict.incomplete.empty();
  }
  // What is foretold after change(shadow).
  template <class Change>
  OrderedJson foretold(Change&& change) const {
    StateReading reading(stateDirectory());
    Shadow shadow(reading);
    change(shadow);
    shadow.settle();
    return withoutEncapIndexes(Agent::stateDocument(shadow.host()));
  }
  static OrderedJson comparable(OrderedJson document) {
    document.erase("convergence");  // tells the publisher's sequence numbers
    return document;
  }
  // A copy of the state directory that can be spoilt.
  std::string copied() const {
    const std::filesystem::path to = scratch() / "copy";
    std::filesystem::remove_all(to);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(stateDirectory())) {
      if (entry.is_regular_file() && !entry.path().filename().string().starts_with(".")) {
        const auto target = to / std::filesystem::relative(entry.path(), stateDirectory());
        std::filesystem::create_directories(target.parent_path());
        std::filesystem::copy_file(entry.path(), target);
      }
    }
    for (const auto& entry : std::filesystem::recursive_directory_iterator(to)) {
      if (entry.is_directory()) {
        std::filesystem::permissions(entry.path(), std::filesystem::perms(0750));
      }
    }
    std::filesystem::permissions(to, std::filesystem::perms(0750));
    return to;
  }
};

}  // namespace Tools
