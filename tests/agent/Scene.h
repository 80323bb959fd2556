// An agent in simulated time, and scenario text applied to it.
#pragma once

#include <sstream>
#include <string>

#include "agent/AgentHost.h"
#include "agent/ScenarioPlayer.h"
#include "agent/ScenarioReader.h"
#include "agent/StateDocument.h"
#include "runtime/Quor/UnitSlicePolicy.h"

namespace Agent {

class Scene {
 public:
  explicit Scene(std::uint64_t yieldEvery = 1000) : slicePolicy_(yieldEvery) {}

  AgentHost& host() { return host_; }
  // Applies the lines; the text of the error that ended that, or nothing.
  std::string apply(const std::string& text) {
    std::istringstream in(text);
    ScenarioReader reader(in, "file");
    try {
      while (const auto line = reader.next()) {
        reader.naming([&] { player_.apply(*line); });
      }
    } catch (const ScenarioError& error) {
      return error.what();
    }
    return {};
  }
  OrderedJson settled() {
    player_.settle();
    return stateDocument(host_);
  }

 private:
  Quor::SimulatedTimeSource time_;
  Quor::UnitSlicePolicy slicePolicy_;
  AgentHost host_{time_, slicePolicy_};
  ScenarioPlayer player_{host_, time_};
};

}  // namespace Agent
